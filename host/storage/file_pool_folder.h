#ifndef HOST_STORAGE_FILE_POOL_FOLDER_H
#define HOST_STORAGE_FILE_POOL_FOLDER_H

#include "host/storage/storage_backend.h"
#include "qmrt/file.h"

#include <dirent.h>
#include <memory>
#include <sys/stat.h>
#include <sys/types.h>

/** The result for a system call that failed with @a error: "<what>: <text of the error>". */
Storage_Result storage_errno(std::string const& what, int error);

/** What an object is made with: its maker's alone. Who enters what is told in xbsa_folder.h. */
constexpr mode_t OBJECT_MODE = 0600;

/** What a file's or folder's status says of it. */
Storage_Entry storage_entry(std::string name, struct stat const& status);

/**
 * Lists an open folder by name in byte order: files and folders whose names can be objects' names.
 * @param names_only  sizes and times may be 0; spares a look at each file
 */
Storage_Result list_folder(File_Descriptor const& folder, bool names_only,
                           std::vector<Storage_Entry>& entries);

/** For a std::unique_ptr of a directory that is being read. */
struct Directory_Closer {
    void operator()(DIR* directory) const { closedir(directory); }
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
        : pool_(std::move(pool)), prefix_(std::move(prefix)) {}

    /** Opens a pool's folder, to be listed or, where that is not allowed, to be passed through. */
    static File_Descriptor open_pool(char const* path);

    int pool_fd() const { return pool_.get(); }
    /** The parts of an object's or folder's name from the pool's folder on. */
    Parts full_parts(std::string const& name) const;

    /**
     * Opens the folder that the first @a depth parts lead to. One that may be passed through and
     * not be read is opened with O_PATH.
     */
    Storage_Result open_folder(Parts const& parts, size_t depth, File_Descriptor& folder) const;
    /** The same; makes the folders that are not there, and syncs the folders that they are in. */
    Storage_Result make_folder(Parts const& parts, size_t depth, File_Descriptor& folder) const;
    /**
     * Removes the folders on the way to a name from the innermost on, up to the first that is not
     * empty. The pool's own folder stays, and so does a cluster's for the XBSA library, which the
     * library's user could not make anew.
     */
    void remove_empty_folders(Parts const& parts) const;

private:
    File_Descriptor pool_;
    Parts const prefix_;
};

#endif
