#include "host/storage/file_storage_backend.h"

#include "host/storage/file_storage_writer.h"
#include "host/storage/storage_url.h"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

Storage_Result not_found(std::string const& name) {
    return {Storage_Result::NOT_FOUND, "there is no object '" + name + "'"};
}

class File_Storage_Connection : public Storage_Connection {
public:
    File_Storage_Connection(File_Descriptor pool, File_Pool_Folder::Parts prefix, bool d2t)
        : pool_(std::make_shared<File_Pool_Folder const>(std::move(pool), std::move(prefix))),
          d2t_(d2t) {}

    Storage_Result create(std::string const& name, bool replace,
                          std::unique_ptr<Storage_Writer>& writer) override;
    Storage_Result open(std::string const& name, std::unique_ptr<Storage_Reader>& reader) override;
    Storage_Result stat(std::string const& name, Storage_Entry& entry) override;
    Storage_Result remove(std::string const& name) override;
    Storage_Result rename(std::string const& from, std::string const& to) override;
    Storage_Result list(std::string const& folder, std::vector<Storage_Entry>& entries) override {
        return read_folder(folder, false, entries);
    }
    Storage_Result list_names(std::string const& folder,
                              std::vector<Storage_Entry>& entries) override {
        return read_folder(folder, true, entries);
    }
    Storage_Result space(uint64_t& total, uint64_t& available) override;

private:
    Storage_Result read_folder(std::string const& folder, bool names_only,
                               std::vector<Storage_Entry>& entries) const;
    /** Opens the folder that a name stands in. */
    Storage_Result folder_of(std::string const& name, File_Pool_Folder::Parts& parts,
                             File_Descriptor& folder) const;

    std::shared_ptr<File_Pool_Folder const> const pool_;
    bool const d2t_;
    std::once_flag swept_;
};

Storage_Result File_Storage_Connection::folder_of(std::string const& name,
                                                  File_Pool_Folder::Parts& parts,
                                                  File_Descriptor& folder) const {
    Storage_Result result = check_object_name(name);
    if (!result)
        return result;
    parts = pool_->full_parts(name);
    result = pool_->open_folder(parts, parts.size() - 1, folder);
    return result.code() == Storage_Result::NOT_FOUND ? not_found(name) : result;
}

Storage_Result File_Storage_Connection::create(std::string const& name, bool replace,
                                               std::unique_ptr<Storage_Writer>& writer) {
    Storage_Result const result = check_object_name(name);
    if (!result)
        return result;
    File_Pool_Folder::Parts parts = pool_->full_parts(name);
    std::call_once(swept_, [&] {
        File_Descriptor folder;
        if (pool_->open_folder(parts, parts.size() - 1, folder))
            sweep_unfinished(folder);
    });
    return File_Storage_Writer::open(pool_, std::move(parts), {replace, !d2t_}, writer);
}

Storage_Result File_Storage_Connection::open(std::string const& name,
                                             std::unique_ptr<Storage_Reader>& reader) {
    File_Pool_Folder::Parts parts;
    File_Descriptor folder;
    Storage_Result const result = folder_of(name, parts, folder);
    if (!result)
        return result;
    // without O_NONBLOCK a pipe in the pool would hold us until somebody writes into it
    File_Descriptor file(
        openat(folder.get(), parts.back().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    if (!file || fstat(file.get(), &status) == -1)
        return errno == ENOENT ? not_found(name)
                               : storage_errno("failed to open '" + name + "'", errno);
    if (!S_ISREG(status.st_mode))
        return not_found(name);
    posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    reader =
        std::make_unique<File_Storage_Reader>(std::move(file), storage_entry(parts.back(), status));
    return {};
}

Storage_Result File_Storage_Connection::stat(std::string const& name, Storage_Entry& entry) {
    File_Pool_Folder::Parts parts;
    File_Descriptor folder;
    Storage_Result const result = folder_of(name, parts, folder);
    if (!result)
        return result;
    struct stat status;
    if (fstatat(folder.get(), parts.back().c_str(), &status, AT_SYMLINK_NOFOLLOW) == -1)
        return errno == ENOENT ? not_found(name)
                               : storage_errno("failed to look at '" + name + "'", errno);
    if (S_ISLNK(status.st_mode))
        return storage_errno("failed to look at '" + name + "'", ELOOP);
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        return not_found(name);
    entry = storage_entry(parts.back(), status);
    return {};
}

Storage_Result File_Storage_Connection::remove(std::string const& name) {
    Storage_Entry entry;
    Storage_Result result = stat(name, entry);
    if (!result)
        return result;
    if (entry.is_folder)
        return not_found(name);
    File_Pool_Folder::Parts parts;
    File_Descriptor folder;
    result = folder_of(name, parts, folder);
    if (!result)
        return result;
    if (unlinkat(folder.get(), parts.back().c_str(), 0) == -1)
        return errno == ENOENT ? not_found(name)
                               : storage_errno("failed to remove '" + name + "'", errno);
    if (fsync(folder.get()) == -1)
        return storage_errno("failed to sync the folder of '" + name + "'", errno);
    pool_->remove_empty_folders(parts);
    return {};
}

Storage_Result File_Storage_Connection::rename(std::string const& from, std::string const& to) {
    Storage_Entry entry;
    Storage_Result result = check_object_name(to);
    if (result)
        result = stat(from, entry);
    if (!result)
        return result;
    if (entry.is_folder)
        return not_found(from);
    File_Pool_Folder::Parts from_parts;
    File_Pool_Folder::Parts const to_parts = pool_->full_parts(to);
    File_Descriptor from_folder, to_folder;
    result = folder_of(from, from_parts, from_folder);
    if (result)
        result = pool_->make_folder(to_parts, to_parts.size() - 1, to_folder);
    if (result)
        result = check_object_place(to_folder, to_parts.back(), true);
    if (result && renameat(from_folder.get(), from_parts.back().c_str(), to_folder.get(),
                           to_parts.back().c_str()) == -1)
        result = errno == ENOENT ? not_found(from)
                                 : storage_errno("failed to rename '" + from + "'", errno);
    if (result && (fsync(to_folder.get()) == -1 || fsync(from_folder.get()) == -1))
        result = storage_errno("failed to sync the folder of '" + to + "'", errno);
    pool_->remove_empty_folders(result ? from_parts : to_parts);
    return result;
}

Storage_Result File_Storage_Connection::read_folder(std::string const& folder, bool names_only,
                                                    std::vector<Storage_Entry>& entries) const {
    Storage_Result result = folder.empty() ? Storage_Result() : check_object_name(folder);
    if (!result)
        return result;
    File_Pool_Folder::Parts const parts = pool_->full_parts(folder);
    File_Descriptor found_folder;
    result = pool_->open_folder(parts, parts.size(), found_folder);
    if (!result)
        return result;
    result = list_folder(found_folder, names_only, entries);
    return result ? result : Storage_Result(result.code(), "'" + folder + "': " + result.text());
}

Storage_Result File_Storage_Connection::space(uint64_t& total, uint64_t& available) {
    struct statvfs status;
    if (fstatvfs(pool_->pool_fd(), &status) == -1)
        return storage_errno("failed to look at the pool's space", errno);
    total = uint64_t{status.f_blocks} * status.f_frsize;
    available = uint64_t{status.f_bavail} * status.f_frsize;
    return {};
}

/** Reads a URL of this back end. */
Storage_Result read_url(std::string const& text, std::string& path) {
    Storage_Url url;
    std::string error;
    if (!parse_storage_url(text, url, error))
        return {Storage_Result::BAD_NAME, "invalid URL, " + error};
    if (url.scheme != File_Storage_Backend::SCHEME)
        return {Storage_Result::BAD_NAME, "not a file URL"};
    if (!url.authority.empty() && url.authority != "localhost")
        return {Storage_Result::BAD_NAME, "a file URL with a host"};
    if (url.path.empty())
        return {Storage_Result::BAD_NAME, "a file URL without a path"};
    path = url.path;
    return {};
}

/** The names that lead from a pool's path to a path in it; false for a path that is not in it. */
bool read_prefix(std::string const& pool, std::string const& path, File_Pool_Folder::Parts& parts) {
    if (path == pool)
        return true;
    std::string const start = pool.back() == '/' ? pool : pool + "/";
    if (!path.starts_with(start))
        return false;
    parts = split_object_name(path.substr(start.size()));
    return true;
}

} // namespace

Storage_Result File_Storage_Backend::connect(std::string const& url, Storage_Access const& access,
                                             std::shared_ptr<Storage_Connection>& connection) {
    std::string path;
    Storage_Result result = read_url(url, path);
    if (!result)
        return result;
    std::string pool = path;
    if (std::string const pool_url = access.pool_url(); !pool_url.empty())
        result = read_url(pool_url, pool);
    File_Pool_Folder::Parts prefix;
    if (result && !read_prefix(pool, path, prefix))
        result = {Storage_Result::BAD_NAME, "the URL is outside of its pool"};
    if (result && !prefix.empty())
        result = check_object_name(path.substr(pool.size() + (pool.back() != '/')));
    if (!result)
        return result;
    File_Descriptor folder = File_Pool_Folder::open_pool(pool.c_str());
    if (!folder)
        return {Storage_Result::UNREACHABLE,
                storage_errno("failed to open pool folder '" + pool + "'", errno).text()};
    connection = std::make_shared<File_Storage_Connection>(std::move(folder), std::move(prefix),
                                                           access.d2t());
    return {};
}
