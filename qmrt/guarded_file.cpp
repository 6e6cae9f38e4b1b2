#include "qmrt/guarded_file.h"

#include "qmrt/log.h"
#include "qmrt/path.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <linux/magic.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

File_Descriptor refuse(int error) {
    errno = error;
    return File_Descriptor();
}

/** The errno for a file that the rules refuse; 0 when it is accepted. */
int broken_rule(int fd, struct stat const& status, File_Rules const& rules) {
    if (S_ISLNK(status.st_mode))
        return ELOOP;
    if (S_ISDIR(status.st_mode))
        return EISDIR;
    struct statfs system;
    if (!S_ISREG(status.st_mode) || fstatfs(fd, &system) == -1)
        return EINVAL;
    if (system.f_type == PROC_SUPER_MAGIC) // some of its files never end, or act when they are read
        return EINVAL;
    if (rules.owner && status.st_uid != *rules.owner) {
        if (!rules.accept_root || status.st_uid != 0)
            return EPERM;
        if (status.st_nlink != 1)
            return EMLINK;
    }
    return static_cast<uint64_t>(status.st_size) > rules.max_size ? EFBIG : 0;
}

/** Opens for reading what an O_PATH descriptor stands for. */
File_Descriptor reopen(File_Descriptor const& found, File_Rules const& rules) {
    struct stat status;
    if (!found || fstat(found.get(), &status) == -1)
        return File_Descriptor();
    if (int const error = broken_rule(found.get(), status, rules))
        return refuse(error);
    std::string const link = "/proc/self/fd/" + std::to_string(found.get());
    return File_Descriptor(open(link.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

/** True for a directory in which root alone can place a link. */
bool is_of_root_alone(int directory) {
    struct stat status;
    return fstat(directory, &status) == 0 && status.st_uid == 0 &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

/** Opens one directory in another; a link is refused. */
File_Descriptor open_part(int directory, std::string const& name) {
    if (name == "..")
        return refuse(EXDEV);
    if (name.find('\0') != std::string::npos)
        return refuse(EINVAL);
    File_Descriptor found(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!found || fstat(found.get(), &status) == -1)
        return File_Descriptor();
    if (!S_ISDIR(status.st_mode))
        return refuse(S_ISLNK(status.st_mode) ? ELOOP : ENOTDIR);
    return found;
}

/** The directory in which @a relative lies, and its last part; empty for a bad path. */
File_Descriptor open_parent(int directory, std::string_view relative, std::string& name) {
    size_t const slash = relative.rfind('/');
    name = relative.substr(slash == std::string_view::npos ? 0 : slash + 1);
    if (name.empty() || name == "." || name == ".." || name.find('\0') != std::string::npos)
        return refuse(name == ".." ? EXDEV : EINVAL);
    if (slash == 0)
        return refuse(EXDEV);
    return open_directory_beneath(directory,
                                  slash == std::string_view::npos ? "" : relative.substr(0, slash));
}

std::string random_name(std::string const& name) {
    uint64_t number = 0;
    if (getrandom(&number, sizeof number, 0) != sizeof number)
        number = static_cast<uint64_t>(getpid());
    // cut, so that a name of the greatest length finds room, too
    return "." + name.substr(0, 200) + "." + std::to_string(number);
}

int set_groups(std::vector<gid_t> const& groups) {
    // the C library's function changes all threads
    return static_cast<int>(syscall(SYS_setgroups, groups.size(), groups.data()));
}

bool find_groups(uid_t uid, gid_t& gid, std::vector<gid_t>& groups) {
    std::vector<char> buffer(16384);
    passwd entry;
    passwd* found = nullptr;
    int const error = getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (!found) {
        errno = error ? error : ENOENT;
        return false;
    }
    gid = entry.pw_gid;
    int count = 64;
    groups.resize(static_cast<size_t>(count));
    if (getgrouplist(entry.pw_name, gid, groups.data(), &count) == -1) {
        groups.resize(static_cast<size_t>(count));
        if (getgrouplist(entry.pw_name, gid, groups.data(), &count) == -1)
            return false;
    }
    groups.resize(static_cast<size_t>(count));
    return true;
}

} // namespace

File_Descriptor open_guarded(char const* path, File_Rules const& rules) {
    if (!path || !*path)
        return refuse(ENOENT);
    std::string const name = qmrt::basename(path);
    if (name.empty())
        return refuse(EISDIR);
    File_Descriptor const directory(
        open(dirname_string(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory)
        return File_Descriptor();
    int const follow = is_of_root_alone(directory.get()) ? 0 : O_NOFOLLOW;
    return reopen(
        File_Descriptor(openat(directory.get(), name.c_str(), O_PATH | O_CLOEXEC | follow)), rules);
}

int read_guarded(char const* path, std::string& content, File_Rules const& rules) {
    content.clear();
    File_Descriptor const file = open_guarded(path, rules);
    return file ? read_all(file.get(), content, rules.max_size) : -1;
}

int read_guarded_lines(char const* path, File_Rules const& rules,
                       std::function<bool(std::string_view line)> const& visitor) {
    std::string content;
    if (read_guarded(path, content, rules) == -1)
        return -1;
    for (std::string_view rest(content); !rest.empty();) {
        std::string_view const line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (!visitor(line))
            break;
    }
    return 0;
}

int read_all(int fd, std::string& content, uint64_t max_size) {
    content.clear();
    char buffer[65536];
    for (;;) {
        ssize_t const count = read(fd, buffer, sizeof buffer);
        if (count == 0)
            return 0;
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1 || content.size() + static_cast<size_t>(count) > max_size) {
            int const error = count == -1 ? errno : EFBIG;
            content.clear();
            errno = error;
            return -1;
        }
        content.append(buffer, static_cast<size_t>(count));
    }
}

File_Descriptor open_directory_beneath(int directory, std::string_view relative) {
    if (relative.starts_with('/'))
        return refuse(EXDEV);
    // by parts and not by openat2(), which kernels before 5.6 and some containers do not have
    File_Descriptor here(openat(directory, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    while (here && !relative.empty()) {
        std::string const part(relative.substr(0, relative.find('/')));
        relative.remove_prefix(std::min(part.size() + 1, relative.size()));
        if (!part.empty() && part != ".")
            here = open_part(here.get(), part);
    }
    return here ? File_Descriptor(
                      openat(here.get(), ".", O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC))
                : File_Descriptor();
}

File_Descriptor open_beneath(int directory, std::string_view relative, File_Rules const& rules) {
    std::string name;
    File_Descriptor const parent = open_parent(directory, relative, name);
    if (!parent)
        return File_Descriptor();
    return reopen(
        File_Descriptor(openat(parent.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)),
        rules);
}

New_File_Beneath::New_File_Beneath(int directory, std::string_view relative, mode_t mode,
                                   File_Owner const* owner) {
    directory_ = open_parent(directory, relative, name_);
    if (!directory_)
        return;
    temporary_ = random_name(name_);
    // 0600: readable by nobody else until owner and mode are right
    file_.reset(openat(directory_.get(), temporary_.c_str(),
                       O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file_)
        temporary_.clear();
    else if (!create(mode, owner))
        file_.reset();
}

bool New_File_Beneath::create(mode_t mode, File_Owner const* owner) {
    return (!owner || fchown(file_.get(), owner->uid, owner->gid) == 0) &&
           fchmod(file_.get(), mode) == 0;
}

New_File_Beneath::~New_File_Beneath() {
    int const error = errno;
    if (!temporary_.empty())
        unlinkat(directory_.get(), temporary_.c_str(), 0);
    errno = error;
}

int New_File_Beneath::commit() {
    if (!file_) {
        errno = EBADF;
        return -1;
    }
    if (fsync(file_.get()) == -1 ||
        renameat(directory_.get(), temporary_.c_str(), directory_.get(), name_.c_str()) == -1)
        return -1;
    temporary_.clear();
    return fsync(directory_.get());
}

int write_file_beneath(int directory, std::string_view relative, std::string_view content,
                       mode_t mode, File_Owner const* owner) {
    New_File_Beneath file(directory, relative, mode, owner);
    if (file.fd() == -1 || write_all(file.fd(), content.data(), content.size()) == -1)
        return -1;
    return file.commit();
}

std::string refusal_text(int error) {
    switch (error) {
    case ELOOP:
        return "it is, or is reached by, a symbolic link";
    case EINVAL:
        return "it is not a regular file";
    case EISDIR:
        return "it is a directory";
    case EFBIG:
        return "it is too large";
    case EPERM:
        return "it belongs to another user";
    case EMLINK:
        return "it is a file of root with several names";
    case EXDEV:
        return "its path leaves the directory";
    default:
        return std::strerror(error);
    }
}

As_File_User::As_File_User(uid_t uid) {
    if (uid == geteuid() || uid == 0) {
        state_ = UNCHANGED;
        return;
    }
    gid_t gid;
    std::vector<gid_t> wanted;
    int const count = getgroups(0, nullptr);
    if (count == -1 || !find_groups(uid, gid, wanted))
        return;
    groups_.resize(static_cast<size_t>(count));
    if (count > 0 && getgroups(count, groups_.data()) == -1)
        return;
    if (take(uid, gid, wanted))
        state_ = CHANGED;
    else {
        give_back();
        errno = EPERM;
    }
}

As_File_User::~As_File_User() {
    if (state_ == CHANGED)
        give_back();
}

bool As_File_User::take(uid_t uid, gid_t gid, std::vector<gid_t> const& groups) {
    if (set_groups(groups) == -1)
        return false;
    setfsgid(gid);
    setfsuid(uid);
    // both return the id before, and tell a failure by nothing else
    return setfsuid(uid) == static_cast<int>(uid) && setfsgid(gid) == static_cast<int>(gid);
}

void As_File_User::give_back() {
    int const error = errno;
    uid_t const uid = geteuid();
    gid_t const gid = getegid();
    setfsuid(uid);
    setfsgid(gid);
    if (setfsuid(uid) != static_cast<int>(uid) || setfsgid(gid) != static_cast<int>(gid) ||
        (geteuid() == 0 && set_groups(groups_) == -1)) {
        QMRT_LOG(LM_EMERGENCY, "Failed to take back the agent's rights on files, %m\n");
        std::abort();
    }
    errno = error;
}

std::string closed_directory(std::string const& path, uid_t uid) {
    As_File_User const user(uid);
    if (!user)
        return path;
    struct stat status;
    for (size_t end = path.find('/'); end != std::string::npos;) {
        std::string const directory = path.substr(0, std::max<size_t>(end, 1));
        if (stat((directory + "/.").c_str(), &status) == -1)
            return errno == EACCES ? directory : "";
        end = end + 1 >= path.size() ? std::string::npos
                                     : std::min(path.find('/', end + 1), path.size());
    }
    return "";
}
