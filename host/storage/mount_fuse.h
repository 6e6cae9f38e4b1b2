#ifndef HOST_STORAGE_MOUNT_FUSE_H
#define HOST_STORAGE_MOUNT_FUSE_H

#include "host/storage/client_io.h"
#include "qmrt/file.h"

#include <ace/Log_Msg_Callback.h>
#include <memory>
#include <string>
#include <sys/types.h>

/** How a mounted pool is read. */
enum Mount_Read_Mode {
    ASYNC_READ = 0, ///< the kernel may ask for many pieces of a file at once
    SYNC_READ = 1,  ///< for few, so that what is packed is unpacked once, front to back
    READ_ONLY = 2   ///< as SYNC_READ, and nothing can be written
};

/**
 * Mounts a folder of a pool as a file system, by libfuse3 on threads of its own; what is in it is
 * said at Pool_File_System. The settings count from the next mount() on. One owner uses it, from
 * one thread at a time.
 */
class Mount_Fuse {
public:
    Mount_Fuse();
    /** Unmounts. */
    ~Mount_Fuse();
    Mount_Fuse(Mount_Fuse const&) = delete;
    Mount_Fuse& operator=(Mount_Fuse const&) = delete;

    /**
     * How what is written gets compressed; COMPR_AUTO is as COMPR_NONE. By default it is not.
     * @return false, with nothing changed, for a value that is no method
     */
    [[nodiscard]] bool compression_method(Compression_Method method, int level);
    /**
     * How the objects are encrypted. The key and the initial vector are copied.
     * @return false, with nothing changed, for an encryption that clients cannot carry out
     */
    [[nodiscard]] bool encryption_method(Encryption_Method method, void const* key, size_t key_size,
                                         void const* iv, size_t iv_size);
    void read_mode(Mount_Read_Mode mode) { read_mode_ = mode; }
    /** For how many seconds a pool that cannot be reached is asked again. */
    void retry_timeout(uint64_t seconds) { retry_timeout_ = seconds; }
    /** False: no more than 4 KiB at a time are written. True by default. */
    void big_write(bool value) { big_write_ = value; }
    /**
     * The operating-system user to whom all of it belongs and who alone may use it, besides root.
     * The mount point must belong to that user, and its path is followed with that user's rights.
     * "" is the process's own. An unknown user fails the mount.
     */
    void allow_user_access(std::string const& user) { user_ = user; }
    /** Options for libfuse, "-o remember=60" for one; split at blanks. */
    void other_fuse_options(std::string const& options) { other_options_ = options; }
    /** Where content that cannot be streamed into the pool is kept meanwhile; "/tmp" by default. */
    void spool_directory(std::string const& path) { spool_directory_ = path; }
    /** The key of this host towards the back end, and the back end's options. */
    void access(Storage_Access const& access) { access_ = access; }

    /**
     * Mounts. The folder need not be there yet, the one above it must, see
     * Storage_Backend::connect(); the mount point is made when it is not there.
     * @param source    the URL of the pool's folder
     * @param callback  gets the lines of the file system's threads too; may be null
     * @return false after an error line, with nothing mounted; also when something is mounted
     */
    [[nodiscard]] bool mount(char const* source, char const* mount_point,
                             std::shared_ptr<ACE_Log_Msg_Callback> callback);
    [[nodiscard]] bool mounted() const { return session_ != nullptr; }
    /**
     * Unmounts, also what is in use: programs that have files open get errors from then on. What
     * they have written is stored, with a warning line. Without effect when nothing is mounted.
     */
    void unmount();

private:
    struct Session;

    [[nodiscard]] bool connect(std::string const& source,
                               std::shared_ptr<Storage_Connection>& connection);
    [[nodiscard]] bool find_user(uid_t& uid, gid_t& gid) const;
    File_Descriptor open_mount_point(std::string const& path, uid_t uid) const;

    Compression_Method compression_ = COMPR_NONE;
    int compression_level_ = 0;
    Encryption_Method encryption_ = ENCRYPTION_NONE;
    Mount_Read_Mode read_mode_ = ASYNC_READ;
    uint64_t retry_timeout_ = 0;
    bool big_write_ = true;
    std::string user_;
    std::string other_options_;
    std::string spool_directory_ = "/tmp";
    Storage_Access access_;
    std::unique_ptr<Session> session_;
};

#endif
