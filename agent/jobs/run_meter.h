#ifndef AGENT_JOBS_RUN_METER_H
#define AGENT_JOBS_RUN_METER_H

#include <cstdint>
#include <deque>

/**
 * How fast the bytes of a run pass, and how long it may still take. Times are nanoseconds of the
 * steady clock. For one thread at a time.
 */
class Run_Meter {
public:
    /** The rate of now is that of so many nanoseconds. */
    static constexpr int64_t SPAN = 10'000'000'000;

    explicit Run_Meter(int64_t now) { restart(now); }

    /** Begins anew: until now the run has waited. */
    void restart(int64_t now);
    /** @param bytes  that have passed since the run began */
    void note(int64_t now, uint64_t bytes);

    /** Bytes a second of late; 0 when none have passed. */
    uint64_t speed(int64_t now) const;
    /** Bytes a second since the beginning. */
    uint64_t average_speed(int64_t now) const;
    /**
     * Seconds until all is done at the average pace; -1 while that would be a guess: in the first
     * seconds, and before the first percent.
     * @param done  which part of the whole, 0 to 1
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
    std::deque<Sample> samples_; ///< some of the last SPAN, and the one before
};

#endif
