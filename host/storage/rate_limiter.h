#ifndef HOST_STORAGE_RATE_LIMITER_H
#define HOST_STORAGE_RATE_LIMITER_H

#include "host/storage/rate_limits.h"
#include "host/storage/storage_clock.h"

#include <functional>
#include <mutex>

/**
 * Holds a transfer down to its limits: a token bucket that fills at the allowed rate and holds an
 * eighth of a second's worth.
 *
 * Several channels may share one limiter, each on its own thread. They are served in the order in
 * which they ask, in pieces of an eighth of a second's worth at most. So busy channels get equal
 * shares, and one that asks for a large amount holds nobody up; only a channel whose amounts are
 * smaller than a piece gets less than the others.
 */
class Rate_Limiter {
public:
    /** @param clock  must live as long as the limiter */
    Rate_Limiter(Rate_Control_Entries entries, Storage_Clock& clock);

    /**
     * Returns when @a bytes more may pass. A limit that changes with the hour is followed while
     * waiting.
     * @param go_on  asked again and again while waiting; may be empty
     * @return false when go_on said false; part of the amount has been used up then
     */
    bool acquire(uint64_t bytes, std::function<bool()> const& go_on = nullptr);

private:
    /** Books a piece of @a bytes. Gives its size, and how long to wait before it may pass. */
    uint64_t book(uint64_t bytes, int64_t& wait_ns);

    Rate_Control_Entries const entries_;
    Storage_Clock& clock_;
    std::mutex mutex_;
    int64_t booked_until_ns_; ///< when all that was booked will have passed at the allowed rate
};

#endif
