#ifndef GAUSSDB_JOB_TOOL_DIRECTORY_H
#define GAUSSDB_JOB_TOOL_DIRECTORY_H

#include "qmrt/file.h"

#include <optional>
#include <string>
#include <string_view>

/**
 * A directory of the agent's cache that belongs to the user of a database, whose backup tool works
 * in it. The cache itself is root's, so that nobody can replace the directory; what is below it may
 * be anything, and may change at any time: links, devices, files that root owns. So all that is
 * done below it is done with the rights of that user, and no link is followed.
 *
 * Names are relative to the directory. The operations return 0, or -1 with errno, log nothing
 * unless they say so, and may be used on any thread.
 */
class Tool_Directory {
public:
    /** Larger files are not read: EFBIG. */
    static constexpr uint64_t MAX_FILE_SIZE = 64 * 1024 * 1024;

    /** @param user  a name; "" for this process's own user. With an unknown one all fails: ENOENT
     */
    Tool_Directory(std::string path, std::string user);

    /** The user; none for an unknown name. */
    std::optional<uid_t> uid() const;

    /**
     * Makes the directory and gives it to the user. What is there of another user's is set aside as
     * "<path>.<uid>", and comes back when the directory is made for that user again.
     */
    int make() const;
    /**
     * Removes the directory recursively. It is moved out of the way first, to
     * "<path>.removed": directories that rm_rf() could not remove are root's, and the user's tool
     * would meet them in the next one. What is left there goes with the next remove().
     */
    int remove() const;

    /** Reads a whole regular file that belongs to the user. */
    int read(std::string const& name, std::string& content) const;
    /** Replaces a file's content in one step; a link in its place is replaced, too. */
    int write(std::string const& name, std::string_view content) const;

    /** True for a directory of the user that no link leads to. */
    [[nodiscard]] bool has_directory(std::string const& name) const;
    /** Makes a directory in this one; an existing one of the user is a success. */
    int make_directory(std::string const& name) const;
    /** Removes @a name of the directory @a folder with all that is in it. */
    int remove(std::string const& folder, std::string const& name) const;
    /**
     * Gives a directory that lies in a place which is root's alone to the user, with all that is in
     * it, and moves it to @a name of @a folder.
     */
    int take_in(std::string const& directory, std::string const& folder,
                std::string const& name) const;

private:
    /** The user, or nobody, as whom nothing can be done. */
    uid_t user_id() const { return owner_ ? owner_->uid : static_cast<uid_t>(-1); }
    File_Descriptor open_folder(std::string const& name) const;
    int set_aside(uid_t other) const;
    std::string aside(uid_t user) const { return path_ + "." + std::to_string(user); }

    std::string path_;
    std::string user_;
    std::optional<File_Owner> owner_;
};

#endif
