#include "agent/service/stop_watchdog.h"

#include "qmrt/log.h"

#include <system_error>

Stop_Watchdog::Stop_Watchdog(std::chrono::milliseconds limit, std::function<void()> at_limit) {
    auto const watch = [this, limit, at_limit = std::move(at_limit)] {
        std::unique_lock lock(mutex_);
        if (changed_.wait_for(lock, limit, [this] { return stopped_; }))
            return;
        lock.unlock();
        at_limit();
    };
    try {
        thread_ = std::thread(watch);
    } catch (std::system_error const& error) {
        QMRT_LOG(LM_ERROR, "The end of the agent is not watched, %s\n", error.what());
    }
}

Stop_Watchdog::~Stop_Watchdog() {
    {
        std::lock_guard const guard(mutex_);
        stopped_ = true;
        changed_.notify_all();
    }
    if (thread_.joinable())
        thread_.join();
}
