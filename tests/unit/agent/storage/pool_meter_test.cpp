#include "agent/storage/pool_meter.h"

#include "tests/support/temporary_directory.h"
#include "tests/support/virtual_clock.h"

#include <gtest/gtest.h>

namespace {

class Pool_Meter_Test : public testing::Test {
protected:
    Temporary_Directory directory_;
    Virtual_Clock clock_;
    Pool_Meter meter_{directory_.path(), clock_};
};

TEST_F(Pool_Meter_Test, counts_objects_and_neither_links_nor_what_is_unfinished) {
    directory_.write("a", "12345");
    directory_.write("f/g/b", "123");
    directory_.write("f/.zenbrak3-x", "1234567");
    std::filesystem::create_symlink(directory_.path("a"), directory_.path("link"));
    std::filesystem::create_directory_symlink("/usr", directory_.path("f/usr"));
    EXPECT_EQ(8u, meter_.used());
}

TEST_F(Pool_Meter_Test, what_is_booked_counts_until_it_is_given_back_or_committed) {
    EXPECT_TRUE(meter_.book(60, 100));
    EXPECT_TRUE(meter_.book(40, 100));
    EXPECT_FALSE(meter_.book(1, 100));
    meter_.give_back(40);
    EXPECT_TRUE(meter_.book(20, 100));
    meter_.committed(60, 0);
    EXPECT_EQ(80u, meter_.used());
    meter_.committed(20, 60);
    EXPECT_EQ(20u, meter_.used());
    meter_.removed(20);
    EXPECT_EQ(0u, meter_.used());
    EXPECT_TRUE(meter_.book(100, 100));
    EXPECT_FALSE(meter_.book(UINT64_MAX, 100));
    EXPECT_TRUE(meter_.book(UINT64_MAX / 2, 0)) << "no limit";
}

TEST_F(Pool_Meter_Test, what_others_write_is_seen_when_the_count_is_old) {
    directory_.write("a", "12345");
    EXPECT_EQ(5u, meter_.used());
    directory_.write("theirs", "123");
    clock_.sleep_ns(Pool_Meter::RECOUNT_SECONDS * NS_PER_SECOND - 1);
    EXPECT_EQ(5u, meter_.used());
    clock_.sleep_ns(2);
    EXPECT_EQ(8u, meter_.used());
    EXPECT_FALSE(meter_.book(93, 100));
}

TEST_F(Pool_Meter_Test, what_others_are_writing_is_told_at_once_to_who_asks_for_it) {
    directory_.write("a", "12345");
    EXPECT_EQ(5u, meter_.taken());
    directory_.write("f/.zenbrak3-theirs", "123");
    EXPECT_EQ(8u, meter_.taken());
    EXPECT_EQ(5u, meter_.used());
}

TEST_F(Pool_Meter_Test, a_directory_that_is_not_there_takes_nothing) {
    Pool_Meter meter(directory_.path("missing"), clock_);
    EXPECT_EQ(0u, meter.used());
}

} // namespace
