#include "host/storage/storage_clock.h"

#include <cerrno>

namespace {

class System_Clock : public Storage_Clock {
public:
    int64_t steady_ns() override {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return time.tv_sec * NS_PER_SECOND + time.tv_nsec;
    }
    time_t now() override { return time(nullptr); }
    void sleep_ns(int64_t duration) override {
        if (duration <= 0)
            return;
        int64_t const end = steady_ns() + duration;
        timespec const until{end / NS_PER_SECOND, end % NS_PER_SECOND};
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
        }
    }
};

} // namespace

Storage_Clock& Storage_Clock::system() {
    static System_Clock clock;
    return clock;
}
