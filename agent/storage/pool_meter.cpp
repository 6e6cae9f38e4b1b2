#include "agent/storage/pool_meter.h"

#include "host/storage/storage_backend.h"

#include <algorithm>
#include <filesystem>

namespace {

constexpr int64_t MOST_OF_THE_TIME = 20;
/** Levels of folders below a pool that are counted. */
constexpr int MAX_DEPTH = 64;

uint64_t bytes_below(std::string const& path, bool with_unfinished) {
    namespace fs = std::filesystem;
    uint64_t bytes = 0;
    std::error_code error;
    // objects come and go meanwhile; what is gone when it is looked at takes nothing
    fs::recursive_directory_iterator entry(path, fs::directory_options::skip_permission_denied,
                                           error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        // no deeper than anything is stored: each level takes a descriptor
        if (entry.depth() >= MAX_DEPTH)
            entry.disable_recursion_pending();
        std::error_code gone;
        if (entry->symlink_status(gone).type() != fs::file_type::regular || gone ||
            (!with_unfinished && entry->path().filename().string().starts_with(UNFINISHED_PREFIX)))
            continue;
        uint64_t const size = entry->file_size(gone);
        bytes += gone ? 0 : size;
    }
    return bytes;
}

} // namespace

void Pool_Meter::count_i() {
    int64_t const start = clock_.steady_ns();
    if (counted_ && start < count_again_)
        return;
    stored_ = bytes_below(path_, false);
    counted_ = true;
    int64_t const end = clock_.steady_ns();
    count_again_ =
        end + std::max(RECOUNT_SECONDS * NS_PER_SECOND, (end - start) * MOST_OF_THE_TIME);
}

uint64_t Pool_Meter::used() {
    std::lock_guard const guard(mutex_);
    count_i();
    return stored_ + booked_;
}

uint64_t Pool_Meter::taken() {
    std::lock_guard const guard(mutex_);
    int64_t const start = clock_.steady_ns();
    if (start >= take_again_) {
        taken_ = bytes_below(path_, true);
        int64_t const end = clock_.steady_ns();
        take_again_ = end + (end - start) * MOST_OF_THE_TIME;
    }
    return taken_;
}

bool Pool_Meter::book(uint64_t bytes, uint64_t limit) {
    std::lock_guard const guard(mutex_);
    if (limit > 0) {
        count_i();
        uint64_t const used = stored_ + booked_;
        if (used > limit || bytes > limit - used)
            return false;
    }
    booked_ += bytes;
    return true;
}

void Pool_Meter::give_back(uint64_t bytes) {
    std::lock_guard const guard(mutex_);
    booked_ -= std::min(bytes, booked_);
}

void Pool_Meter::committed(uint64_t bytes, uint64_t replaced) {
    std::lock_guard const guard(mutex_);
    booked_ -= std::min(bytes, booked_);
    stored_ += bytes;
    stored_ -= std::min(replaced, stored_);
}

void Pool_Meter::removed(uint64_t bytes) {
    std::lock_guard const guard(mutex_);
    stored_ -= std::min(bytes, stored_);
}
