#include "gaussdb/job/tool_directory.h"

#include "host/process/password_file_entry.h"
#include "qmrt/guarded_file.h"
#include "qmrt/log.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t TOOL_DIRECTORY_MODE = 0750;
/** Behind the path of a directory that is being removed. */
constexpr char REMOVED[] = ".removed";

int refuse_entry(int error) {
    errno = error;
    return -1;
}

/** A path to an entry of an open directory, for functions that want a path. */
std::string path_in(File_Descriptor const& directory, std::string const& name) {
    return "/proc/self/fd/" + std::to_string(directory.get()) + "/" + name;
}

} // namespace

Tool_Directory::Tool_Directory(std::string path, std::string user)
    : path_(std::move(path)), user_(std::move(user)) {
    Password_File_Entry entry;
    if (user_.empty())
        owner_ = File_Owner{geteuid(), getegid()};
    else if (entry.get(user_.c_str()) == 0)
        owner_ = File_Owner{entry.uid(), entry.gid()};
}

std::optional<uid_t> Tool_Directory::uid() const {
    return owner_ ? std::optional(owner_->uid) : std::nullopt;
}

int Tool_Directory::make() const {
    if (!owner_)
        return refuse_entry(ENOENT);
    for (bool again = true;; again = false) {
        if (mkdir_p(path_.c_str(), TOOL_DIRECTORY_MODE) == -1)
            return -1;
        File_Descriptor const directory(
            open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat status;
        if (!directory || fstat(directory.get(), &status) == -1)
            return -1;
        if (status.st_uid == owner_->uid)
            return 0;
        if (status.st_uid == geteuid()) // just made
            return fchown(directory.get(), owner_->uid, getegid());
        if (!again)
            return refuse_entry(EPERM);
        if (set_aside(status.st_uid) == -1)
            return -1;
    }
}

int Tool_Directory::set_aside(uid_t other) const {
    QMRT_LOG(LM_INFO, "%s is that of user #%u, it is kept as %s\n", path_.c_str(), other,
             aside(other).c_str());
    if (rm_rf(aside(other).c_str()) == -1 || std::rename(path_.c_str(), aside(other).c_str()) == -1)
        return -1;
    bool const there = std::rename(aside(owner_->uid).c_str(), path_.c_str()) == 0;
    return there || errno == ENOENT ? 0 : -1;
}

int Tool_Directory::remove() const {
    std::string const removed = path_ + REMOVED;
    if (rm_rf(removed.c_str()) == -1 ||
        (std::rename(path_.c_str(), removed.c_str()) == -1 && errno != ENOENT))
        return -1;
    return rm_rf(removed.c_str());
}

File_Descriptor Tool_Directory::open_folder(std::string const& name) const {
    File_Descriptor const directory(
        open(path_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directory)
        return File_Descriptor();
    File_Descriptor folder = open_directory_beneath(directory.get(), name);
    struct stat status;
    if (!folder || fstat(folder.get(), &status) == -1)
        return File_Descriptor();
    if (status.st_uid == user_id())
        return folder;
    errno = EPERM;
    return File_Descriptor();
}

int Tool_Directory::read(std::string const& name, std::string& content) const {
    As_File_User const user(user_id());
    File_Descriptor const directory = user ? open_folder("") : File_Descriptor();
    if (!directory)
        return -1;
    File_Descriptor const file =
        open_beneath(directory.get(), name, {.max_size = MAX_FILE_SIZE, .owner = user_id()});
    return file ? read_all(file.get(), content, MAX_FILE_SIZE) : -1;
}

int Tool_Directory::write(std::string const& name, std::string_view content) const {
    As_File_User const user(user_id());
    File_Descriptor const directory = user ? open_folder("") : File_Descriptor();
    return directory ? write_file_beneath(directory.get(), name, content, 0640) : -1;
}

bool Tool_Directory::has_directory(std::string const& name) const {
    As_File_User const user(user_id());
    return user && open_folder(name);
}

int Tool_Directory::make_directory(std::string const& name) const {
    As_File_User const user(user_id());
    File_Descriptor const directory = user ? open_folder("") : File_Descriptor();
    if (!directory || (mkdirat(directory.get(), name.c_str(), 0755) == -1 && errno != EEXIST))
        return -1;
    return open_folder(name) ? 0 : -1;
}

int Tool_Directory::remove(std::string const& folder, std::string const& name) const {
    As_File_User const user(user_id());
    File_Descriptor const directory = user ? open_folder(folder) : File_Descriptor();
    return directory ? rm_rf(path_in(directory, name).c_str()) : -1;
}

int Tool_Directory::take_in(std::string const& directory, std::string const& folder,
                            std::string const& name) const {
    if (!owner_ || chown_r(directory.c_str(), user_.c_str(), nullptr, false) == -1)
        return -1;
    File_Descriptor target;
    {
        As_File_User const user(user_id());
        if (user)
            target = open_folder(folder);
    }
    return target ? renameat(AT_FDCWD, directory.c_str(), target.get(), name.c_str()) : -1;
}
