#include "host/storage/fuse_operations.h"

#include "host/storage/pool_file_system.h"
#include "host/storage/pool_mounts.h"

#include <cerrno>
#include <fcntl.h>

namespace {

constexpr unsigned SMALL_WRITE = 4096;
constexpr unsigned LARGEST_READ = 1024 * 1024; ///< the kernel's limit

Fuse_Context& context() {
    return *static_cast<Fuse_Context*>(fuse_get_context()->private_data);
}
Pool_File_System& file_system() {
    return *context().file_system;
}

void* init(fuse_conn_info* connection, fuse_config* config) {
    // reads that overtake each other must find packed content in its window
    if (!context().async_read)
        connection->max_background = Object_Content::WINDOW / LARGEST_READ - 2;
    // data to be written would come through a pipe, and be copied once more
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ);
    if (!context().big_write)
        connection->max_write = SMALL_WRITE;
    // a file that is removed while it is open goes at once, under no other name
    config->hard_remove = 1;
    return &context();
}

int get_attributes(char const* path, struct stat* status, fuse_file_info*) {
    return file_system().attributes(path, *status);
}

int read_directory(char const* path, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*,
                   fuse_readdir_flags) {
    std::vector<Pool_File_System::Entry> entries;
    int const error = file_system().list(path, entries);
    if (error)
        return error;
    fill(buffer, ".", nullptr, 0, fuse_fill_dir_flags{});
    fill(buffer, "..", nullptr, 0, fuse_fill_dir_flags{});
    for (Pool_File_System::Entry const& entry : entries) {
        struct stat status {};
        status.st_mode = entry.is_folder ? S_IFDIR : S_IFREG;
        if (fill(buffer, entry.name.c_str(), &status, 0, fuse_fill_dir_flags{}))
            return -ENOMEM;
    }
    return 0;
}

int make_directory(char const* path, mode_t) {
    return file_system().make_directory(path);
}
int remove_directory(char const* path) {
    return file_system().remove_directory(path);
}
int remove_file(char const* path) {
    return file_system().remove_file(path);
}
int rename_file(char const* from, char const* to, unsigned flags) {
    return file_system().rename(from, to, flags);
}
int file_system_space(char const*, struct statvfs* status) {
    return file_system().space(*status);
}
int change_mode(char const* path, mode_t, fuse_file_info*) {
    return file_system().touch(path);
}
int change_owner(char const* path, uid_t, gid_t, fuse_file_info*) {
    return file_system().touch(path);
}
int change_times(char const* path, timespec const*, fuse_file_info*) {
    return file_system().touch(path);
}

int truncate_file(char const* path, off_t size, fuse_file_info* info) {
    auto const wanted = static_cast<uint64_t>(size);
    return info ? file_system().truncate(info->fh, wanted) : file_system().truncate(path, wanted);
}

/**
 * Data for a file that is only written goes from the program's memory to ours. Each write is a
 * request of its own in any case, so that the kernel's copy would serve nobody.
 */
void choose_cache(fuse_file_info* info) {
    info->direct_io = (info->flags & O_ACCMODE) == O_WRONLY;
}

int open_file(char const* path, fuse_file_info* info) {
    std::call_once(context().first_open, widen_read_ahead);
    choose_cache(info);
    int const error = file_system().open(path, info->flags, info->fh);
    // the kernel remembers a file that could not be stored and has gone; so it looks again
    return error == -ENOENT ? -ESTALE : error;
}
int create_file(char const* path, mode_t, fuse_file_info* info) {
    choose_cache(info);
    return file_system().open(path, info->flags | O_CREAT, info->fh);
}
int read_file(char const*, char* buffer, size_t size, off_t offset, fuse_file_info* info) {
    return file_system().read(info->fh, static_cast<uint64_t>(offset), buffer, size);
}
int write_file(char const*, char const* data, size_t size, off_t offset, fuse_file_info* info) {
    return file_system().write(info->fh, static_cast<uint64_t>(offset), data, size);
}
int flush_file(char const*, fuse_file_info* info) {
    return file_system().flush(info->fh);
}
int sync_file(char const*, int, fuse_file_info* info) {
    return file_system().flush(info->fh);
}
int release_file(char const*, fuse_file_info* info) {
    file_system().release(info->fh);
    return 0;
}

} // namespace

fuse_operations const& pool_fuse_operations() {
    static fuse_operations const operations = [] {
        fuse_operations made{};
        made.init = init;
        made.getattr = get_attributes;
        made.readdir = read_directory;
        made.mkdir = make_directory;
        made.rmdir = remove_directory;
        made.unlink = remove_file;
        made.rename = rename_file;
        made.statfs = file_system_space;
        made.chmod = change_mode;
        made.chown = change_owner;
        made.utimens = change_times;
        made.truncate = truncate_file;
        made.open = open_file;
        made.create = create_file;
        made.read = read_file;
        made.write = write_file;
        made.flush = flush_file;
        made.fsync = sync_file;
        made.release = release_file;
        return made;
    }();
    return operations;
}
