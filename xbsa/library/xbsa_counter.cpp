#include "xbsa/library/xbsa_counter.h"

#include "qmrt/file.h"

#include <atomic>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void add(uint64_t& count, uint64_t bytes) {
    std::atomic_ref(count).fetch_add(bytes, std::memory_order_relaxed);
}

/** A shorter file would kill the process at the first count; another user's is another job's. */
bool is_counter_file(std::string const& path) {
    File_Descriptor const file(open(path.c_str(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status;
    return file && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) &&
           status.st_uid == geteuid() && status.st_size == static_cast<off_t>(XBSA_INFO_FILE_SIZE);
}

} // namespace

Xbsa_Counter::Xbsa_Counter(std::string const& path) {
    if (is_counter_file(path))
        file_.open_i(path.c_str(), O_RDWR | O_CLOEXEC);
}

void Xbsa_Counter::add_current(uint64_t bytes) {
    if (file_.is_whole())
        add(file_->current_size, bytes);
}

void Xbsa_Counter::add_object(uint64_t size, uint64_t stored_size) {
    if (!file_.is_whole())
        return;
    add(file_->original_size, size);
    add(file_->storage_size, stored_size);
}
