#include "host/storage/local_file.h"

#include "qmrt/path.h"
#include "qmrt/utf8.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t NEW_FILE_MODE = 0640;
constexpr mode_t PERMISSIONS = 07777;

} // namespace

Storage_Result local_errno(char const* what, std::string const& path, int error) {
    char buffer[256];
    bool const full = error == ENOSPC || error == EDQUOT;
    return {full ? Storage_Result::NO_SPACE : Storage_Result::FAILED,
            std::string(what) + " '" + qmrt::to_one_line(path) +
                "': " + strerror_r(error, buffer, sizeof buffer)};
}

int rename_without_replacing(int directory, char const* from, char const* to) {
    if (renameat2(directory, from, directory, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return -1;
    if (linkat(directory, from, directory, to, 0) == -1)
        return -1;
    return unlinkat(directory, from, 0);
}

Storage_Result Local_File::open(std::string const& path, int flags) {
    path_ = path;
    struct stat status;
    bool const exists = lstat(path.c_str(), &status) == 0;
    int error = exists ? 0 : errno;
    if (path.empty() || (flags & O_ACCMODE) == O_RDONLY || flags & O_APPEND)
        error = EINVAL;
    else if (exists && (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL))
        error = EEXIST;
    else if (exists && S_ISDIR(status.st_mode))
        error = EISDIR;
    else if (exists && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
        error = ENOTSUP;
    else if (error == ENOENT && flags & O_CREAT)
        error = 0;
    if (error)
        return local_errno("failed to write", path, error);
    exclusive_ = flags & O_EXCL;
    std::string name = dirname_string(path) + "/" + UNFINISHED_PREFIX + "XXXXXX";
    file_.reset(mkostemp(name.data(), O_CLOEXEC));
    if (!file_)
        return local_errno("failed to create", path, errno);
    temporary_ = name;
    bool const keep = exists && S_ISREG(status.st_mode);
    if (fchmod(file_.get(), keep ? status.st_mode & PERMISSIONS : NEW_FILE_MODE) == -1)
        return local_errno("failed to set the mode of", path, errno);
    return {};
}

Storage_Result Local_File::write(void const* data, size_t size) {
    if (write_all(file_.get(), data, size) == -1)
        return local_errno("failed to write", path_, errno);
    return {};
}

Storage_Result Local_File::commit() {
    if (fsync(file_.get()) == -1)
        return local_errno("failed to sync", path_, errno);
    int const renamed = exclusive_
                            ? rename_without_replacing(AT_FDCWD, temporary_.c_str(), path_.c_str())
                            : renameat(AT_FDCWD, temporary_.c_str(), AT_FDCWD, path_.c_str());
    if (renamed == -1)
        return local_errno("failed to rename to", path_, errno);
    temporary_.clear();
    File_Descriptor const folder(
        ::open(dirname_string(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || fsync(folder.get()) == -1)
        return local_errno("failed to sync the directory of", path_, errno);
    return {};
}

void Local_File::abort() {
    if (!temporary_.empty())
        unlink(temporary_.c_str());
    temporary_.clear();
}
