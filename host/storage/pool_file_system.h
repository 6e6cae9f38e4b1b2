#ifndef HOST_STORAGE_POOL_FILE_SYSTEM_H
#define HOST_STORAGE_POOL_FILE_SYSTEM_H

#include "host/storage/pool_names.h"
#include "host/storage/storage_clock.h"
#include "host/storage/written_file.h"

#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>

/**
 * The operations of a file system that shows a folder of a pool; Mount_Fuse puts it before a
 * kernel.
 *
 * Objects appear under their names without the suffix of a compression method and with their
 * content as it was before. A file that is written becomes an object at flush() or sync(), whole,
 * and that is where a failure to store it shows; before that the old object is there. Its name gets
 * the suffix of the settings' method. A name that itself ends in such a suffix gets one more, so
 * that the file keeps its name and content.
 *
 * Folders that are made are shown until the end although a pool has none without an object.
 * Owner, mode and times cannot be changed; a change is taken and forgotten, as restoring tools set
 * them on everything that they write. Links and special files are not to be had.
 *
 * Operations return 0 or more, or an errno value as a negative number. They may be called on
 * several threads at once. Failures of the pool are logged, what a program asks in vain is not.
 */
class Pool_File_System {
public:
    struct Settings {
        Compression_Method compression = COMPR_NONE; ///< of what is written
        Written_File_Settings writing;
        bool read_only = false;
        uint64_t retry_timeout =
            0;         ///< seconds for which a pool is asked again that does not answer
        uid_t uid = 0; ///< the owner of all, who alone may use it
        gid_t gid = 0;
        Storage_Clock* clock = &Storage_Clock::system();
    };
    struct Entry {
        std::string name;
        bool is_folder;
    };

    Pool_File_System(std::shared_ptr<Storage_Connection> connection, Settings const& settings);
    /** Stores what is still open, with a warning line for each file; failures are logged. */
    ~Pool_File_System();

    /** Paths begin with "/", which is the folder itself. */
    int attributes(std::string const& path, struct stat& status);
    int list(std::string const& path, std::vector<Entry>& entries);
    int make_directory(std::string const& path);
    int remove_directory(std::string const& path);
    int remove_file(std::string const& path);
    /** Files only: a folder is EXDEV, so that programs copy it. @param flags of renameat2(2) */
    int rename(std::string const& from, std::string const& to, unsigned flags);
    int truncate(std::string const& path, uint64_t size);
    /** For changes that are taken and forgotten: success when there is something at the path. */
    int touch(std::string const& path);
    int space(struct statvfs& status);

    /** @param flags of open(2); O_CREAT makes the file. @param handle for the operations below */
    int open(std::string const& path, int flags, uint64_t& handle);
    int read(uint64_t handle, uint64_t offset, void* buffer, size_t size);
    int write(uint64_t handle, uint64_t offset, void const* data, size_t size);
    int truncate(uint64_t handle, uint64_t size);
    /** Stores what has been written; at every close of the file and at its fsync. */
    int flush(uint64_t handle);
    void release(uint64_t handle);

private:
    /** The object name of a path: without the "/" before it. */
    static std::string name_of(std::string const& path);

    /** A file that is open to be written, by one or several handles. */
    struct Writing {
        std::mutex mutex;
        std::shared_ptr<Written_File> file;
        std::string path;
        bool removed = false;
        unsigned handles = 0; ///< guarded by the file system's mutex
    };
    struct Handle {
        std::mutex mutex; ///< of content that is packed
        std::unique_ptr<Object_Content> content;
        std::shared_ptr<Writing> writing;
        bool may_write = false;
        bool appends = false;
    };
    /** What stands at a path. */
    struct Found {
        bool is_folder = false;
        std::string object;
        Storage_Entry entry;
    };

    Storage_Result find(std::string const& path, Found& found);
    /** Looks for a file or folder among the objects that it may be stored as. */
    Storage_Result find_object(std::string const& name, Found& found);
    void forget_size(std::string const& object);
    Storage_Result content_size(Found const& found, uint64_t& size);
    /** Asks again while the pool cannot be reached, as the settings say. */
    Storage_Result ask(std::function<Storage_Result()> const& question);
    std::shared_ptr<Writing> writing_at(std::string const& path);
    std::shared_ptr<Handle> handle_of(uint64_t number);
    uint64_t keep(std::shared_ptr<Handle> handle);
    [[nodiscard]] bool is_made_folder(std::string const& path);

    int open_to_read(std::string const& path, Handle& handle);
    int open_to_write(std::string const& path, int flags, Handle& handle);
    int begin_writing(std::string const& path, int flags, std::shared_ptr<Writing>& writing);
    int check_parent(std::string const& path);
    int store(Writing& writing);
    void remove_other_forms(std::string const& path, std::string const& object);
    void set_status(bool is_folder, uint64_t size, time_t modified, struct stat& status) const;
    /** The errno value of a result, negative; logs what is the pool's fault. */
    int error_of(Storage_Result const& result, std::string const& path) const;

    std::shared_ptr<Storage_Connection> const connection_;
    Settings const settings_;

    std::mutex mutex_; ///< of what follows; never held while the pool is asked
    std::map<std::string, std::shared_ptr<Writing>> writing_;
    std::map<uint64_t, std::shared_ptr<Handle>> handles_;
    std::set<std::string> made_folders_;
    uint64_t next_handle_ = 1;
    /** Content sizes that had to be looked up, by object, with the entry that they are of. */
    std::map<std::string, std::pair<Storage_Entry, uint64_t>> sizes_;
    std::mutex opening_; ///< held while a file begins to be written
};

#endif
