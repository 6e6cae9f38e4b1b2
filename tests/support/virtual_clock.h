#ifndef TESTS_SUPPORT_VIRTUAL_CLOCK_H
#define TESTS_SUPPORT_VIRTUAL_CLOCK_H

#include "host/storage/storage_clock.h"

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

/**
 * A clock in which waiting takes no time: when all the threads that use it sleep, it jumps to the
 * moment at which the first of them wakes.
 */
class Virtual_Clock : public Storage_Clock {
public:
    /** @param threads  how many threads use it; each but the last calls leave() when it is done */
    explicit Virtual_Clock(size_t threads = 1) : threads_(threads) {}

    int64_t steady_ns() override {
        std::lock_guard const guard(mutex_);
        return steady_ns_;
    }
    time_t now() override {
        std::lock_guard const guard(mutex_);
        return start_ + steady_ns_ / NS_PER_SECOND;
    }
    void sleep_ns(int64_t duration) override {
        if (duration <= 0)
            return;
        std::unique_lock lock(mutex_);
        ++sleeps_;
        if (on_sleep_)
            on_sleep_(steady_ns_ + duration);
        int64_t const until = steady_ns_ + duration;
        wakes_.push_back(until);
        advance();
        changed_.wait(lock, [&] { return steady_ns_ >= until; });
        wakes_.erase(std::find(wakes_.begin(), wakes_.end(), until));
    }
    /** The calling thread uses the clock no more. */
    void leave() {
        std::lock_guard const guard(mutex_);
        --threads_;
        advance();
    }

    /** Sets the time of the day, local, at which the clock stands now. */
    void set_local_time(int hour, int minute) {
        tm local{};
        local.tm_year = 126;
        local.tm_mday = 20;
        local.tm_hour = hour;
        local.tm_min = minute;
        local.tm_isdst = -1;
        std::lock_guard const guard(mutex_);
        start_ = mktime(&local) - steady_ns_ / NS_PER_SECOND;
    }
    /** Called at each sleep with the time at which it will end. May not use the clock. */
    void on_sleep(std::function<void(int64_t until_ns)> function) {
        on_sleep_ = std::move(function);
    }
    double seconds() { return static_cast<double>(steady_ns()) / NS_PER_SECOND; }
    size_t sleeps() {
        std::lock_guard const guard(mutex_);
        return sleeps_;
    }

private:
    void advance() {
        // sleepers that have yet to notice that their time has come do not count as sleeping
        if (wakes_.empty() || wakes_.size() < threads_)
            return;
        int64_t const first = *std::min_element(wakes_.begin(), wakes_.end());
        if (first > steady_ns_) {
            steady_ns_ = first;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    size_t threads_;
    std::vector<int64_t> wakes_;
    int64_t steady_ns_ = 0;
    time_t start_ = 1000000000;
    size_t sleeps_ = 0;
    std::function<void(int64_t)> on_sleep_;
};

#endif
