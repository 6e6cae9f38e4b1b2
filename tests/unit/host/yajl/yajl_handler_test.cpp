#include "host/yajl/yajl_handler.h"

#include <climits>
#include <cmath>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

TEST(YAJL_Handler, accepts_everything) {
    YAJL_Handler handler;
    EXPECT_TRUE(handler.handle_boolean_i(true));
    EXPECT_TRUE(handler.handle_integer_i(1));
    EXPECT_TRUE(handler.handle_double_i(0.5));
    EXPECT_TRUE(handler.handle_number_i("1", 1));
    EXPECT_TRUE(handler.handle_number_i("1e999", 5));
    EXPECT_TRUE(handler.handle_string_i("x", 1));
    EXPECT_TRUE(handler.handle_string_i(nullptr, 0));
    EXPECT_TRUE(handler.handle_start_map_i());
    EXPECT_TRUE(handler.handle_map_key_i("k", 1));
    EXPECT_TRUE(handler.handle_end_map_i());
    EXPECT_TRUE(handler.handle_start_array_i());
    EXPECT_TRUE(handler.handle_end_array_i());
    EXPECT_TRUE(handler.handle_null_i());
}

struct Numbers : YAJL_Handler {
    std::vector<long long> whole;
    std::vector<double> real;
    bool handle_integer_i(long long value) override {
        whole.push_back(value);
        return value != 7;
    }
    bool handle_double_i(double value) override {
        real.push_back(value);
        return value != 7.5;
    }
    bool number(std::string const& text) { return handle_number_i(text.data(), text.size()); }
};

TEST(YAJL_Handler, whole_numbers_of_the_range_go_to_the_integers) {
    Numbers numbers;
    for (char const* text : {"0", "-0", "9223372036854775807", "-9223372036854775808"})
        EXPECT_TRUE(numbers.number(text));
    EXPECT_EQ((std::vector<long long>{0, 0, LLONG_MAX, LLONG_MIN}), numbers.whole);
    EXPECT_TRUE(numbers.real.empty());
}

TEST(YAJL_Handler, other_numbers_go_to_the_doubles) {
    Numbers numbers;
    for (char const* text : {"1.0", "-2.5e3", "9223372036854775808", "1e999", "-1e999", "1e-999"})
        EXPECT_TRUE(numbers.number(text));
    EXPECT_TRUE(numbers.whole.empty());
    EXPECT_EQ((std::vector<double>{1, -2500, 9223372036854775808.0, HUGE_VAL, -HUGE_VAL, 0}),
              numbers.real);
}

TEST(YAJL_Handler, what_they_return_is_returned) {
    Numbers numbers;
    EXPECT_FALSE(numbers.number("7"));
    EXPECT_FALSE(numbers.number("7.5"));
}

} // namespace
