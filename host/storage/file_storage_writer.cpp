#include "host/storage/file_storage_writer.h"

#include "host/storage/local_file.h"
#include "qmrt/uuid.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t WRITE_OUT_STEP = 8 * 1024 * 1024;

/** True when nobody writes to the file any more: its writer holds a lock, and dies with it. */
bool is_abandoned(int folder, char const* name, time_t age) {
    struct stat status;
    // a FIFO of that name would hold the reader for ever
    File_Descriptor const file(
        openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_mtime <= time(nullptr) - age && flock(file.get(), LOCK_EX | LOCK_NB) == 0;
}

} // namespace

Storage_Result check_object_place(File_Descriptor const& folder, std::string const& leaf,
                                  bool replace) {
    struct stat status;
    int error = 0;
    if (fstatat(folder.get(), leaf.c_str(), &status, AT_SYMLINK_NOFOLLOW) == -1)
        error = errno == ENOENT ? 0 : errno;
    else if (S_ISLNK(status.st_mode))
        error = ELOOP;
    else if (S_ISDIR(status.st_mode))
        error = EISDIR;
    else if (!replace)
        error = EEXIST;
    return error ? storage_errno("failed to write '" + leaf + "'", error) : Storage_Result();
}

size_t sweep_unfinished(File_Descriptor const& folder, time_t age, size_t* left) {
    File_Descriptor fd(openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd)
        return 0;
    std::unique_ptr<DIR, Directory_Closer> const directory(fdopendir(fd.get()));
    if (!directory)
        return 0;
    fd.release();
    size_t removed = 0;
    while (dirent const* entry = readdir(directory.get())) {
        if (std::strncmp(entry->d_name, UNFINISHED_PREFIX, sizeof UNFINISHED_PREFIX - 1) != 0)
            continue;
        if (is_abandoned(folder.get(), entry->d_name, age) &&
            unlinkat(folder.get(), entry->d_name, 0) == 0)
            ++removed;
        else if (left)
            ++*left;
    }
    return removed;
}

Storage_Result File_Storage_Reader::read_at(uint64_t offset, void* buffer, size_t size,
                                            size_t& got) {
    got = 0;
    if (offset >= entry_.size)
        return {};
    size = static_cast<size_t>(std::min<uint64_t>(size, entry_.size - offset));
    while (got < size) {
        ssize_t const count = pread(file_.get(), static_cast<char*>(buffer) + got, size - got,
                                    static_cast<off_t>(offset + got));
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1)
            return storage_errno("failed to read '" + entry_.name + "'", errno);
        if (count == 0)
            return {Storage_Result::FAILED,
                    "'" + entry_.name + "' became shorter while it was read"};
        got += static_cast<size_t>(count);
    }
    return {};
}

Storage_Result File_Storage_Writer::open(std::shared_ptr<File_Pool_Folder const> pool,
                                         File_Pool_Folder::Parts parts, Mode mode,
                                         std::unique_ptr<Storage_Writer>& writer) {
    std::unique_ptr<File_Storage_Writer> made(
        new (std::nothrow) File_Storage_Writer(std::move(pool), std::move(parts), mode));
    if (!made)
        return storage_errno("failed to write an object", ENOMEM);
    Storage_Result result = made->open_temporary();
    if (result)
        writer = std::move(made);
    return result;
}

Storage_Result File_Storage_Writer::open_temporary() {
    // a folder that is removed as empty before our file is in it has to be made again
    constexpr int ATTEMPTS = 100;
    Storage_Result result;
    for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
        result = pool_->make_folder(parts_, parts_.size() - 1, folder_);
        if (!result)
            return result;
        result = check_object_place(folder_, leaf(), mode_.replace);
        if (!result)
            return result;
        std::string const name = UNFINISHED_PREFIX + uuid_string();
        file_.reset(openat(folder_.get(), name.c_str(),
                           O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, OBJECT_MODE));
        if (file_) {
            temporary_ = name;
            flock(file_.get(), LOCK_EX | LOCK_NB);
            return {};
        }
        result = failed("create", errno);
        if (result.code() != Storage_Result::NOT_FOUND)
            break;
    }
    pool_->remove_empty_folders(parts_);
    return result;
}

Storage_Result File_Storage_Writer::write(void const* data, size_t size) {
    if (temporary_.empty())
        return failed("write", EBADF);
    if (write_all(file_.get(), data, size) == -1)
        return failed("write", errno);
    size_ += size;
    if (size_ - writing_out_ >= WRITE_OUT_STEP)
        start_writing_out();
    return {};
}

void File_Storage_Writer::start_writing_out() {
    auto const from = static_cast<off_t>(writing_out_);
    sync_file_range(file_.get(), from, static_cast<off_t>(size_ - writing_out_),
                    SYNC_FILE_RANGE_WRITE);
    if (!mode_.keep_in_memory && from > 0) {
        // what was begun a step ago is mostly out by now
        off_t const begin = from - std::min(from, static_cast<off_t>(2 * WRITE_OUT_STEP));
        sync_file_range(file_.get(), begin, from - begin,
                        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE |
                            SYNC_FILE_RANGE_WAIT_AFTER);
        posix_fadvise(file_.get(), begin, from - begin, POSIX_FADV_DONTNEED);
    }
    writing_out_ = size_;
}

int File_Storage_Writer::put_in_place() const {
    int const folder = folder_.get();
    if (mode_.replace)
        return renameat(folder, temporary_.c_str(), folder, leaf().c_str());
    return rename_without_replacing(folder, temporary_.c_str(), leaf().c_str());
}

Storage_Result File_Storage_Writer::commit() {
    if (temporary_.empty())
        return failed("commit", EBADF);
    Storage_Result result = check_object_place(folder_, leaf(), mode_.replace);
    if (result && fsync(file_.get()) == -1)
        result = failed("sync", errno);
    if (result && put_in_place() == -1)
        result = failed("rename", errno);
    if (!result) {
        abort();
        return result;
    }
    temporary_.clear();
    if (!mode_.keep_in_memory)
        posix_fadvise(file_.get(), 0, 0, POSIX_FADV_DONTNEED);
    if (fsync(folder_.get()) == -1)
        return failed("sync the folder of", errno);
    return {};
}

void File_Storage_Writer::abort() {
    if (temporary_.empty())
        return;
    unlinkat(folder_.get(), temporary_.c_str(), 0);
    temporary_.clear();
    pool_->remove_empty_folders(parts_);
}

Storage_Result File_Storage_Writer::reread(std::unique_ptr<Storage_Reader>& reader) {
    if (temporary_.empty())
        return failed("read", EBADF);
    File_Descriptor file(fcntl(file_.get(), F_DUPFD_CLOEXEC, 0));
    if (!file)
        return failed("read", errno);
    Storage_Entry entry;
    entry.name = leaf();
    entry.size = size_;
    entry.modified = time(nullptr);
    reader = std::make_unique<File_Storage_Reader>(std::move(file), entry);
    return {};
}

Storage_Result File_Storage_Writer::failed(char const* what, int error) const {
    return storage_errno(std::string("failed to ") + what + " '" + leaf() + "'", error);
}
