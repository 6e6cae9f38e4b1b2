#ifndef HOST_PROCESS_DEADLINE_H
#define HOST_PROCESS_DEADLINE_H

#include <ace/Time_Value.h>

#include <algorithm>
#include <chrono>

/** A moment by the monotonic clock up to which something is waited for, or no such moment. */
class Deadline {
public:
    using clock = std::chrono::steady_clock;

    /** No limit. */
    Deadline() : at_(clock::time_point::max()) {}
    /** @a after from now; less than nothing is now. Beyond some thirty years there is no limit. */
    explicit Deadline(ACE_Time_Value const& after) : Deadline() {
        if (after.sec() < 1000000000)
            at_ = clock::now() + std::max(clock::duration::zero(), duration_of(after));
    }
    /** Null is no limit. */
    explicit Deadline(ACE_Time_Value const* after) : Deadline() {
        if (after)
            *this = Deadline(*after);
    }

    [[nodiscard]] bool passed() const { return limited() && clock::now() >= at_; }
    [[nodiscard]] bool limited() const { return at_ != clock::time_point::max(); }
    /** What is left, for poll(): milliseconds rounded up, 0 when it has passed, -1 for no limit. */
    int poll_timeout() const {
        if (!limited())
            return -1;
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(at_ - clock::now());
        return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 24 * 3600 * 1000));
    }
    /** What is left, zero when it has passed. For a limited deadline only. */
    ACE_Time_Value left() const {
        auto const left = std::max(clock::duration::zero(), at_ - clock::now());
        return ACE_Time_Value(std::chrono::duration_cast<std::chrono::microseconds>(left));
    }

    friend Deadline earlier(Deadline const& one, Deadline const& other) {
        return one.at_ < other.at_ ? one : other;
    }

    /** @a one, or @a after from now when that is later. */
    friend Deadline later(Deadline const& one, ACE_Time_Value const& after) {
        Deadline const other(after);
        return one.at_ < other.at_ ? other : one;
    }

private:
    static clock::duration duration_of(ACE_Time_Value const& time) {
        return std::chrono::seconds(time.sec()) + std::chrono::microseconds(time.usec());
    }

    clock::time_point at_;
};

#endif
