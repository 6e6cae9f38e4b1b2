#include "qmrt/scoped_deleter.h"

#include <gtest/gtest.h>

namespace {

TEST(Scoped_Deleter, runs_at_the_end_of_the_scope) {
    int runs = 0;
    {
        Scoped_Deleter guard([&] { ++runs; });
        EXPECT_EQ(0, runs);
    }
    EXPECT_EQ(1, runs);
}

TEST(Scoped_Deleter, released_it_does_not_run) {
    int runs = 0;
    {
        Scoped_Deleter guard([&] { ++runs; });
        guard.release();
    }
    EXPECT_EQ(0, runs);
}

} // namespace
