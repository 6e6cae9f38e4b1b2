#include "qmrt/posix_time.h"

#include "tests/support/scoped_env.h"

#include <gtest/gtest.h>

namespace {

/** Local time two hours east of Greenwich. */
class Posix_Time_Test : public testing::Test {
protected:
    Posix_Time_Test() { tzset(); }
    ~Posix_Time_Test() override { unset_.reset(); }

    struct Zone_Reset {
        ~Zone_Reset() { tzset(); }
        void reset() {}
    } unset_;
    Scoped_Env zone_{"TZ", "EET-2"};
    time_t time_ = 7;
};

TEST_F(Posix_Time_Test, without_a_zone_the_text_is_local_time) {
    tzset();
    EXPECT_TRUE(local_to_posix_time("1970-01-01 02:00:01", time_, "%Y-%m-%d %H:%M:%S"));
    EXPECT_EQ(1, time_);
}

TEST_F(Posix_Time_Test, with_a_zone_the_zone_counts) {
    EXPECT_TRUE(local_to_posix_time("1970-01-01T01:00:01+0100", time_, "%Y-%m-%dT%H:%M:%S%z"));
    EXPECT_EQ(1, time_);
    EXPECT_TRUE(local_to_posix_time("1970-01-01T00:00:02+0000", time_, "%Y-%m-%dT%H:%M:%S%z"));
    EXPECT_EQ(2, time_);
}

TEST_F(Posix_Time_Test, what_does_not_fit_is_refused) {
    for (char const* text : {"", "1970-01-01", "1970-01-01 02:00:01 x", "1970-13-01 02:00:01",
                             "1970-02-30 02:00:01", "abc"})
        EXPECT_FALSE(local_to_posix_time(text, time_, "%Y-%m-%d %H:%M:%S")) << text;
    EXPECT_EQ(7, time_);
}

TEST_F(Posix_Time_Test, iso8601_forms) {
    tzset();
    for (char const* text : {"1970-01-01T02:00:01", "1970-01-01 02:00:01", "1970-01-01T00:00:01Z",
                             "1970-01-01T00:00:01.999Z", "1970-01-01T03:30:01+03:30",
                             "1970-01-01T03:30:01+0330", "1969-12-31T23:00:01-01"}) {
        time_ = 7;
        EXPECT_TRUE(iso8601_to_posix_time(text, time_)) << text;
        EXPECT_EQ(1, time_) << text;
    }
}

TEST_F(Posix_Time_Test, iso8601_refuses_all_else) {
    for (char const* text :
         {"", "1970-01-01", "1970-01-01T00:00", "1970-1-1T00:00:01Z", "1970-02-31T00:00:01Z",
          "1970-01-01T25:00:01Z", "1970-01-01T00:00:01Zx", "x1970-01-01T00:00:01Z"})
        EXPECT_FALSE(iso8601_to_posix_time(text, time_)) << text;
    EXPECT_EQ(7, time_);
}

TEST_F(Posix_Time_Test, text_is_utc) {
    EXPECT_STREQ("2026-11-21T06:41:00Z", POSIX_Time_To_ISO8601(1795243260).c_str());
    time_t back = 0;
    EXPECT_TRUE(iso8601_to_posix_time(POSIX_Time_To_ISO8601(1795243260), back));
    EXPECT_EQ(1795243260, back);
}

} // namespace
