#include "host/storage/pool_file_system.h"

#include "qmrt/path.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

// the half of Pool_File_System that has to do with open files

std::shared_ptr<Pool_File_System::Writing> Pool_File_System::writing_at(std::string const& path) {
    std::lock_guard const guard(mutex_);
    auto const found = writing_.find(path);
    return found == writing_.end() ? nullptr : found->second;
}

std::shared_ptr<Pool_File_System::Handle> Pool_File_System::handle_of(uint64_t number) {
    std::lock_guard const guard(mutex_);
    auto const found = handles_.find(number);
    return found == handles_.end() ? nullptr : found->second;
}

uint64_t Pool_File_System::keep(std::shared_ptr<Handle> handle) {
    std::lock_guard const guard(mutex_);
    handles_[next_handle_] = std::move(handle);
    return next_handle_++;
}

int Pool_File_System::open(std::string const& path, int flags, uint64_t& handle) {
    auto made = std::make_shared<Handle>();
    bool const writes = (flags & O_ACCMODE) != O_RDONLY || flags & (O_CREAT | O_TRUNC);
    int const error = writes ? open_to_write(path, flags, *made) : open_to_read(path, *made);
    if (error)
        return error;
    handle = keep(std::move(made));
    return 0;
}

int Pool_File_System::open_to_read(std::string const& path, Handle& handle) {
    {
        std::lock_guard const guard(mutex_);
        auto const writing = writing_.find(path);
        if (writing != writing_.end()) {
            handle.writing = writing->second;
            ++handle.writing->handles;
            return 0;
        }
    }
    Found found;
    Storage_Result result = find(path, found);
    if (result && found.is_folder)
        return -EISDIR;
    if (result)
        result = ask([&] {
            return Object_Content::open(*connection_, found.object, COMPR_AUTO, handle.content);
        });
    return error_of(result, path);
}

int Pool_File_System::open_to_write(std::string const& path, int flags, Handle& handle) {
    if (settings_.read_only)
        return -EROFS;
    std::lock_guard const opening(opening_);
    std::shared_ptr<Writing> writing = writing_at(path);
    if (writing && (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL))
        return -EEXIST;
    if (!writing) {
        if (int const error = begin_writing(path, flags, writing))
            return error;
    } else if (flags & O_TRUNC) {
        std::lock_guard const guard(writing->mutex);
        if (int const error = error_of(writing->file->truncate(0), path))
            return error;
    }
    handle.writing = writing;
    handle.may_write = (flags & O_ACCMODE) != O_RDONLY;
    handle.appends = flags & O_APPEND;
    std::lock_guard const guard(mutex_);
    ++writing->handles;
    writing_[path] = writing;
    return 0;
}

int Pool_File_System::begin_writing(std::string const& path, int flags,
                                    std::shared_ptr<Writing>& writing) {
    Found found;
    Storage_Result result = find(path, found);
    bool const exists = static_cast<bool>(result);
    if (exists && found.is_folder)
        return -EISDIR;
    if (exists && (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL))
        return -EEXIST;
    if (!exists && (!(flags & O_CREAT) || result.code() != Storage_Result::NOT_FOUND))
        return error_of(result, path);
    std::shared_ptr<Written_File> file;
    if (exists && !(flags & O_TRUNC)) {
        uint64_t size = 0;
        result = content_size(found, size);
        if (!result)
            return error_of(result, path);
        file = Written_File::of_object(connection_, found.object, size, settings_.writing);
    } else {
        std::string const object = object_to_write(name_of(path), settings_.compression);
        result = check_object_name(object);
        if (!result)
            return error_of(result, path);
        if (int const error = check_parent(path))
            return error;
        file = Written_File::of_nothing(connection_, object, settings_.writing);
    }
    writing = std::make_shared<Writing>();
    writing->file = file;
    writing->path = path;
    return 0;
}

int Pool_File_System::read(uint64_t number, uint64_t offset, void* buffer, size_t size) {
    auto const handle = handle_of(number);
    if (!handle)
        return -EBADF;
    size_t got = 0;
    Storage_Result result;
    std::string path;
    if (handle->writing) {
        std::lock_guard const guard(handle->writing->mutex);
        path = handle->writing->path;
        result = handle->writing->file->read(offset, buffer, size, got);
    } else {
        std::unique_lock guard(handle->mutex, std::defer_lock);
        if (handle->content->is_packed())
            guard.lock();
        result = handle->content->read_at(offset, buffer, size, got);
    }
    return result ? static_cast<int>(got) : error_of(result, path);
}

int Pool_File_System::write(uint64_t number, uint64_t offset, void const* data, size_t size) {
    auto const handle = handle_of(number);
    if (!handle || !handle->may_write)
        return -EBADF;
    Writing& writing = *handle->writing;
    std::lock_guard const guard(writing.mutex);
    uint64_t const at = handle->appends ? writing.file->size() : offset;
    Storage_Result const result = writing.file->write(at, data, size);
    return result ? static_cast<int>(size) : error_of(result, writing.path);
}

int Pool_File_System::truncate(uint64_t number, uint64_t size) {
    auto const handle = handle_of(number);
    if (!handle || !handle->may_write)
        return -EBADF;
    std::lock_guard const guard(handle->writing->mutex);
    return error_of(handle->writing->file->truncate(size), handle->writing->path);
}

int Pool_File_System::truncate(std::string const& path, uint64_t size) {
    uint64_t handle = 0;
    int error = open(path, O_WRONLY, handle);
    if (error)
        return error;
    error = truncate(handle, size);
    if (!error)
        error = flush(handle);
    release(handle);
    return error;
}

int Pool_File_System::store(Writing& writing) {
    if (writing.removed || !writing.file->is_dirty())
        return error_of(writing.file->store(), writing.path);
    Storage_Result const result = writing.file->store();
    forget_size(writing.file->object());
    if (result)
        remove_other_forms(writing.path, writing.file->object());
    return error_of(result, writing.path);
}

void Pool_File_System::remove_other_forms(std::string const& path, std::string const& object) {
    // a file that was stored by another method before would show through
    for (std::string const& other : objects_to_read(name_of(path))) {
        Storage_Entry entry;
        if (other != object && connection_->stat(other, entry) && !entry.is_folder)
            error_of(connection_->remove(other), path);
    }
}

int Pool_File_System::flush(uint64_t number) {
    auto const handle = handle_of(number);
    if (!handle)
        return -EBADF;
    if (!handle->may_write)
        return 0;
    std::lock_guard const guard(handle->writing->mutex);
    return store(*handle->writing);
}

void Pool_File_System::release(uint64_t number) {
    auto const handle = handle_of(number);
    if (!handle)
        return;
    if (std::shared_ptr<Writing> const writing = handle->writing) {
        std::lock_guard const opening(opening_);
        std::lock_guard const guard(writing->mutex);
        // what was not flushed has nobody to tell its failure to but the log
        if (writing->file->is_dirty())
            store(*writing);
        std::lock_guard const map_guard(mutex_);
        auto const listed = writing_.find(writing->path);
        if (--writing->handles == 0 && listed != writing_.end() && listed->second == writing)
            writing_.erase(listed);
    }
    std::lock_guard const guard(mutex_);
    handles_.erase(number);
}

int Pool_File_System::rename(std::string const& from, std::string const& to, unsigned flags) {
    if (settings_.read_only)
        return -EROFS;
    if (flags & ~static_cast<unsigned>(RENAME_NOREPLACE))
        return -EINVAL;
    std::lock_guard const opening(opening_);
    Found source, target;
    auto const writing = writing_at(from);
    if (writing) {
        std::lock_guard const guard(writing->mutex);
        if (int const error = store(*writing))
            return error;
    }
    if (int const error = error_of(find(from, source), from))
        return error;
    if (source.is_folder)
        return -EXDEV;
    if (int const error = check_parent(to))
        return error;
    Storage_Result result = find(to, target);
    if (result && target.is_folder)
        return -EISDIR;
    if ((result || writing_at(to)) && flags & RENAME_NOREPLACE)
        return -EEXIST;
    if (writing_at(to) && from != to)
        return -EBUSY;
    // keeps the method by which it is stored; where the new name does not allow that, the program
    // has to copy
    std::string const object = name_of(to) + source.object.substr(name_of(from).size());
    if (uncompressed_name(object) != name_of(to))
        return -EXDEV;
    result = ask([&] { return connection_->rename(source.object, object); });
    if (!result)
        return error_of(result, from);
    forget_size(source.object);
    forget_size(object);
    remove_other_forms(to, object);
    if (writing) {
        std::lock_guard const guard(writing->mutex);
        writing->file->renamed(object);
        writing->path = to;
        std::lock_guard const map_guard(mutex_);
        writing_.erase(from);
        writing_[to] = writing;
    }
    std::lock_guard const guard(mutex_);
    if (std::string const folder = dirname_string(from); folder != "/")
        made_folders_.insert(folder);
    return 0;
}
