#include "agent/storage/set_files.h"

#include "agent/catalog/sqlite_catalog.h"
#include "agent/storage/pool_path.h"
#include "agent/storage/pool_sweep.h"
#include "agent/storage/sqlite_pools.h"

#include "host/storage/compression.h"
#include "host/storage/storage_backend.h"
#include "host/storage/xbsa_layout.h"
#include "qmrt/log.h"

namespace {

/** The objects that a piece may be, by what is there. */
void add_objects(Storage_Connection& pool, std::string const& path,
                 std::vector<std::string>& objects) {
    for (Compression_Method const method : {COMPR_NONE, COMPR_ZSTD, COMPR_LZOP}) {
        std::string const object = path + compression_value_to_suffix(method);
        Storage_Entry entry;
        if (pool.stat(object, entry))
            objects.push_back(object + (entry.is_folder ? "/" : ""));
    }
}

} // namespace

std::vector<std::string> Set_Files::objects_in(std::string const& pool_path,
                                               Dropped_Set const& set) {
    std::vector<std::string> objects;
    std::string of_tool; // goes as a whole, with what the catalog has heard of and what not
    if (!set.resource_uuid.empty())
        of_tool = xbsa_set_folder(set.resource_uuid, set.uuid) + "/";
    std::shared_ptr<Storage_Connection> connection;
    bool const there =
        static_cast<bool>(storage_.connect(url_of_pool_path(pool_path), {}, connection));
    for (std::string const& path : set.piece_paths) {
        if (!of_tool.empty() && path.starts_with(of_tool))
            continue;
        if (there)
            add_objects(*connection, path, objects);
        else
            objects.push_back(path);
    }
    if (!of_tool.empty())
        objects.push_back(of_tool);
    return objects;
}

bool Set_Files::note(Dropped_Set const& set, std::vector<Pool_Object>& noted) {
    bool good = true;
    for (std::string const& pool : set.pool_uuids) {
        Pool_Record record;
        if (!pools_.find_record(pool, record))
            continue;
        for (std::string& name : objects_in(record.path, set)) {
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
