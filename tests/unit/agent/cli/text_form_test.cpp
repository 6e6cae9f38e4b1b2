#include "agent/cli/text_form.h"

#include "tests/support/scoped_env.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

TEST(Text_Form, sizes_in_steps_of_1024) {
    EXPECT_EQ("0 B", size_text(0));
    EXPECT_EQ("1023 B", size_text(1023));
    EXPECT_EQ("1.0 KiB", size_text(1024));
    EXPECT_EQ("1.5 KiB", size_text(1536));
    EXPECT_EQ("99.9 KiB", size_text(1024 * 100 - 1));
    EXPECT_EQ("100 KiB", size_text(1024 * 100));
    EXPECT_EQ("1023 KiB", size_text(1024 * 1024 - 1));
    EXPECT_EQ("2.0 TiB", size_text(uint64_t{2} << 40));
    EXPECT_EQ("15.9 EiB", size_text(std::numeric_limits<uint64_t>::max()));
}

TEST(Text_Form, times_are_local) {
    Scoped_Env const zone("TZ", "Asia/Shanghai");
    tzset();
    EXPECT_EQ("2026-11-22 02:30:00+08:00", time_text(1795285800));
    EXPECT_EQ("-", time_text(0));
    EXPECT_EQ("-", time_text(std::numeric_limits<time_t>::max()));
    Scoped_Env const utc("TZ", "UTC");
    tzset();
    EXPECT_EQ("2026-11-21 18:30:00Z", time_text(1795285800));
    Scoped_Env const west("TZ", "America/St_Johns");
    tzset();
    EXPECT_EQ("2026-11-21 15:00:00-03:30", time_text(1795285800));
    EXPECT_EQ("2026-07-01 09:30:00-02:30", time_text(1782907200)) << "in summer";
}

TEST(Text_Form, durations) {
    EXPECT_EQ("0:00", duration_text(-5));
    EXPECT_EQ("0:07", duration_text(7));
    EXPECT_EQ("59:59", duration_text(3599));
    EXPECT_EQ("1:00:00", duration_text(3600));
    EXPECT_EQ("2d 3:05:09", duration_text(2 * 86400 + 3 * 3600 + 5 * 60 + 9));
}

TEST(Text_Form, sizes_that_people_write) {
    uint64_t bytes = 0;
    auto const read = [&](char const* text) { return read_size(text, bytes) ? bytes : 1; };
    EXPECT_EQ(0u, read("0"));
    EXPECT_EQ(1073741824u, read("1073741824"));
    EXPECT_EQ(uint64_t{1} << 30, read("1GiB"));
    EXPECT_EQ(uint64_t{3} << 29, read("1.5 g"));
    EXPECT_EQ(512u * 1024, read("512K"));
    EXPECT_EQ(uint64_t{2} << 40, read("2 TB"));
    EXPECT_EQ(7u, read("7 B"));
}

TEST(Text_Form, what_is_no_size) {
    uint64_t bytes = 42;
    for (char const* text : {"", "G", "-1", "1X", "1 KK", "1e3", "nan", "inf", "9 E", "0x10",
                             "1GiBB", "99999999999999999999", " 1"})
        EXPECT_FALSE(read_size(text, bytes)) << text;
    EXPECT_EQ(42u, bytes);
}

TEST(Text_Form, values_by_their_form) {
    EXPECT_EQ("1.0 KiB", value_text(1024, Form::SIZE));
    EXPECT_EQ("1.0 KiB/s", value_text(1024, Form::SPEED));
    EXPECT_EQ("-", value_text(0, Form::LIMIT));
    EXPECT_EQ("0 B", value_text(0, Form::SIZE));
    EXPECT_EQ("42%", value_text(42, Form::PERCENT));
    EXPECT_EQ("42%", value_text(42.9, Form::PERCENT));
    EXPECT_EQ("6f9619ff", value_text("6f9619ff-8b86-d011", Form::SHORT_ID));
    EXPECT_EQ("yes", value_text(true));
    EXPECT_EQ("no", value_text(false, Form::YES_NO));
    EXPECT_EQ("12", value_text(12));
}

TEST(Text_Form, values_of_another_kind_than_their_form) {
    EXPECT_EQ("-", value_text(Value(), Form::SIZE));
    EXPECT_EQ("big", value_text("big", Form::SIZE));
    EXPECT_EQ("-", value_text(""));
    EXPECT_EQ("1 B, 2 B", value_text(Array{1, 2}, Form::SIZE));
    EXPECT_EQ("a=\\n", value_text(Object{{"a", "\n"}}));
    EXPECT_EQ("a=1, b=x, y", value_text(Object{{"a", 1}, {"b", Array{"x", "y"}}}));
    EXPECT_EQ("-", value_text(Array{}));
    EXPECT_EQ("-", value_text(Object{}));
    EXPECT_THAT(value_lines(Object{{"a", 1}, {"b", "x"}}), testing::ElementsAre("a=1", "b=x"));
    EXPECT_THAT(value_lines(Array{Object{{"a", 1}, {"b", 2}}, Object{{"a", 3}}}),
                testing::ElementsAre("a=1, b=2", "a=3"));
    EXPECT_THAT(value_lines(Array{"x", "y"}), testing::ElementsAre("x, y"));
    EXPECT_THAT(value_lines(Value(1024), Form::SIZE), testing::ElementsAre("1.0 KiB"));
    EXPECT_THAT(value_lines(Object{}), testing::ElementsAre("-"));
    EXPECT_EQ("0 B", value_text(-1, Form::SIZE));
    EXPECT_EQ("18446744073709551615", value_text(std::numeric_limits<uint64_t>::max(), Form::SIZE));
    EXPECT_EQ("1e+300", value_text(1e300, Form::SIZE));
    EXPECT_EQ("\\x1b[31m", value_text("\x1b[31m"));
}

TEST(Text_Form, numbers_under_a_key) {
    Object const object{{"a", 5}, {"b", "5"}, {"c", 5.9}, {"d", 1e300}};
    EXPECT_EQ(5, number_of(object, "a"));
    EXPECT_EQ(7, number_of(object, "b", 7));
    EXPECT_EQ(5, number_of(object, "c"));
    EXPECT_EQ(0, number_of(object, "d"));
    EXPECT_EQ(-1, number_of(object, "e", -1));
}

} // namespace
