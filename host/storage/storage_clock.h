#ifndef HOST_STORAGE_STORAGE_CLOCK_H
#define HOST_STORAGE_STORAGE_CLOCK_H

#include <cstdint>
#include <ctime>

/**
 * The time by which transfers are limited and retried. A test puts a clock of its own in its place
 * and so waits for nothing. All operations may be called on any thread.
 */
class Storage_Clock {
public:
    virtual ~Storage_Clock() = default;

    /** Nanoseconds that only go forward, from an arbitrary start. */
    virtual int64_t steady_ns() = 0;
    /** The time of the day, for limits that hold at certain hours. */
    virtual time_t now() = 0;
    /** Lets time pass on the calling thread. Zero and less return at once. */
    virtual void sleep_ns(int64_t duration) = 0;

    /** The system's own; lives as long as the process. */
    static Storage_Clock& system();
};

constexpr int64_t NS_PER_SECOND = 1000000000;

#endif
