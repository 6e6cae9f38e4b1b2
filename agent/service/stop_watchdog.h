#ifndef AGENT_SERVICE_STOP_WATCHDOG_H
#define AGENT_SERVICE_STOP_WATCHDOG_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

/**
 * Sees to it that the agent ends in time: what it waits for while it stops may never come, such as
 * a thread that reads from a file system which does not answer.
 */
class Stop_Watchdog {
public:
    /** Calls @a at_limit on a thread of its own, once, unless it is destroyed before. */
    Stop_Watchdog(std::chrono::milliseconds limit, std::function<void()> at_limit);
    /** Waits for @a at_limit when that has begun. */
    ~Stop_Watchdog();
    Stop_Watchdog(Stop_Watchdog const&) = delete;
    Stop_Watchdog& operator=(Stop_Watchdog const&) = delete;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopped_ = false;
    std::thread thread_;
};

#endif
