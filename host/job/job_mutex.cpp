#include "host/job/job_mutex.h"

#include <algorithm>
#include <map>

time_t Unique_Seconds::next() {
    std::lock_guard const guard(mutex_);
    last_ = std::max(clock_(), last_ + 1);
    return last_;
}

ACE_Thread_Mutex& Job_Mutex::get(std::string const& key) {
    struct Registry {
        std::mutex mutex;
        std::map<std::string, ACE_Thread_Mutex> mutexes; // its nodes stay where they are
    };
    // never destroyed: a job thread may still hold one when the process ends
    static Registry& registry = *new Registry;
    std::lock_guard const guard(registry.mutex);
    return registry.mutexes[key];
}

time_t Job_Mutex::get_timestamp() {
    static Unique_Seconds seconds([] { return time(nullptr); });
    return seconds.next();
}
