#ifndef HOST_PROCESS_CHILD_REGISTRY_H
#define HOST_PROCESS_CHILD_REGISTRY_H

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <sys/types.h>

/**
 * The children of this process that ACE_Process_Ex has started and not waited for, so that a
 * process that has to end can end them all, whichever threads follow them. Thread-safe.
 */
class Child_Registry {
public:
    /** The process's own; never destroyed. */
    static Child_Registry& instance();

    /**
     * Starts a child by @a start, which returns its id or -1, and notes it.
     * @param leads_group  it has a process group of its own
     * @return what @a start returned; -1 with ESHUTDOWN, and nothing started, after end_all()
     */
    pid_t start(std::function<pid_t()> const& start, bool leads_group);
    /** Calls @a reap, which returns true when it has waited for the child, and forgets it then. */
    [[nodiscard]] bool reap(pid_t pid, std::function<bool()> const& reap);
    /** Waits for the child some time, whenever another one is started: it cannot be killed now. */
    void abandon(pid_t pid);

    /** Kills all children with what they have started; from now on none is started. */
    void end_all();
    /** Children may be started again. */
    void reopen();

private:
    Child_Registry() = default;
    void reap_abandoned();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<pid_t, bool> children_; ///< with whether it leads a process group
    std::set<pid_t> abandoned_;
    size_t starting_ = 0;
    bool closed_ = false;
};

#endif
