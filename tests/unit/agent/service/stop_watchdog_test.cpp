#include "agent/service/stop_watchdog.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

TEST(Stop_Watchdog, acts_once_at_its_limit) {
    std::promise<void> acted;
    Stop_Watchdog const watchdog(1ms, [&] { acted.set_value(); });
    EXPECT_EQ(std::future_status::ready, acted.get_future().wait_for(60s));
}

TEST(Stop_Watchdog, does_nothing_when_all_has_ended_before) {
    std::atomic<bool> acted = false;
    {
        Stop_Watchdog const watchdog(1h, [&] { acted = true; });
    }
    EXPECT_FALSE(acted);
}

} // namespace
