#include "qmrt/natoi.h"

#include <gtest/gtest.h>

namespace {

TEST(natoi, digits_up_to_the_first_other_character) {
    EXPECT_EQ(42, natoi<int>("42"));
    EXPECT_EQ(42, natoi<int>("42abc"));
    EXPECT_EQ(42, natoi<int>("42.9"));
    EXPECT_EQ(-42, natoi<int>("-42"));
    EXPECT_EQ(42, natoi<int>("+42"));
    EXPECT_EQ(7, natoi<int>("0007"));
}

TEST(natoi, no_digits_is_zero) {
    for (char const* text : {"", "abc", "-", "+", " 1", "--1", "+-1"})
        EXPECT_EQ(0, natoi<int>(text)) << text;
    EXPECT_EQ(0, natoi<int>(nullptr, 0));
}

TEST(natoi, beyond_the_range_is_the_largest_and_erange) {
    errno = 0;
    EXPECT_EQ(65535, natoi<uint16_t>("65536"));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(65535, natoi<uint16_t>("99999999999999999999999999"));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(65535, natoi<uint16_t>("-1"));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(INT32_MAX, natoi<int32_t>("2147483648"));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(INT32_MAX, natoi<int32_t>("-2147483649"));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(UINT64_MAX, natoi<uint64_t>("18446744073709551616"));
    EXPECT_EQ(ERANGE, errno);
    EXPECT_EQ(INT64_MAX, natoi<int64_t>("9223372036854775808"));
    EXPECT_EQ(ERANGE, errno);
}

TEST(natoi, the_ends_of_a_range_are_legal) {
    errno = ERANGE;
    EXPECT_EQ(65535, natoi<uint16_t>("65535"));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(INT32_MIN, natoi<int32_t>("-2147483648"));
    EXPECT_EQ(INT64_MIN, natoi<int64_t>("-9223372036854775808"));
    EXPECT_EQ(INT64_MAX, natoi<int64_t>("9223372036854775807"));
    EXPECT_EQ(UINT64_MAX, natoi<uint64_t>("18446744073709551615"));
    EXPECT_EQ(-128, natoi<int8_t>("-128"));
    EXPECT_EQ(0u, natoi<unsigned>("-0"));
    EXPECT_EQ(0, errno);
}

TEST(natoi, the_length_bounds_the_text) {
    EXPECT_EQ(12, natoi<int>("12345", 2));
}

} // namespace
