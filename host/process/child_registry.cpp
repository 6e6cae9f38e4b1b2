#include "host/process/child_registry.h"

#include "host/process/process_tree.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <sys/wait.h>

namespace {

/** A start takes as long as its exec does, which may hang on a file system that does not answer. */
constexpr std::chrono::seconds MOST_FOR_STARTS(1);

} // namespace

Child_Registry& Child_Registry::instance() {
    static auto* const registry = new Child_Registry;
    return *registry;
}

pid_t Child_Registry::start(std::function<pid_t()> const& start, bool leads_group) {
    {
        std::lock_guard const guard(mutex_);
        if (closed_) {
            errno = ESHUTDOWN;
            return -1;
        }
        reap_abandoned();
        ++starting_;
    }
    pid_t const pid = start();
    int const error = errno;
    std::lock_guard const guard(mutex_);
    --starting_;
    changed_.notify_all();
    if (pid != -1)
        children_[pid] = leads_group;
    errno = error;
    return pid;
}

bool Child_Registry::reap(pid_t pid, std::function<bool()> const& reap) {
    std::lock_guard const guard(mutex_);
    if (!reap())
        return false;
    children_.erase(pid);
    return true;
}

void Child_Registry::abandon(pid_t pid) {
    std::lock_guard const guard(mutex_);
    children_.erase(pid);
    abandoned_.insert(pid);
}

void Child_Registry::reap_abandoned() {
    std::erase_if(abandoned_, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
}

void Child_Registry::end_all() {
    std::unique_lock lock(mutex_);
    closed_ = true;
    changed_.wait_for(lock, MOST_FOR_STARTS, [this] { return starting_ == 0; });
    // nobody waits for a child meanwhile, so that each id is still that child's
    for (auto const& [pid, leads_group] : children_) {
        Process_Tree tree(pid);
        tree.add_descendants();
        ::kill(leads_group ? -pid : pid, SIGKILL);
        tree.add_descendants();
        tree.kill();
    }
}

void Child_Registry::reopen() {
    std::lock_guard const guard(mutex_);
    closed_ = false;
}
