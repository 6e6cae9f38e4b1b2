#ifndef QMRT_FILE_H
#define QMRT_FILE_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>

/** Owns a file descriptor and closes it. */
class File_Descriptor {
public:
    explicit File_Descriptor(int fd = -1) : fd_(fd) {}
    ~File_Descriptor() { reset(); }
    File_Descriptor(File_Descriptor&& other) noexcept : fd_(other.release()) {}
    File_Descriptor& operator=(File_Descriptor&& other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ != -1; }
    int release() { return std::exchange(fd_, -1); }
    /** Closes what it holds, keeping errno, and takes @a fd. */
    void reset(int fd = -1);

private:
    int fd_;
};

/**
 * The functions below return 0, or -1 with errno set; they log nothing unless they say so.
 * All may be used on any thread. Links are followed, except where a function says otherwise: for
 * files that another user names or owns there is qmrt/guarded_file.h.
 */

/**
 * Makes a directory with its parents, each new one with @a mode, whatever the process's umask.
 * An existing directory, or a link to one, is a success and is left as it is. A file in the way is
 * EEXIST at the end of the path and ENOTDIR before it.
 */
int mkdir_p(char const* path, mode_t mode);

/**
 * Removes whatever stands at @a path, with all that is below it, however deep; nothing there is a
 * success. Links are removed, never followed: nothing outside of the tree is touched, not even when
 * someone swaps a directory for a link meanwhile. "", "/", "." and ".." are EINVAL.
 */
int rm_rf(char const* path);

/**
 * Gives @a path, and all that is below it, to a user and a group by name.
 * @param user   null or "" leaves the owner
 * @param group  null or "" leaves the group, or takes the user's own group when a user is given
 * @param follow_links  change what a link at @a path itself points at; links inside of a tree are
 *               changed themselves and never followed, so nothing outside of the tree is touched
 * An unknown user or group is ENOENT, and nothing has been changed then.
 */
int chown_r(char const* path, char const* user, char const* group = nullptr,
            bool follow_links = false);

/**
 * Copies a regular file. The target appears whole or not at all: the content goes to a temporary
 * name beside it, is synced, and is renamed over it. @a mode is the new file's, whatever the umask.
 */
int copy_file(char const* source, char const* target, mode_t mode);

/** Writes all of @a data to @a fd, going on after a short write or an interruption. */
int write_all(int fd, void const* data, size_t size);

/** Who a new file is given to before anything is written into it. */
struct File_Owner {
    uid_t uid;
    gid_t gid;
};

/**
 * Replaces the content of a file in one step: temporary name beside it, owner, mode, content,
 * fsync, rename, fsync of the directory. Readers see the old content or the new, never a part.
 * @param mode   of the file, whatever the umask
 * @param owner  null keeps this process's
 */
int write_file_atomically(char const* path, std::string_view content, mode_t mode,
                          File_Owner const* owner = nullptr);

/**
 * Reads a whole regular file into @a content.
 * @param max_size  a larger file is EFBIG and a directory is EISDIR; @a content is then empty
 */
int read_file(char const* path, std::string& content, size_t max_size);

/**
 * Calls @a visitor with each line of a regular file, without its "\n", until it returns false. The
 * last line counts with or without a "\n". Lines may hold any bytes; one of more than 16 MiB is
 * EFBIG. The line is valid during the call only.
 * @return 0 also when the visitor ended the reading; -1 when the file could not be opened or read.
 */
int read_each_line(char const* path, std::function<bool(std::string_view line)> const& visitor);

/**
 * Reads the first line of a file into @a text.
 * @param trim  leave out the line's "\n" and a "\r" before it
 * @return true when there was a line; false, with nothing logged, for a file that is empty or
 *         cannot be read.
 */
[[nodiscard]] bool read_line(std::string const& path, std::string& text, bool trim);

#endif
