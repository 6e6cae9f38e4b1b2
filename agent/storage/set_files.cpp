#include "agent/storage/set_files.h"

#include "agent/catalog/sqlite_catalog.h"
#include "agent/storage/pool_path.h"
#include "agent/storage/pool_sweep.h"
#include "agent/storage/sqlite_pools.h"

#include "host/storage/compression.h"
#include "host/storage/storage_backend.h"
#include "host/storage/xbsa_layout.h"
#include "qmrt/log.h"

#include <algorithm>
#include <iterator>

std::vector<std::string> Set_Files::objects_of_piece(std::string const& pool_path,
                                                     std::string const& path) {
    std::shared_ptr<Storage_Connection> connection;
    if (!storage_.connect(url_of_pool_path(pool_path), {}, connection))
        return {path};
    std::vector<std::string> found;
    for (Compression_Method const method : {COMPR_NONE, COMPR_ZSTD, COMPR_LZOP}) {
        std::string const object = path + compression_value_to_suffix(method);
        Storage_Entry entry;
        if (connection->stat(object, entry))
            found.push_back(object + (entry.is_folder ? "/" : ""));
    }
    return found;
}

bool Set_Files::note(Dropped_Set const& set, std::vector<Pool_Object>& noted) {
    bool good = true;
    for (std::string const& pool : set.pool_uuids) {
        Pool_Record record;
        if (!pools_.find_record(pool, record))
            continue;
        std::vector<std::string> names;
        for (std::string const& path : set.piece_paths)
            std::ranges::move(objects_of_piece(record.path, path), std::back_inserter(names));
        if (!set.resource_uuid.empty())
            names.push_back(xbsa_set_folder(set.resource_uuid, set.uuid) + "/");
        for (std::string& name : names) {
            Pool_Object object{record.path, std::move(name)};
            std::string error;
            if (journal_.note(object, error)) {
                noted.push_back(std::move(object));
                continue;
            }
            QMRT_LOG(LM_WARNING, "%s of a dropped set stays in the pool %s: %s\n",
                     object.name.c_str(), record.name.c_str(), error.c_str());
            good = false;
        }
    }
    return good;
}

void Set_Files::remove(std::vector<Pool_Object> const& noted) {
    sweep_pool_objects(noted, journal_, ask_catalog(pools_, catalog_), &storage_);
}
