#ifndef HOST_JOB_JOB_MUTEX_H
#define HOST_JOB_JOB_MUTEX_H

#include <ace/Thread_Mutex.h>

#include <ctime>
#include <functional>
#include <mutex>
#include <string>

/**
 * Gives out seconds, none of them twice: names made of a time then differ. When it is asked again
 * within a second, or the clock was set back, it steps ahead of the clock by as little as it can,
 * since a wait could last as long as the clock was set back. May be used on any thread.
 */
class Unique_Seconds {
public:
    explicit Unique_Seconds(std::function<time_t()> clock) : clock_(std::move(clock)) {}
    time_t next();

private:
    std::mutex mutex_;
    std::function<time_t()> clock_;
    time_t last_ = 0;
};

/** Mutexes by which runs of one resource are kept apart, and time stamps that tell them apart. */
class Job_Mutex {
public:
    /** The mutex of @a key: always the same one, until the process ends. */
    static ACE_Thread_Mutex& get(std::string const& key);
    /** The present time, or a little later: never the same second twice in a process. */
    static time_t get_timestamp();
};

#endif
