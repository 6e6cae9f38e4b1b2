#ifndef AGENT_STORAGE_POOL_METER_H
#define AGENT_STORAGE_POOL_METER_H

#include "host/storage/storage_clock.h"

#include <cstdint>
#include <mutex>
#include <string>

/**
 * How many bytes the objects of a pool take: counted by a walk over its directory, then kept up to
 * date by what this process writes and removes. Others may write to the pool, too, so a count is
 * made again when it is older than RECOUNT_SECONDS and somebody wants to know, but no more than a
 * twentieth of the time is spent on it. All operations may be called on any thread; those that
 * count hold the others up.
 */
class Pool_Meter {
public:
    static constexpr int64_t RECOUNT_SECONDS = 30;

    /** @param clock  lives longer */
    Pool_Meter(std::string path, Storage_Clock& clock) : path_(std::move(path)), clock_(clock) {}

    /** Bytes of objects, and of what is being written by this process. Counts when it must. */
    uint64_t used();
    /**
     * Bytes of all that is there, whoever writes it, finished or not: counted anew, unless that
     * would take more than a twentieth of the time.
     */
    uint64_t taken();
    /**
     * Books bytes that are about to be written.
     * @param limit  of the pool; 0 for none
     * @return false, with nothing booked, when they would lead beyond the limit
     */
    [[nodiscard]] bool book(uint64_t bytes, uint64_t limit);
    /** Gives back what was booked for an object that is not to be. */
    void give_back(uint64_t bytes);
    /** An object of that many booked bytes is in place, and one of so many replaced bytes gone. */
    void committed(uint64_t bytes, uint64_t replaced);
    void removed(uint64_t bytes);

private:
    void count_i();

    std::string const path_;
    Storage_Clock& clock_;
    std::mutex mutex_;
    uint64_t stored_ = 0; ///< bytes of objects
    uint64_t booked_ = 0; ///< bytes on their way
    bool counted_ = false;
    int64_t count_again_ = 0; ///< by the clock's steady_ns()
    uint64_t taken_ = 0;
    int64_t take_again_ = 0; ///< as count_again_
};

#endif
