#include "agent/jobs/run_meter.h"

#include <gtest/gtest.h>

namespace {

constexpr int64_t SECOND = 1'000'000'000;

TEST(Run_Meter, nothing_has_passed) {
    Run_Meter const meter(5 * SECOND);
    EXPECT_EQ(0U, meter.speed(5 * SECOND));
    EXPECT_EQ(0U, meter.speed(9 * SECOND));
    EXPECT_EQ(0U, meter.average_speed(9 * SECOND));
}

TEST(Run_Meter, the_first_sample_counts_from_the_beginning) {
    Run_Meter meter(0);
    meter.note(2 * SECOND, 2000);
    EXPECT_EQ(1000U, meter.speed(2 * SECOND));
    EXPECT_EQ(500U, meter.speed(4 * SECOND)) << "nothing came since";
    EXPECT_EQ(500U, meter.average_speed(4 * SECOND));
}

TEST(Run_Meter, the_speed_is_that_of_the_last_seconds) {
    Run_Meter meter(0);
    for (int64_t second = 1; second <= 100; ++second)
        meter.note(second * SECOND, static_cast<uint64_t>(second) * 1000);
    for (int64_t second = 101; second <= 120; ++second)
        meter.note(second * SECOND, 100'000 + static_cast<uint64_t>(second - 100) * 50);
    EXPECT_EQ(50U, meter.speed(120 * SECOND));
    EXPECT_EQ(101'000U / 120, meter.average_speed(120 * SECOND));
    EXPECT_EQ(0U, meter.speed(1000 * SECOND)) << "it stands";
}

TEST(Run_Meter, many_samples_at_once_are_few) {
    Run_Meter meter(0);
    for (int64_t i = 1; i <= 1'000'000; ++i)
        meter.note(i * 1000, static_cast<uint64_t>(i)); // one a microsecond
    EXPECT_EQ(1'000'000U, meter.average_speed(SECOND));
    EXPECT_NEAR(1e6, static_cast<double>(meter.speed(SECOND)), 1e4);
}

TEST(Run_Meter, a_count_that_falls_is_no_speed) {
    Run_Meter meter(0);
    for (int64_t second = 1; second <= 20; ++second)
        meter.note(second * SECOND, 100'000 - static_cast<uint64_t>(second));
    EXPECT_EQ(0U, meter.speed(20 * SECOND));
}

TEST(Run_Meter, what_remains) {
    Run_Meter meter(0);
    EXPECT_EQ(30, meter.remaining(10 * SECOND, 0.25));
    EXPECT_EQ(0, meter.remaining(10 * SECOND, 1));
    EXPECT_EQ(-1, meter.remaining(2 * SECOND, 0.25)) << "too early";
    EXPECT_EQ(-1, meter.remaining(10 * SECOND, 0.001)) << "too little";
    EXPECT_EQ(-1, meter.remaining(10 * SECOND, 0));
    EXPECT_EQ(-1, meter.remaining(10 * SECOND, 1.5)) << "more than all";
    meter.restart(100 * SECOND);
    EXPECT_EQ(10, meter.remaining(110 * SECOND, 0.5)) << "the time of waiting does not count";
}

} // namespace
