#include "host/storage/file_pool_folder.h"

#include "host/storage/xbsa_layout.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t FOLDER_MODE = 0700;
constexpr int64_t NANOSECONDS = 1000000000;
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

/** Opens a folder; one that only lets through, to pass through. */
int open_or_pass(int parent, char const* name, int flags) {
    int const fd = openat(parent, name, flags);
    return fd != -1 || errno != EACCES ? fd : openat(parent, name, flags | O_PATH);
}

/** Syncs a folder; one that is open to pass through is not the caller's to sync. */
int sync_folder(int fd) {
    return fsync(fd) == -1 && errno != EBADF ? -1 : 0;
}

/** Opens the folder @a name, and makes it if that is wanted. */
int enter(int parent, char const* name, bool make) {
    int fd = open_or_pass(parent, name, FOLDER_FLAGS);
    if (fd != -1 || errno != ENOENT || !make)
        return fd;
    bool const made = mkdirat(parent, name, FOLDER_MODE) == 0;
    if (!made && errno != EEXIST)
        return -1;
    fd = open_or_pass(parent, name, FOLDER_FLAGS);
    if (fd != -1 && made && sync_folder(parent) == -1) {
        int const error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

Storage_Result walk(int pool, File_Pool_Folder::Parts const& parts, size_t depth, bool make,
                    File_Descriptor& folder) {
    File_Descriptor at(open_or_pass(pool, ".", FOLDER_FLAGS));
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

/** True where the first @a depth parts are those of a cluster's folder for the XBSA library. */
bool is_xbsa_folder(File_Pool_Folder::Parts const& parts, size_t depth) {
    return depth == 2 && is_xbsa_cluster_folder(parts[0] + "/" + parts[1]);
}

/** Reads one entry of an open directory. @return false for what is neither file nor folder */
bool read_entry(int directory, dirent const& entry, bool names_only, Storage_Entry& found) {
    struct stat status;
    if (names_only && (entry.d_type == DT_REG || entry.d_type == DT_DIR)) {
        found.name = entry.d_name;
        found.is_folder = entry.d_type == DT_DIR;
        return true;
    }
    if (fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == -1 ||
        (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)))
        return false;
    found = storage_entry(entry.d_name, status);
    return true;
}

} // namespace

Storage_Result storage_errno(std::string const& what, int error) {
    char buffer[256];
    char const* const reason =
        error == ELOOP ? "links are not followed" : strerror_r(error, buffer, sizeof buffer);
    return {code_of(error), what + ": " + reason};
}

Storage_Entry storage_entry(std::string name, struct stat const& status) {
    Storage_Entry entry;
    entry.name = std::move(name);
    entry.is_folder = S_ISDIR(status.st_mode);
    entry.size = entry.is_folder ? 0 : static_cast<uint64_t>(status.st_size);
    entry.modified = status.st_mtime;
    entry.changed = int64_t{status.st_ctim.tv_sec} * NANOSECONDS + status.st_ctim.tv_nsec;
    return entry;
}

Storage_Result list_folder(File_Descriptor const& folder, bool names_only,
                           std::vector<Storage_Entry>& entries) {
    constexpr char WHAT[] = "failed to list the folder";
    File_Descriptor fd(openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd)
        return storage_errno(WHAT, errno);
    std::unique_ptr<DIR, Directory_Closer> const directory(fdopendir(fd.get()));
    if (!directory)
        return storage_errno(WHAT, errno);
    fd.release();
    std::vector<Storage_Entry> found;
    errno = 0;
    while (dirent const* entry = readdir(directory.get())) {
        Storage_Entry one;
        // the rules for names leave out "." and ".." as well as what is unfinished
        if (check_object_name(entry->d_name) &&
            read_entry(dirfd(directory.get()), *entry, names_only, one))
            found.push_back(std::move(one));
        errno = 0;
    }
    if (errno)
        return storage_errno(WHAT, errno);
    std::ranges::sort(found, {}, &Storage_Entry::name);
    entries = std::move(found);
    return {};
}

File_Descriptor File_Pool_Folder::open_pool(char const* path) {
    // the pool's own directory may be reached by a link
    return File_Descriptor(open_or_pass(AT_FDCWD, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
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
    return walk(pool_.get(), parts, depth, false, folder);
}

Storage_Result File_Pool_Folder::make_folder(Parts const& parts, size_t depth,
                                             File_Descriptor& folder) const {
    // another connection may remove a folder as empty between our making it and entering it
    constexpr int ATTEMPTS = 100;
    Storage_Result result;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        result = walk(pool_.get(), parts, depth, true, folder);
        if (result.code() != Storage_Result::NOT_FOUND)
            return result;
    }
    return {Storage_Result::FAILED, result.text()};
}

void File_Pool_Folder::remove_empty_folders(Parts const& parts) const {
    for (size_t depth = parts.size() - 1; depth > 0; --depth) {
        File_Descriptor parent;
        if (is_xbsa_folder(parts, depth) || !open_folder(parts, depth - 1, parent) ||
            unlinkat(parent.get(), parts[depth - 1].c_str(), AT_REMOVEDIR) == -1)
            return;
    }
}
