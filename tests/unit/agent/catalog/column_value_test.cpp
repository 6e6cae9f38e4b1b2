#include "agent/catalog/column_value.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Value;

bool less(Value const& left, Value const& right) {
    return is_less(column_value(left), column_value(right));
}

TEST(Column_Value, nulls_come_first_then_numbers_then_texts) {
    EXPECT_TRUE(less(Value(), INT64_MIN));
    EXPECT_TRUE(less(UINT64_MAX, "zz") || less("zz", UINT64_MAX)); // one of them, always the same
    EXPECT_TRUE(less(5, "-1"));
    EXPECT_FALSE(less(Value(), Value()));
    EXPECT_FALSE(less("a", Value()));
}

TEST(Column_Value, numbers_are_in_order_over_the_whole_range_of_both_kinds) {
    EXPECT_TRUE(less(9, 10));
    EXPECT_TRUE(less(INT64_MIN, INT64_MIN + 1));
    EXPECT_TRUE(less(INT64_MAX - 1, INT64_MAX));
    EXPECT_TRUE(less(INT64_MAX, uint64_t{1} << 63));
    EXPECT_TRUE(less(uint64_t{1} << 63, UINT64_MAX));
    EXPECT_TRUE(less(UINT64_MAX - 1, UINT64_MAX));
    EXPECT_TRUE(less(1, 1.5));
    EXPECT_TRUE(less(1.5, 2));
}

TEST(Column_Value, texts_are_compared_byte_by_byte) {
    EXPECT_TRUE(less("B", "a"));
    EXPECT_TRUE(less("a", "aa"));
    EXPECT_TRUE(less("z", "\xc3\xa9"));
    EXPECT_TRUE(less(std::string("a\0a", 3), std::string("a\0b", 3)));
}

} // namespace
