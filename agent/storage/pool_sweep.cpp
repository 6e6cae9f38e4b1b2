#include "agent/storage/pool_sweep.h"

#include "agent/catalog/sqlite_catalog.h"
#include "agent/storage/pool_path.h"
#include "agent/storage/sqlite_pools.h"

#include "host/storage/file_pool_folder.h"
#include "host/storage/file_storage_backend.h"
#include "host/storage/file_storage_writer.h"
#include "host/storage/xbsa_layout.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/scoped_deleter.h"
#include "qmrt/utf8.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** Logs and counts the removal of an object. @return whether it does not exist any longer */
bool is_removed(Pool_Object const& object, Storage_Result const& result, Sweep_Result& sum) {
    if (result) {
        QMRT_LOG(LM_INFO, "Removed %s/%s, which no backup set has\n", object.pool_path.c_str(),
                 object.name.c_str());
        ++sum.removed;
    } else if (result.code() != Storage_Result::NOT_FOUND) {
        QMRT_LOG(LM_WARNING, "Cannot remove %s/%s, which no backup set has: %s\n",
                 object.pool_path.c_str(), object.name.c_str(), result.text().c_str());
        return false;
    }
    return true;
}

/**
 * Removes from a folder and all folders below it what no set has, and the folders that are empty
 * then. A database's user owns some of them and may move them meanwhile:
 *
 * - Every step is one name from an open folder, and follows no link.
 * - Going back up is by "..", which has to be the folder that was left.
 *
 * So nothing outside of the tree is touched. Two folders are open at a time, however deep it is,
 * and the time is linear in the number of files and folders.
 */
class Folder_Sweep {
public:
    /** @param folder  its name ends with "/" */
    Folder_Sweep(Pool_Object const& folder, Set_Question const& question, Sweep_Result& sum)
        : question_(question), sum_(sum), at_(folder) {}

    /** @return false when something stays that should not, or that somebody still writes */
    bool run(File_Descriptor top) {
        enter(std::move(top), "");
        while (!levels_.empty()) {
            std::vector<std::string>& folders = levels_.back().folders;
            if (folders.empty()) {
                if (!leave())
                    return false;
                continue;
            }
            std::string const name = std::move(folders.back());
            folders.pop_back();
            descend(name);
        }
        return done_;
    }

private:
    /** No object's name has more parts; a user could make folders as fast as they are entered. */
    static constexpr size_t MAX_DEPTH = names::MAX_OBJECT / 2;

    struct Level {
        std::string name; ///< in the level above
        struct stat status;
        std::vector<std::string> folders; ///< still to be entered
    };

    void descend(std::string const& name) {
        File_Descriptor folder(
            openat(open_.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        int const error = errno;
        if (folder && levels_.size() == MAX_DEPTH)
            failed("there are too many folders within each other");
        else if (folder)
            enter(std::move(folder), name);
        else if (error != ENOENT && error != ENOTDIR && error != ELOOP) // else not a folder of ours
            failed(strerror(error));
    }
    void enter(File_Descriptor folder, std::string const& name) {
        Level level{name, {}, {}};
        std::vector<Storage_Entry> entries;
        Storage_Result const listed = list_folder(folder, true, entries);
        if (!listed || fstat(folder.get(), &level.status) == -1)
            return failed(listed ? strerror(errno) : listed.text());
        if (!name.empty())
            at_.name += name + "/";
        open_ = std::move(folder);
        size_t const before = sum_.removed;
        for (Storage_Entry& entry : entries)
            if (entry.is_folder)
                level.folders.push_back(std::move(entry.name));
            else
                remove_unless_named(entry.name);
        size_t left = 0;
        sum_.unfinished += sweep_unfinished(open_, 0, &left);
        done_ = done_ && left == 0;
        if (sum_.removed != before && fsync(open_.get()) == -1)
            failed(strerror(errno));
        levels_.push_back(std::move(level));
    }
    void remove_unless_named(std::string const& leaf) {
        Pool_Object const object{at_.pool_path, at_.name + leaf};
        bool named = false;
        if (!question_(object, named)) {
            done_ = false;
            return;
        }
        if (named)
            return;
        Storage_Result const removed = unlinkat(open_.get(), leaf.c_str(), 0) == 0
                                           ? Storage_Result()
                                           : storage_errno("cannot remove the file", errno);
        done_ = is_removed(object, removed, sum_) && done_;
    }
    /** @return false when the folder above cannot be entered */
    bool leave() {
        std::string const name = levels_.back().name;
        struct stat const* const above = levels_.size() > 1 ? &levels_.end()[-2].status : nullptr;
        levels_.pop_back();
        if (!above)
            return true;
        File_Descriptor parent(openat(open_.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        struct stat status;
        if (!parent || fstat(parent.get(), &status) == -1 || status.st_dev != above->st_dev ||
            status.st_ino != above->st_ino) {
            failed("it was moved meanwhile");
            return false;
        }
        open_ = std::move(parent);
        at_.name.resize(at_.name.size() - name.size() - 1);
        if (!is_xbsa_cluster_folder(at_.name + name))
            unlinkat(open_.get(), name.c_str(), AT_REMOVEDIR); // stays if it is not empty
        return true;
    }
    void failed(std::string const& why) {
        QMRT_LOG(LM_WARNING, "Cannot remove all of %s/%s, which no backup set has: %s\n",
                 at_.pool_path.c_str(), qmrt::to_one_line(at_.name.substr(0, SHOWN)).c_str(),
                 why.c_str());
        done_ = false;
    }
    static constexpr size_t SHOWN = 200;

    Set_Question const& question_;
    Sweep_Result& sum_;
    Pool_Object at_; ///< the open folder
    File_Descriptor open_;
    std::vector<Level> levels_; ///< from the folder swept to the open one
    bool done_ = true;
};

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
        if (!check_object_name(name))
            return true; // never the pool itself
        File_Pool_Folder::Parts parts = folder_.full_parts(name);
        File_Descriptor top;
        Storage_Result const opened = folder_.open_folder(parts, parts.size(), top);
        if (!opened)
            return opened.code() == Storage_Result::NOT_FOUND ||
                   opened.code() == Storage_Result::BAD_NAME;
        Folder_Sweep sweep(folder, question, result_);
        bool const done = sweep.run(std::move(top));
        parts.emplace_back(); // what would be in the folder
        folder_.remove_empty_folders(parts);
        return done;
    }
    bool remove_unless_named(Pool_Object const& object, Set_Question const& question) {
        bool named = false;
        return question(object, named) && (named || remove(object));
    }
    bool remove(Pool_Object const& object) {
        Storage_Result const removed = connection_->remove(object.name);
        // a BAD_NAME is not an object of ours
        return removed.code() == Storage_Result::BAD_NAME || is_removed(object, removed, result_);
    }
    /** What was left in the folder of the first @a depth parts, and the folders made for it. */
    void sweep_unfinished_in(File_Pool_Folder::Parts parts, size_t depth) {
        File_Descriptor folder;
        if (folder_.open_folder(parts, depth, folder))
            result_.unfinished += sweep_unfinished(folder, 0);
        // a kill between making two folders leaves only the outer ones
        for (parts.resize(depth + 1); parts.size() > 1; parts.pop_back())
            folder_.remove_empty_folders(parts);
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
