#ifndef QMRT_GUARDED_FILE_H
#define QMRT_GUARDED_FILE_H

#include "qmrt/file.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

/**
 * Opening files that another user names or owns, from a process with more rights than that user.
 *
 * Nothing here opens a device, a FIFO, a socket or a file of procfs: the name is resolved with
 * O_PATH, the result is checked, and only then it is opened. So no call blocks on what it finds and
 * no check races with a rename. All functions set errno when they fail, log nothing, and may be
 * used on any thread. refusal_text() explains an errno.
 */

/** What an opened file has to be. */
struct File_Rules {
    /** A larger file is EFBIG. Reading stops there also when the file grows. */
    uint64_t max_size = std::numeric_limits<uint64_t>::max();
    /** The file must belong to this user, or it is EPERM; without a value to anybody. */
    std::optional<uid_t> owner = std::nullopt;
    /**
     * With an owner: files of root are accepted, too. Not those with several names (EMLINK), since
     * a user may have made a hard link to a file of root.
     */
    bool accept_root = false;
};

/**
 * Opens a regular file for reading.
 *
 * A symbolic link as the last part of the path is followed only when it lies in a directory that
 * belongs to root and that nobody else can write; otherwise it is ELOOP. Links before the last part
 * are followed: use As_File_User, or the functions for paths below a directory, where those are not
 * trusted. Not a regular file is EINVAL, a directory EISDIR.
 */
File_Descriptor open_guarded(char const* path, File_Rules const& rules);

/** Reads a whole file that open_guarded() takes; @a content is empty after a failure. */
int read_guarded(char const* path, std::string& content, File_Rules const& rules);

/**
 * Calls @a visitor with each line of a file that open_guarded() takes, without its "\n", until it
 * returns false. The whole file is read before the first call.
 */
int read_guarded_lines(char const* path, File_Rules const& rules,
                       std::function<bool(std::string_view line)> const& visitor);

/** Reads from @a fd to the end; more than @a max_size bytes is EFBIG and @a content is empty. */
int read_all(int fd, std::string& content, uint64_t max_size);

/**
 * Paths below a directory: relative, without "..", and no part of one may be a symbolic link. The
 * directory is an open descriptor; links in the path by which it was opened are the caller's
 * business. "" stands for the directory itself, where a directory is wanted.
 */

/** Opens a directory for use as @a directory of these functions, or to list it. */
File_Descriptor open_directory_beneath(int directory, std::string_view relative);

/** Opens a regular file for reading. Links are ELOOP, paths that leave the directory EXDEV. */
File_Descriptor open_beneath(int directory, std::string_view relative, File_Rules const& rules);

/**
 * A file that appears under its name when it is complete: written under a temporary name in its own
 * directory, synced, and renamed. Without commit() the destructor removes it. An older file, or a
 * link, of that name is replaced and never written through. For one thread.
 */
class New_File_Beneath {
public:
    /**
     * Creates the temporary file with @a owner (null: this process's) and @a mode, whatever the
     * umask. The file's directory must exist.
     */
    New_File_Beneath(int directory, std::string_view relative, mode_t mode,
                     File_Owner const* owner = nullptr);
    ~New_File_Beneath();
    New_File_Beneath(New_File_Beneath const&) = delete;
    New_File_Beneath& operator=(New_File_Beneath const&) = delete;

    /** Where to write; -1 when the file could not be created, errno tells why right then. */
    int fd() const { return file_.get(); }
    /** Gives the file its name; 0 or -1. */
    int commit();

private:
    [[nodiscard]] bool create(mode_t mode, File_Owner const* owner);

    File_Descriptor directory_;
    File_Descriptor file_;
    std::string name_;
    std::string temporary_;
};

/** Replaces a file's content in one step, by a New_File_Beneath. */
int write_file_beneath(int directory, std::string_view relative, std::string_view content,
                       mode_t mode, File_Owner const* owner = nullptr);

/** What an errno of the functions above means for a user; strerror's text for all others. */
std::string refusal_text(int error);

/**
 * While it exists, file operations of this thread are done with the rights of a user: what that
 * user cannot open, list, create or remove, this thread cannot. Other threads, signals and the
 * process's user ids are not affected. Do not start a child meanwhile. Must be destroyed on the
 * thread that made it; when the old rights cannot be had back, the process is aborted.
 *
 * No-op for root, and for the process's own user.
 */
class As_File_User {
public:
    explicit As_File_User(uid_t uid);
    ~As_File_User();
    As_File_User(As_File_User const&) = delete;
    As_File_User& operator=(As_File_User const&) = delete;

    /** False when the rights could not be taken: use no file then. errno tells why right then. */
    explicit operator bool() const { return state_ != FAILED; }

private:
    enum State { FAILED, UNCHANGED, CHANGED };

    [[nodiscard]] bool take(uid_t uid, gid_t gid, std::vector<gid_t> const& groups);
    void give_back();

    State state_ = FAILED;
    std::vector<gid_t> groups_; ///< of this thread before
};

/**
 * The first directory above an absolute path, or the path itself, that a user cannot pass through.
 * @return "" if there is none, also when the way ends before; the path if it cannot be found out
 */
std::string closed_directory(std::string const& path, uid_t uid);

#endif
