#ifndef AGENT_JOBS_RUN_METER_H
#define AGENT_JOBS_RUN_METER_H

#include <cstdint>
#include <deque>

/**
 * Computes the transfer rate of a run and the time it may still take. Times are nanoseconds of the
 * steady clock. Not thread-safe.
 */
class Run_Meter {
public:
    /** The current rate is the average over this time. */
    static constexpr int64_t SPAN = 10'000'000'000;

    explicit Run_Meter(int64_t now) { restart(now); }

    /** Starts anew, after a run has waited. */
    void restart(int64_t now);
    /** @param bytes  transferred since the run began */
    void note(int64_t now, uint64_t bytes);

    /** Bytes per second over the last SPAN. */
    uint64_t speed(int64_t now) const;
    /** Bytes per second since the start. */
    uint64_t average_speed(int64_t now) const;
    /**
     * Seconds until the end at the average rate; -1 in the first seconds and before the first
     * percent, when it would be a guess.
     * @param done  the fraction that is done, 0 to 1
     */
    int64_t remaining(int64_t now, double done) const;

private:
    struct Sample {
        int64_t time;
        uint64_t bytes;
    };

    uint64_t rate(Sample const& from, int64_t now) const;

    Sample beginning_{};
    Sample latest_{};
    std::deque<Sample> samples_; ///< those of the last SPAN and the one before
};

#endif
