#include "host/process/password_file_entry.h"

#include <algorithm>
#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

namespace {

std::string text_of(char const* text) {
    return text ? text : "";
}

} // namespace

template <typename Query>
int Password_File_Entry::look_up(Query query) {
    std::vector<char> buffer(4096);
    passwd entry;
    passwd* found = nullptr;
    int error;
    while ((error = query(&entry, buffer.data(), buffer.size(), &found)) == ERANGE)
        buffer.resize(buffer.size() * 2);
    if (!found) {
        // some name services give these for a user they do not have
        errno = error == 0 || error == ESRCH || error == EBADF || error == EPERM ? ENOENT : error;
        return -1;
    }
    name_ = text_of(entry.pw_name);
    uid_ = entry.pw_uid;
    gid_ = entry.pw_gid;
    home_ = text_of(entry.pw_dir);
    shell_ = text_of(entry.pw_shell);
    return 0;
}

int Password_File_Entry::get(char const* name) {
    if (!name || !*name) {
        errno = EINVAL;
        return -1;
    }
    return look_up([name](passwd* entry, char* buffer, size_t size, passwd** found) {
        return getpwnam_r(name, entry, buffer, size, found);
    });
}

int Password_File_Entry::get_by_uid(uid_t uid) {
    return look_up([uid](passwd* entry, char* buffer, size_t size, passwd** found) {
        return getpwuid_r(uid, entry, buffer, size, found);
    });
}

int Password_File_Entry::get_by_path(char const* path) {
    struct stat status;
    if (!path) {
        errno = EINVAL;
        return -1;
    }
    if (stat(path, &status) == -1)
        return -1;
    return get_by_uid(status.st_uid);
}

std::vector<gid_t> Password_File_Entry::groups(gid_t primary_gid) const {
    std::vector<gid_t> result(32);
    int count = static_cast<int>(result.size());
    while (getgrouplist(name_.c_str(), primary_gid, result.data(), &count) == -1) {
        // the count may have grown between two calls, so what it says now is a hint only
        result.resize(std::max<size_t>(result.size() * 2, static_cast<size_t>(count)));
        count = static_cast<int>(result.size());
    }
    result.resize(static_cast<size_t>(count));
    return result;
}
