#include "host/process/deadline.h"

#include <gtest/gtest.h>
#include <limits>

namespace {

TEST(Deadline, none_is_never_passed) {
    Deadline const none;
    EXPECT_FALSE(none.limited());
    EXPECT_FALSE(none.passed());
    EXPECT_EQ(-1, none.poll_timeout());
    EXPECT_FALSE(Deadline(nullptr).limited());
}

TEST(Deadline, zero_and_less_have_passed_at_once) {
    for (ACE_Time_Value const& after : {ACE_Time_Value::zero, ACE_Time_Value(-5)}) {
        Deadline const now(after);
        EXPECT_TRUE(now.passed());
        EXPECT_EQ(0, now.poll_timeout());
        EXPECT_EQ(ACE_Time_Value::zero, now.left());
    }
}

TEST(Deadline, tells_what_is_left) {
    Deadline const later(ACE_Time_Value(1000));
    EXPECT_TRUE(later.limited());
    EXPECT_FALSE(later.passed());
    EXPECT_GT(later.poll_timeout(), 990 * 1000);
    EXPECT_LE(later.poll_timeout(), 1000 * 1000);
    EXPECT_GT(later.left(), ACE_Time_Value(990));
}

TEST(Deadline, a_pointer_gives_its_time) {
    ACE_Time_Value const time(1000);
    EXPECT_TRUE(Deadline(&time).limited());
}

TEST(Deadline, a_far_one_fits_poll) {
    EXPECT_EQ(24 * 3600 * 1000, Deadline(ACE_Time_Value(90000000)).poll_timeout());
}

TEST(Deadline, beyond_measure_is_no_limit) {
    EXPECT_FALSE(Deadline(ACE_Time_Value(std::numeric_limits<time_t>::max())).limited());
    EXPECT_FALSE(Deadline(ACE_Time_Value::max_time).limited());
}

TEST(Deadline, the_earlier_of_two) {
    Deadline const none;
    Deadline const now(ACE_Time_Value::zero);
    Deadline const later(ACE_Time_Value(1000));
    EXPECT_TRUE(earlier(none, now).passed());
    EXPECT_TRUE(earlier(now, later).passed());
    EXPECT_FALSE(earlier(later, none).passed());
    EXPECT_TRUE(earlier(later, none).limited());
    EXPECT_FALSE(earlier(none, none).limited());
}

} // namespace
