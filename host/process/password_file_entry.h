#ifndef HOST_PROCESS_PASSWORD_FILE_ENTRY_H
#define HOST_PROCESS_PASSWORD_FILE_ENTRY_H

#include <string>
#include <sys/types.h>
#include <vector>

/**
 * One user of the operating system, by what the system's user database says: the password file, or
 * a directory service behind it.
 *
 * The three look-ups fill the object and return 0, or return -1 with errno and leave it as it was.
 * ENOENT means that the database has no such user, or get_by_path() no such file; other values that
 * the database could not be asked. Nothing is logged. Unlike getpwnam() they may be used on any
 * thread; one object belongs to one thread.
 */
class Password_File_Entry {
public:
    int get(char const* name);
    int get_by_uid(uid_t uid);
    /** The owner of a file; of what a link points at. */
    int get_by_path(char const* path);

    std::string const& name() const { return name_; }
    uid_t uid() const { return uid_; }
    gid_t gid() const { return gid_; }
    std::string const& home() const { return home_; }
    std::string const& shell() const { return shell_; }

    /** The groups that a login of this user has, @a primary_gid among them. */
    std::vector<gid_t> groups(gid_t primary_gid) const;
    std::vector<gid_t> groups() const { return groups(gid_); }

private:
    template <typename Query>
    int look_up(Query query);

    std::string name_;
    uid_t uid_ = static_cast<uid_t>(-1);
    gid_t gid_ = static_cast<gid_t>(-1);
    std::string home_;
    std::string shell_;
};

#endif
