#ifndef HOST_STORAGE_FILE_POOL_FOLDER_H
#define HOST_STORAGE_FILE_POOL_FOLDER_H

#include "host/storage/storage_backend.h"
#include "qmrt/file.h"

#include <dirent.h>
#include <memory>
#include <sys/types.h>

/** The result for a system call that failed with @a error: "<what>: <text of the error>". */
Storage_Result storage_errno(std::string const& what, int error);

/** What an object is made with; a shared pool's folder adds its group's rights. */
constexpr mode_t OBJECT_MODE = 0640;

/** For a std::unique_ptr of a directory that is being read. */
struct Directory_Closer {
    void operator()(DIR* directory) const { closedir(directory); }
};

/**
 * Who may use a pool besides its owner. In a pool whose folder its group may write, as one of mode
 * 2770 that the agent and a database's user share, all that is made gets the folder's group and its
 * group's rights, whatever the maker's own group and umask. In any other pool nothing is changed.
 * All operations may be called on several threads at once; they are best effort, since what could
 * not be shared is still its maker's.
 */
class Pool_Sharing {
public:
    /** @param pool  the pool's folder */
    explicit Pool_Sharing(int pool);

    /** The mode to make a folder with. */
    mode_t folder_mode() const;
    /** Gives a folder that was just made to the group. */
    void share_folder(int fd) const;
    /** Gives a file that was just made to the group. */
    void share_file(int fd) const;

private:
    void share(int fd, mode_t own_mode, mode_t group_bits) const;

    mode_t pool_mode_ = 0; ///< 0 when nothing is shared
    gid_t group_ = 0;
};

/**
 * A pool's folder in a file system, and the ways into it. Every way is walked name by name from the
 * folder's descriptor, no link followed, so nobody leads out of the pool by swapping a folder for a
 * link meanwhile. All operations may be called on several threads at once.
 */
class File_Pool_Folder {
public:
    using Parts = std::vector<std::string>;

    /** @param prefix  the names that lead from the pool's folder to the connection's */
    File_Pool_Folder(File_Descriptor pool, Parts prefix)
        : pool_(std::move(pool)), sharing_(pool_.get()), prefix_(std::move(prefix)) {}

    Pool_Sharing const& sharing() const { return sharing_; }
    int pool_fd() const { return pool_.get(); }
    /** The parts of an object's or folder's name from the pool's folder on. */
    Parts full_parts(std::string const& name) const;

    /** Opens the folder that the first @a depth parts lead to. */
    Storage_Result open_folder(Parts const& parts, size_t depth, File_Descriptor& folder) const;
    /** The same; makes the folders that are not there, and syncs the folders that they are in. */
    Storage_Result make_folder(Parts const& parts, size_t depth, File_Descriptor& folder) const;
    /**
     * Removes the folders on the way to a name from the innermost on, up to the first that is not
     * empty. The pool's own folder stays.
     */
    void remove_empty_folders(Parts const& parts) const;

private:
    File_Descriptor pool_;
    Pool_Sharing const sharing_;
    Parts const prefix_;
};

#endif
