#include "host/storage/rate_limiter.h"

#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"
#include "tests/unit/host/storage/stored_text.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

Rate_Control_Entries limits(char const* text) {
    Rate_Control_Entries entries;
    EXPECT_TRUE(rate_entries_from_string(text, ';', entries)) << text;
    return entries;
}

TEST(rate_limiter, no_limit_is_no_wait) {
    Virtual_Clock clock;
    Rate_Limiter none({}, clock);
    Rate_Limiter zero(limits("0"), clock);
    EXPECT_TRUE(none.acquire(UINT64_MAX));
    EXPECT_TRUE(zero.acquire(UINT64_MAX));
    EXPECT_EQ(0u, clock.sleeps());
}

TEST(rate_limiter, holds_the_rate_over_many_small_amounts) {
    Virtual_Clock clock;
    Rate_Limiter limiter(limits("1048576"), clock);
    for (uint64_t sent = 0; sent < 100 * MIB; sent += 4096)
        ASSERT_TRUE(limiter.acquire(4096));
    EXPECT_NEAR(100, clock.seconds(), 0.3);
}

TEST(rate_limiter, holds_the_rate_over_one_amount_larger_than_a_second) {
    Virtual_Clock clock;
    Rate_Limiter limiter(limits("1048576"), clock);
    ASSERT_TRUE(limiter.acquire(100 * MIB));
    EXPECT_NEAR(100, clock.seconds(), 0.3);
}

TEST(rate_limiter, one_byte_a_second_is_kept_too) {
    Virtual_Clock clock;
    Rate_Limiter limiter(limits("1"), clock);
    ASSERT_TRUE(limiter.acquire(10));
    EXPECT_NEAR(9, clock.seconds(), 1);
}

TEST(rate_limiter, rests_are_not_saved_up_beyond_the_burst) {
    Virtual_Clock clock;
    Rate_Limiter limiter(limits("1048576"), clock);
    clock.sleep_ns(3600 * NS_PER_SECOND);
    ASSERT_TRUE(limiter.acquire(10 * MIB));
    EXPECT_NEAR(3600 + 10, clock.seconds(), 0.3);
}

TEST(rate_limiter, nothing_costs_nothing) {
    Virtual_Clock clock;
    Rate_Limiter limiter(limits("1"), clock);
    for (int i = 0; i < 1000; ++i)
        ASSERT_TRUE(limiter.acquire(0));
    EXPECT_EQ(0u, clock.sleeps());
}

TEST(rate_limiter, follows_the_hour_while_it_waits) {
    Virtual_Clock clock;
    clock.set_local_time(7, 59);
    Rate_Limiter limiter(limits("08:00-18:00=1048576;10485760"), clock);
    // a minute at ten a second, the rest at one
    ASSERT_TRUE(limiter.acquire(700 * MIB));
    EXPECT_NEAR(60 + 100, clock.seconds(), 3);
}

TEST(rate_limiter, an_hour_without_a_limit_ends_the_wait) {
    Virtual_Clock clock;
    clock.set_local_time(21, 59);
    Rate_Limiter limiter(limits("22:00-06:00=0;1024"), clock);
    ASSERT_TRUE(limiter.acquire(1024 * MIB));
    EXPECT_NEAR(60, clock.seconds(), 2);
}

TEST(rate_limiter, stops_waiting_when_told) {
    Virtual_Clock clock;
    Rate_Limiter limiter(limits("1024"), clock);
    EXPECT_FALSE(limiter.acquire(1024 * MIB, [&] { return clock.seconds() < 5; }));
    EXPECT_NEAR(5, clock.seconds(), 0.5);
}

TEST(rate_limiter, asks_often_enough_to_be_stopped_however_slow_the_rate) {
    Virtual_Clock clock;
    Rate_Limiter limiter(limits("1"), clock);
    int asked = 0;
    EXPECT_FALSE(limiter.acquire(1000, [&] { return ++asked < 3; }));
    EXPECT_LE(clock.seconds(), 4);
}

TEST(rate_limiter, busy_channels_get_equal_shares) {
    constexpr size_t CHANNELS = 4;
    constexpr int SECONDS = 60;
    Virtual_Clock clock(CHANNELS);
    Rate_Limiter limiter(limits("1048576"), clock);
    std::vector<uint64_t> passed(CHANNELS);
    std::vector<std::thread> threads;
    for (size_t channel = 0; channel < CHANNELS; ++channel)
        threads.emplace_back([&, channel] {
            // from an eighth of a second's worth to eight seconds' at a time
            uint64_t const amount = MIB / 8 << (2 * channel);
            auto const in_time = [&] { return clock.seconds() < SECONDS; };
            // what is asked for beyond the end has passed in part, which this counts in full
            do
                passed[channel] += amount;
            while (in_time() && limiter.acquire(amount, in_time));
            clock.leave();
        });
    for (std::thread& thread : threads)
        thread.join();

    uint64_t sum = 0;
    for (uint64_t amount : passed) {
        sum += amount;
        EXPECT_NEAR(static_cast<double>(amount), SECONDS * MIB / CHANNELS, 8.0 * MIB);
    }
    EXPECT_NEAR(static_cast<double>(sum), SECONDS * MIB, 12.0 * MIB);
}

} // namespace
