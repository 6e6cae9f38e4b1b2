#include "gaussdb/job/set_directory.h"

#include "gaussdb/common/user_rights.h"
#include "host/process/password_file_entry.h"
#include "qmrt/guarded_file.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/path.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr mode_t USERS_DIRECTORY_MODE = 0750;
constexpr mode_t MADE_MODE = 0700;

struct Close_Directory {
    void operator()(DIR* directory) const { closedir(directory); }
};

/** The names in an open directory, in byte order. @return 0, or -1 with errno */
int list_names(int directory, std::vector<std::string>& names) {
    File_Descriptor copy(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::unique_ptr<DIR, Close_Directory> const stream(copy ? fdopendir(copy.get()) : nullptr);
    if (!stream)
        return -1;
    copy.release();
    names.clear();
    for (;;) {
        errno = 0; // a file system that fails in the middle has not been listed
        dirent const* const entry = readdir(stream.get());
        if (!entry)
            break;
        if (std::string const name = entry->d_name; name != "." && name != "..")
            names.push_back(name);
    }
    std::ranges::sort(names);
    return errno == 0 ? 0 : -1;
}

bool failed_to_read(std::string const& path) {
    int const error = errno;
    QMRT_LOG(LM_ERROR, "Failed to backup %s: %s\n", names::shown(path).c_str(),
             refusal_text(error).c_str());
    return false;
}

} // namespace

std::string Set_Directory::name() const {
    return qmrt::basename(path_);
}

// what the database has written

bool Set_Directory::each_file(Visitor const& visit) const {
    Password_File_Entry user;
    std::vector<std::string> entries;
    File_Descriptor directory;
    if (!with_rights_of(user_.c_str(), [&](Password_File_Entry const& entry) {
            user = entry;
            directory.reset(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            return (directory && list_names(directory.get(), entries) == 0) ||
                   failed_to_read(path_);
        }))
        return false;
    for (std::string const& entry : entries) {
        File_Descriptor file;
        struct stat status {};
        if (!with_rights_of(user_.c_str(), [&](Password_File_Entry const&) {
                file = open_beneath(directory.get(), entry, {.owner = user.uid()});
                return (file && fstat(file.get(), &status) == 0) ||
                       failed_to_read((qmrt::Path(path_) / entry).str());
            }))
            return false;
        if (!visit(entry, file, static_cast<uint64_t>(status.st_size)))
            return false;
    }
    return true;
}

bool Set_Directory::remove() const {
    if (made_ && !take_back())
        return false;
    // by the directory above that was opened: its path may lead elsewhere by now
    std::string const path =
        parent_ ? "/proc/self/fd/" + std::to_string(parent_.get()) + "/" + name() : path_;
    return with_rights_of(user_.c_str(), [&](Password_File_Entry const&) {
        if (rm_rf(path.c_str()) == 0)
            return true;
        QMRT_LOG(LM_WARNING, "Failed to remove %s, errno=%d, %m; remove it by hand\n",
                 path_.c_str(), errno);
        return false;
    });
}

// what the database is to read

bool Set_Directory::open_parent(Parent_Flags flags) {
    if (parent_)
        return true;
    std::string const above = dirname_string(path_);
    return with_rights_of(user_.c_str(), [&](Password_File_Entry const&) {
        if (flags == MUST_EXIST || mkdir_p(above.c_str(), USERS_DIRECTORY_MODE) == 0)
            parent_.reset(open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (parent_ || flags == MUST_EXIST)
            return static_cast<bool>(parent_);
        QMRT_LOG(LM_ERROR,
                 "Failed to use the directory %s as the user %s, errno=%d, %m; make it and give it "
                 "to this user\n",
                 above.c_str(), user_.c_str(), errno);
        return false;
    });
}

bool Set_Directory::find_room(uint64_t& room, dev_t& device) {
    struct statvfs space {};
    struct stat status {};
    if (!open_parent())
        return false;
    if (fstatvfs(parent_.get(), &space) == -1 || fstat(parent_.get(), &status) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to find out the room for %s, errno=%d, %m\n", path_.c_str(),
                 errno);
        return false;
    }
    room = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    device = status.st_dev;
    return true;
}

/** What a killed agent has left here is root's: it goes back to the user, who can remove it then.
 */
bool Set_Directory::take_back() const {
    Password_File_Entry user;
    File_Descriptor const left(
        openat(parent_.get(), name().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!left || fstat(left.get(), &status) == -1 || status.st_uid != geteuid())
        return true;
    if (user.get(user_.c_str()) == 0 && fchown(left.get(), user.uid(), user.gid()) == 0)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to give %s to the user %s, errno=%d, %m\n", path_.c_str(),
             user_.c_str(), errno);
    return false;
}

/** Made as the user and taken over: the user could have put something into it in between. */
bool Set_Directory::make_in_parent() {
    bool const made = with_rights_of(user_.c_str(), [&](Password_File_Entry const& user) {
        struct stat status {};
        if (mkdirat(parent_.get(), name().c_str(), MADE_MODE) == 0)
            made_.reset(openat(parent_.get(), name().c_str(),
                               O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (made_ && fstat(made_.get(), &status) == 0 && status.st_uid != user.uid()) {
            errno = EPERM;
            made_.reset();
        }
        return static_cast<bool>(made_);
    });
    std::vector<std::string> entries;
    if (made && fchown(made_.get(), geteuid(), getegid()) == 0 &&
        fchmod(made_.get(), MADE_MODE) == 0 && list_names(made_.get(), entries) == 0 &&
        entries.empty())
        return true;
    QMRT_LOG(LM_ERROR, "Failed to make the directory %s, errno=%d, %m\n", path_.c_str(), errno);
    return false;
}

bool Set_Directory::discard() {
    return open_parent(MUST_EXIST) && take_back() && remove();
}

bool Set_Directory::make() {
    return open_parent() && take_back() && remove() && make_in_parent();
}

bool Set_Directory::hand_over() const {
    Password_File_Entry user;
    std::vector<std::string> entries;
    bool done = user.get(user_.c_str()) == 0 && list_names(made_.get(), entries) == 0;
    // the files first: once the directory is the user's, there may be any file in it
    for (std::string const& entry : entries)
        done = done && fchownat(made_.get(), entry.c_str(), user.uid(), user.gid(),
                                AT_SYMLINK_NOFOLLOW) == 0;
    if (done && fchown(made_.get(), user.uid(), user.gid()) == 0)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to give %s to the user %s, errno=%d, %m\n", path_.c_str(),
             user_.c_str(), errno);
    return false;
}
