#include "agent/storage/pool_sweep.h"

#include "agent/catalog/sqlite_catalog.h"
#include "agent/storage/pool_path.h"
#include "agent/storage/sqlite_pools.h"

#include "host/storage/file_pool_folder.h"
#include "host/storage/file_storage_backend.h"
#include "host/storage/file_storage_writer.h"
#include "qmrt/log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace {

/** One pool's objects. */
class Pool_Sweep {
public:
    Pool_Sweep(Write_Journal& journal, std::string const& path, Sweep_Result& result)
        : journal_(journal),
          result_(result),
          folder_(File_Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), {}) {
        Storage_Result const connected =
            File_Storage_Backend().connect(url_of_pool_path(path), {}, connection_);
        if (!connected || folder_.pool_fd() == -1) {
            connection_.reset();
            QMRT_LOG(LM_WARNING,
                     "What was being written to pool %s stays until it can be reached: %s\n",
                     path.c_str(), connected.text().c_str());
        }
    }

    void sweep(Pool_Object const& object, Set_Question const& question) {
        bool named = false;
        if (!connection_ || !question(object, named)) {
            ++result_.put_off;
            return;
        }
        if (!named && !remove(object)) {
            ++result_.put_off;
            return;
        }
        sweep_folder(object);
        journal_.removed(object);
    }

private:
    bool remove(Pool_Object const& object) {
        Storage_Result const removed = connection_->remove(object.name);
        if (removed) {
            QMRT_LOG(LM_INFO, "Removed %s/%s, which no backup set has\n", object.pool_path.c_str(),
                     object.name.c_str());
            ++result_.removed;
            return true;
        }
        if (removed.code() == Storage_Result::NOT_FOUND ||
            removed.code() == Storage_Result::BAD_NAME)
            return true; // gone, or none of ours stands there
        QMRT_LOG(LM_WARNING, "Cannot remove %s/%s, which no backup set has: %s\n",
                 object.pool_path.c_str(), object.name.c_str(), removed.text().c_str());
        return false;
    }
    /** What was left beside the object, and the folders that were made for it. */
    void sweep_folder(Pool_Object const& object) {
        File_Pool_Folder::Parts const parts = folder_.full_parts(object.name);
        File_Descriptor folder;
        if (folder_.open_folder(parts, parts.size() - 1, folder))
            result_.unfinished += sweep_unfinished(folder, 0);
        // a kill between making two folders leaves only the outer ones
        for (size_t depth = parts.size(); depth > 1; --depth)
            folder_.remove_empty_folders({parts.begin(), parts.begin() + static_cast<long>(depth)});
    }

    Write_Journal& journal_;
    Sweep_Result& result_;
    File_Pool_Folder const folder_;
    std::shared_ptr<Storage_Connection> connection_;
};

} // namespace

Sweep_Result sweep_pool_writes(Write_Journal& journal, Set_Question const& question) {
    Sweep_Result result;
    std::unique_ptr<Pool_Sweep> pool;
    std::string pool_path;
    for (Pool_Object const& object : journal.left()) { // ordered by pool
        if (!pool || object.pool_path != pool_path) {
            pool_path = object.pool_path;
            pool = std::make_unique<Pool_Sweep>(journal, pool_path, result);
        }
        pool->sweep(object, question);
    }
    return result;
}

Set_Question ask_catalog(SQLite_Pools& pools, SQLite_Catalog& catalog) {
    return [&pools, &catalog](Pool_Object const& object, bool& named) {
        Pool_Record pool;
        Storage_Result const found = pools.find_by_path(object.pool_path, pool);
        if (found.code() == Storage_Result::NOT_FOUND) {
            named = true;
            return true;
        }
        return found && catalog.names_object(pool.uuid, object.name, named);
    };
}
