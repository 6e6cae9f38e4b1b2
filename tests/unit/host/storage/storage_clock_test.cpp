#include "host/storage/storage_clock.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

TEST(storage_clock, a_sleep_lasts_at_least_its_time) {
    Storage_Clock& clock = Storage_Clock::system();
    int64_t const start = clock.steady_ns();
    clock.sleep_ns(2000000);
    EXPECT_GE(clock.steady_ns() - start, 2000000);
}

TEST(storage_clock, nothing_and_less_is_no_sleep) {
    Storage_Clock& clock = Storage_Clock::system();
    int64_t const start = clock.steady_ns();
    clock.sleep_ns(0);
    clock.sleep_ns(-3600 * NS_PER_SECOND);
    EXPECT_LT(clock.steady_ns() - start, 60 * NS_PER_SECOND);
}

TEST(storage_clock, now_is_the_time_of_the_day) {
    time_t const before = time(nullptr);
    time_t const now = Storage_Clock::system().now();
    EXPECT_LE(before, now);
    EXPECT_LE(now, time(nullptr));
}

} // namespace
