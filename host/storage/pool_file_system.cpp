#include "host/storage/pool_file_system.h"

#include "qmrt/log.h"
#include "qmrt/path.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>

namespace {

constexpr size_t MAX_SIZES = 100000;
constexpr unsigned BLOCK_SIZE = 4096;
constexpr unsigned STAT_UNIT = 512;
constexpr int64_t ASK_AGAIN_NS = NS_PER_SECOND;

} // namespace

Pool_File_System::Pool_File_System(std::shared_ptr<Storage_Connection> connection,
                                   Settings const& settings)
    : connection_(std::move(connection)), settings_(settings) {}

std::string Pool_File_System::name_of(std::string const& path) {
    return path.substr(path.empty() ? 0 : 1);
}

Pool_File_System::~Pool_File_System() {
    for (auto const& [path, writing] : writing_)
        if (writing->file->is_dirty())
            QMRT_LOG(LM_WARNING, "%s was still being written, it is stored as it is\n",
                     qmrt::to_one_line(path).c_str());
    while (!handles_.empty())
        release(handles_.begin()->first);
}

int Pool_File_System::error_of(Storage_Result const& result, std::string const& path) const {
    switch (result.code()) {
    case Storage_Result::OK:
        return 0;
    case Storage_Result::NOT_FOUND:
        return -ENOENT;
    case Storage_Result::EXISTS:
        return -EEXIST;
    case Storage_Result::BAD_NAME:
        return -EINVAL;
    default:
        break;
    }
    QMRT_LOG(LM_ERROR, "Failed to serve %s of a mounted pool, %s\n",
             qmrt::to_one_line(path).c_str(), result.text().c_str());
    return result.code() == Storage_Result::NO_SPACE ? -ENOSPC : -EIO;
}

Storage_Result Pool_File_System::ask(std::function<Storage_Result()> const& question) {
    Storage_Clock& clock = *settings_.clock;
    int64_t const start = clock.steady_ns();
    auto const allowed = static_cast<int64_t>(
        std::min<uint64_t>(settings_.retry_timeout, INT64_MAX / NS_PER_SECOND) * NS_PER_SECOND);
    for (;;) {
        Storage_Result result = question();
        int64_t const left = allowed - (clock.steady_ns() - start);
        if (result.code() != Storage_Result::UNREACHABLE || left <= 0)
            return result;
        clock.sleep_ns(std::min(ASK_AGAIN_NS, left));
    }
}

Storage_Result Pool_File_System::find(std::string const& path, Found& found) {
    found = {};
    found.is_folder = true;
    if (path == "/")
        return {};
    Storage_Result result = check_object_name(name_of(path));
    if (result)
        result = find_object(name_of(path), found);
    if (result.code() != Storage_Result::NOT_FOUND || !is_made_folder(path))
        return result;
    found = {};
    found.is_folder = true;
    return {};
}

Storage_Result Pool_File_System::find_object(std::string const& name, Found& found) {
    std::vector<std::string> const files = objects_to_read(name);
    for (std::string const& object : files) {
        Storage_Result const result = ask([&] { return connection_->stat(object, found.entry); });
        if (result && !found.entry.is_folder) {
            found.is_folder = false;
            found.object = object;
            return result;
        }
        // a suffix may make a name too long
        if (!result && result.code() != Storage_Result::NOT_FOUND &&
            result.code() != Storage_Result::BAD_NAME)
            return result;
    }
    // a folder bears its name as it is, whatever that ends with
    Storage_Result const result = ask([&] { return connection_->stat(name, found.entry); });
    found.is_folder = result && found.entry.is_folder;
    if (!result || found.is_folder)
        return result;
    return {Storage_Result::NOT_FOUND, "there is no file '" + name + "'"};
}

void Pool_File_System::forget_size(std::string const& object) {
    std::lock_guard const guard(mutex_);
    sizes_.erase(object);
}

Storage_Result Pool_File_System::content_size(Found const& found, uint64_t& size) {
    {
        std::lock_guard const guard(mutex_);
        auto const known = sizes_.find(found.object);
        if (known != sizes_.end() && known->second.first.size == found.entry.size &&
            known->second.first.modified == found.entry.modified) {
            size = known->second.second;
            return {};
        }
    }
    std::unique_ptr<Object_Content> content;
    Storage_Result result =
        ask([&] { return Object_Content::open(*connection_, found.object, COMPR_AUTO, content); });
    if (result)
        result = content->size(size);
    if (!result)
        return result;
    std::lock_guard const guard(mutex_);
    if (sizes_.size() >= MAX_SIZES)
        sizes_.clear();
    sizes_[found.object] = {found.entry, size};
    return {};
}

void Pool_File_System::set_status(bool is_folder, uint64_t size, time_t modified,
                                  struct stat& status) const {
    mode_t const all = is_folder ? 0700 : 0600;
    status = {};
    status.st_mode = (is_folder ? S_IFDIR : S_IFREG) | (settings_.read_only ? all & 0500 : all);
    status.st_nlink = is_folder ? 2 : 1;
    status.st_uid = settings_.uid;
    status.st_gid = settings_.gid;
    status.st_size = static_cast<off_t>(size);
    status.st_blksize = BLOCK_SIZE;
    status.st_blocks = static_cast<blkcnt_t>((size + STAT_UNIT - 1) / STAT_UNIT);
    status.st_mtime = status.st_ctime = status.st_atime = modified;
}

int Pool_File_System::attributes(std::string const& path, struct stat& status) {
    if (auto const writing = writing_at(path)) {
        std::lock_guard const guard(writing->mutex);
        set_status(false, writing->file->size(), writing->file->modified(), status);
        return 0;
    }
    Found found;
    Storage_Result result = find(path, found);
    uint64_t size = 0;
    if (result && !found.is_folder)
        result = content_size(found, size);
    if (!result)
        return error_of(result, path);
    set_status(found.is_folder, size, found.entry.modified, status);
    return 0;
}

int Pool_File_System::list(std::string const& path, std::vector<Entry>& entries) {
    std::vector<Storage_Entry> stored;
    Found found;
    Storage_Result result = find(path, found);
    if (result && !found.is_folder)
        return -ENOTDIR;
    if (result)
        result = ask([&] { return connection_->list(name_of(path), stored); });
    // a folder that was made and has no object yet, or the mounted one
    if (result.code() == Storage_Result::NOT_FOUND && (found.is_folder || path == "/"))
        result = {};
    if (!result)
        return error_of(result, path);
    std::map<std::string, bool> names;
    for (Storage_Entry const& entry : stored)
        names[entry.is_folder ? entry.name : uncompressed_name(entry.name)] = entry.is_folder;
    {
        std::lock_guard const guard(mutex_);
        for (auto const& [file, writing] : writing_)
            if (dirname_string(file) == path)
                names[qmrt::basename(file)] = false;
        for (std::string const& folder : made_folders_)
            if (dirname_string(folder) == path)
                names[qmrt::basename(folder)] = true;
    }
    for (auto const& [name, is_folder] : names)
        entries.push_back({name, is_folder});
    return 0;
}

bool Pool_File_System::is_made_folder(std::string const& path) {
    std::lock_guard const guard(mutex_);
    return made_folders_.count(path) != 0;
}

int Pool_File_System::check_parent(std::string const& path) {
    Found found;
    int const error = error_of(find(dirname_string(path), found), path);
    if (error)
        return error;
    return found.is_folder ? 0 : -ENOTDIR;
}

int Pool_File_System::make_directory(std::string const& path) {
    Found found;
    if (settings_.read_only)
        return -EROFS;
    if (int const error = check_parent(path))
        return error;
    if (Storage_Result const result = check_object_name(name_of(path)); !result)
        return error_of(result, path);
    Storage_Result const result = find(path, found);
    if (result || writing_at(path))
        return -EEXIST;
    if (result.code() != Storage_Result::NOT_FOUND)
        return error_of(result, path);
    std::lock_guard const guard(mutex_);
    made_folders_.insert(path);
    return 0;
}

int Pool_File_System::remove_directory(std::string const& path) {
    std::vector<Entry> entries;
    if (settings_.read_only)
        return -EROFS;
    if (int const error = list(path, entries))
        return error;
    if (!entries.empty())
        return -ENOTEMPTY;
    std::lock_guard const guard(mutex_);
    made_folders_.erase(path);
    return 0;
}

int Pool_File_System::remove_file(std::string const& path) {
    if (settings_.read_only)
        return -EROFS;
    std::lock_guard const opening(opening_);
    auto const writing = writing_at(path);
    Found found;
    Storage_Result result = find(path, found);
    if (result && found.is_folder)
        return -EISDIR;
    if (!result && (!writing || result.code() != Storage_Result::NOT_FOUND))
        return error_of(result, path);
    if (writing) {
        std::lock_guard const guard(writing->mutex);
        writing->file->forget();
        writing->removed = true;
        std::lock_guard const map_guard(mutex_);
        writing_.erase(path);
    }
    // the folder shall not seem to go with its last file
    if (std::string const folder = dirname_string(path); folder != "/") {
        std::lock_guard const guard(mutex_);
        made_folders_.insert(folder);
    }
    for (std::string const& object : objects_to_read(name_of(path))) {
        Storage_Entry entry;
        if (connection_->stat(object, entry) && !entry.is_folder)
            result = ask([&] { return connection_->remove(object); });
        forget_size(object);
        if (!result && result.code() != Storage_Result::NOT_FOUND)
            return error_of(result, path);
    }
    return 0;
}

int Pool_File_System::space(struct statvfs& status) {
    uint64_t total = 0, available = 0;
    Storage_Result const result = ask([&] { return connection_->space(total, available); });
    if (!result)
        return error_of(result, "/");
    status = {};
    status.f_bsize = status.f_frsize = BLOCK_SIZE;
    status.f_blocks = total / BLOCK_SIZE;
    status.f_bfree = status.f_bavail = available / BLOCK_SIZE;
    status.f_namemax = NAME_MAX;
    return 0;
}

int Pool_File_System::touch(std::string const& path) {
    struct stat status;
    if (settings_.read_only)
        return -EROFS;
    return attributes(path, status);
}
