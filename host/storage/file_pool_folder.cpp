#include "host/storage/file_pool_folder.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t FOLDER_MODE = 0750;
constexpr int FOLDER_FLAGS = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

Storage_Result::Code code_of(int error) {
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return Storage_Result::NOT_FOUND;
    case EEXIST:
    case EISDIR:
        return Storage_Result::EXISTS;
    case ELOOP:
    case ENAMETOOLONG:
        return Storage_Result::BAD_NAME;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
        return Storage_Result::NO_SPACE;
    case ESTALE:
    case ENOTCONN:
    case EHOSTDOWN:
    case ETIMEDOUT:
        return Storage_Result::UNREACHABLE;
    default:
        return Storage_Result::FAILED;
    }
}

/** O_DIRECTORY with O_NOFOLLOW calls a link "not a directory"; tells the two apart. */
int open_error(int parent, char const* name) {
    int const error = errno;
    struct stat status;
    if (error == ENOTDIR && fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISLNK(status.st_mode))
        return ELOOP;
    return error;
}

/** Opens the folder @a name. @param make  who to share it with if it has to be made, or null */
int enter(int parent, char const* name, Pool_Sharing const* make) {
    int fd = openat(parent, name, FOLDER_FLAGS);
    if (fd != -1 || errno != ENOENT || !make)
        return fd;
    bool const made = mkdirat(parent, name, make->folder_mode()) == 0;
    if (!made && errno != EEXIST)
        return -1;
    fd = openat(parent, name, FOLDER_FLAGS);
    if (fd != -1 && made)
        make->share_folder(fd);
    if (fd != -1 && made && fsync(parent) == -1) {
        int const error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

Storage_Result walk(int pool, File_Pool_Folder::Parts const& parts, size_t depth,
                    Pool_Sharing const* make, File_Descriptor& folder) {
    File_Descriptor at(openat(pool, ".", FOLDER_FLAGS));
    if (!at)
        return storage_errno("failed to open the pool's folder", errno);
    for (size_t i = 0; i < depth; ++i) {
        File_Descriptor next(enter(at.get(), parts[i].c_str(), make));
        if (!next)
            return storage_errno("failed to open folder '" + parts[i] + "'",
                                 open_error(at.get(), parts[i].c_str()));
        at = std::move(next);
    }
    folder = std::move(at);
    return {};
}

} // namespace

Storage_Result storage_errno(std::string const& what, int error) {
    char buffer[256];
    char const* const reason =
        error == ELOOP ? "links are not followed" : strerror_r(error, buffer, sizeof buffer);
    return {code_of(error), what + ": " + reason};
}

Pool_Sharing::Pool_Sharing(int pool) {
    struct stat status;
    if (fstat(pool, &status) == -1 || !(status.st_mode & S_IWGRP))
        return;
    pool_mode_ = status.st_mode;
    group_ = status.st_gid;
}

mode_t Pool_Sharing::folder_mode() const {
    // without S_ISGID the rights would be another group's until share_folder()
    return pool_mode_ & S_ISGID ? (FOLDER_MODE & ~S_IRWXG) | (pool_mode_ & S_IRWXG) : FOLDER_MODE;
}

void Pool_Sharing::share_folder(int fd) const {
    share(fd, FOLDER_MODE, S_IRWXG | S_ISGID);
}

void Pool_Sharing::share_file(int fd) const {
    share(fd, OBJECT_MODE, S_IRGRP | S_IWGRP);
}

void Pool_Sharing::share(int fd, mode_t own_mode, mode_t group_bits) const {
    struct stat status;
    if (pool_mode_ == 0 || fstat(fd, &status) == -1)
        return;
    if (status.st_gid == group_ || fchown(fd, static_cast<uid_t>(-1), group_) == 0)
        fchmod(fd, (own_mode & ~S_IRWXG) | (pool_mode_ & group_bits));
}

File_Pool_Folder::Parts File_Pool_Folder::full_parts(std::string const& name) const {
    Parts parts = prefix_;
    if (!name.empty())
        for (std::string& part : split_object_name(name))
            parts.push_back(std::move(part));
    return parts;
}

Storage_Result File_Pool_Folder::open_folder(Parts const& parts, size_t depth,
                                             File_Descriptor& folder) const {
    return walk(pool_.get(), parts, depth, nullptr, folder);
}

Storage_Result File_Pool_Folder::make_folder(Parts const& parts, size_t depth,
                                             File_Descriptor& folder) const {
    // another connection may remove a folder as empty between our making it and entering it
    constexpr int ATTEMPTS = 100;
    Storage_Result result;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        result = walk(pool_.get(), parts, depth, &sharing_, folder);
        if (result.code() != Storage_Result::NOT_FOUND)
            return result;
    }
    return {Storage_Result::FAILED, result.text()};
}

void File_Pool_Folder::remove_empty_folders(Parts const& parts) const {
    for (size_t depth = parts.size() - 1; depth > 0; --depth) {
        File_Descriptor parent;
        if (!open_folder(parts, depth - 1, parent) ||
            unlinkat(parent.get(), parts[depth - 1].c_str(), AT_REMOVEDIR) == -1)
            return;
    }
}
