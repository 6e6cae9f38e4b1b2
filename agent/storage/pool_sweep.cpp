#include "agent/storage/pool_sweep.h"

#include "agent/catalog/sqlite_catalog.h"
#include "agent/storage/pool_path.h"
#include "agent/storage/sqlite_pools.h"

#include "host/storage/file_pool_folder.h"
#include "host/storage/file_storage_backend.h"
#include "host/storage/file_storage_writer.h"
#include "qmrt/log.h"
#include "qmrt/scoped_deleter.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace {

/** One pool's objects. */
class Pool_Sweep {
public:
    Pool_Sweep(Write_Journal& journal, std::string const& path, Storage_Backend& pools,
               Sweep_Result& result)
        : journal_(journal),
          result_(result),
          folder_(File_Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), {}) {
        Storage_Result const connected = pools.connect(url_of_pool_path(path), {}, connection_);
        if (!connected || folder_.pool_fd() == -1) {
            connection_.reset();
            QMRT_LOG(LM_WARNING,
                     "What was being written to pool %s stays until it can be reached: %s\n",
                     path.c_str(), connected.text().c_str());
        }
    }

    void sweep(Pool_Object const& object, Set_Question const& question) {
        if (!journal_.hold(object)) {
            ++result_.put_off;
            return;
        }
        Scoped_Deleter const release([&] { journal_.release(object); });
        bool const is_folder = object.name.ends_with('/');
        if (connection_ &&
            (is_folder ? sweep_whole(object, question) : sweep_one(object, question)))
            journal_.removed(object);
        else
            ++result_.put_off;
    }

private:
    bool sweep_one(Pool_Object const& object, Set_Question const& question) {
        if (!remove_unless_named(object, question))
            return false;
        File_Pool_Folder::Parts const parts = folder_.full_parts(object.name);
        sweep_unfinished_in(parts, parts.size() - 1);
        return true;
    }
    /** @return false also when a living writer has something unfinished in the folder */
    bool sweep_whole(Pool_Object const& folder, Set_Question const& question) {
        std::string const name = folder.name.substr(0, folder.name.size() - 1);
        std::vector<Storage_Entry> entries;
        if (name.empty())
            return true; // never the pool itself
        Storage_Result const listed = connection_->list(name, entries);
        if (!listed)
            return listed.code() == Storage_Result::NOT_FOUND ||
                   listed.code() == Storage_Result::BAD_NAME;
        bool done = true;
        for (Storage_Entry const& entry : entries) {
            Pool_Object const inner{folder.pool_path,
                                    folder.name + entry.name + (entry.is_folder ? "/" : "")};
            done &= entry.is_folder ? sweep_whole(inner, question)
                                    : remove_unless_named(inner, question);
        }
        File_Pool_Folder::Parts const parts = folder_.full_parts(name);
        return sweep_unfinished_in(parts, parts.size()) && done;
    }
    bool remove_unless_named(Pool_Object const& object, Set_Question const& question) {
        bool named = false;
        return question(object, named) && (named || remove(object));
    }
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
    /**
     * What was left in the folder of the first @a depth parts, and the folders made for it.
     * @return false when living writers have something in it
     */
    bool sweep_unfinished_in(File_Pool_Folder::Parts parts, size_t depth) {
        size_t left = 0;
        File_Descriptor folder;
        if (folder_.open_folder(parts, depth, folder))
            result_.unfinished += sweep_unfinished(folder, 0, &left);
        // a kill between making two folders leaves only the outer ones
        for (parts.resize(depth + 1); parts.size() > 1; parts.pop_back())
            folder_.remove_empty_folders(parts);
        return left == 0;
    }

    Write_Journal& journal_;
    Sweep_Result& result_;
    File_Pool_Folder const folder_;
    std::shared_ptr<Storage_Connection> connection_;
};

} // namespace

Sweep_Result sweep_pool_writes(Write_Journal& journal, Set_Question const& question,
                               Storage_Backend* pools) {
    return sweep_pool_objects(journal.left(), journal, question, pools);
}

Sweep_Result sweep_pool_objects(std::vector<Pool_Object> const& objects, Write_Journal& journal,
                                Set_Question const& question, Storage_Backend* pools) {
    File_Storage_Backend files;
    Sweep_Result result;
    std::unique_ptr<Pool_Sweep> pool;
    std::string pool_path;
    for (Pool_Object const& object : objects) {
        if (!pool || object.pool_path != pool_path) {
            pool_path = object.pool_path;
            pool = std::make_unique<Pool_Sweep>(journal, pool_path, pools ? *pools : files, result);
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
