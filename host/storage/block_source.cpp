#include "host/storage/block_source.h"

#include "host/storage/codec.h"
#include "host/storage/local_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

bool Block::reserve(size_t wanted) {
    if (capacity >= wanted)
        return true;
    data.reset(new (std::nothrow) char[wanted]);
    capacity = data ? wanted : 0;
    return capacity != 0;
}

Storage_Result transfer_canceled() {
    return {Storage_Result::FAILED, "the transfer was canceled"};
}

Storage_Result File_Source::open(std::string const& path, int flags) {
    path_ = path;
    if ((flags & O_ACCMODE) == O_WRONLY || flags & (O_CREAT | O_TRUNC))
        return local_errno("failed to open", path, EINVAL);
    file_.reset(::open(path.c_str(), flags | O_CLOEXEC));
    struct stat status;
    if (!file_ || fstat(file_.get(), &status) == -1)
        return local_errno("failed to open", path, errno);
    if (S_ISDIR(status.st_mode))
        return local_errno("failed to read", path, EISDIR);
    // files such as those of /proc say that they are empty and are not
    bool const tells = S_ISREG(status.st_mode) && status.st_size > 0;
    size_ = tells ? static_cast<uint64_t>(status.st_size) : UNKNOWN_SIZE;
    posix_fadvise(file_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return {};
}

Storage_Result File_Source::next(Block& block) {
    block.size = 0;
    if (!block.reserve(block_size_))
        return local_errno("failed to read", path_, ENOMEM);
    auto const wanted = static_cast<size_t>(std::min<uint64_t>(block_size_, size_ - seen_));
    while (block.size < wanted) {
        ssize_t const got = read(file_.get(), block.data.get() + block.size, wanted - block.size);
        if (got == -1 && errno == EINTR)
            continue;
        if (got == -1)
            return local_errno("failed to read", path_, errno);
        if (got == 0)
            break;
        block.size += static_cast<size_t>(got);
    }
    if (size_ != UNKNOWN_SIZE && block.size < wanted)
        return {Storage_Result::FAILED, "'" + path_ + "' became shorter while it was read"};
    seen_ += block.size;
    return gate_(block.size) ? Storage_Result() : transfer_canceled();
}

Storage_Result Object_Source::next(Block& block) {
    block.size = 0;
    if (!block.reserve(block_size_))
        return {Storage_Result::FAILED, "memory is short"};
    Storage_Result const result = object_.read_at(at_, block.data.get(), block_size_, block.size);
    at_ += block.size;
    if (!result)
        return result;
    return gate_(block.size) ? Storage_Result() : transfer_canceled();
}

Storage_Result Text_Source::next(Block& block) {
    block.size = 0;
    if (text_.empty())
        return {};
    if (!block.reserve(text_.size()))
        return {Storage_Result::FAILED, "memory is short"};
    std::memcpy(block.data.get(), text_.data(), text_.size());
    block.size = text_.size();
    text_ = {};
    return {};
}

Read_Ahead::~Read_Ahead() {
    {
        std::lock_guard const guard(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    if (thread_.exists())
        thread_.join();
}

bool Read_Ahead::start() {
    return thread_.spawn([this] { run(); }) != -1;
}

void Read_Ahead::run() {
    for (bool more = true; more;) {
        Block block;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [&] { return stop_ || ready_.size() < DEPTH; });
            if (stop_)
                return;
            if (!free_.empty()) {
                block = std::move(free_.front());
                free_.pop_front();
            }
        }
        Storage_Result const result = source_.next(block);
        more = result && block.size > 0;
        std::lock_guard const guard(mutex_);
        result_ = result;
        ended_ = !more;
        if (more)
            ready_.push_back(std::move(block));
        changed_.notify_all();
    }
}

Storage_Result Read_Ahead::next(Block& block) {
    std::unique_lock lock(mutex_);
    if (block.data)
        free_.push_back(std::move(block));
    block = Block();
    changed_.wait(lock, [&] { return !ready_.empty() || ended_; });
    if (ready_.empty())
        return result_;
    block = std::move(ready_.front());
    ready_.pop_front();
    changed_.notify_all();
    return {};
}
