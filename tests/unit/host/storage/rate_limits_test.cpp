#include "host/storage/rate_limits.h"

#include "json_spirit/access.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

constexpr int at(int hour, int minute = 0) {
    return hour * 60 + minute;
}

Rate_Control_Entry entry(char const* text) {
    Rate_Control_Entry result;
    EXPECT_TRUE(Rate_Control_Entry::from_string(text, result)) << text;
    return result;
}

TEST(rate_control_entry, texts_read_back_as_they_were_written) {
    for (char const* text : {"0", "1", "10485760", "18446744073709551615", "08:00-18:00=1048576",
                             "22:00-06:00=0", "00:00-24:00=7", "23:59-00:00=1"})
        EXPECT_EQ(text, entry(text).to_string());
}

TEST(rate_control_entry, refuses_what_is_no_limit_and_changes_nothing) {
    for (char const* text : {"",
                             "x",
                             "-1",
                             "+1",
                             "1 ",
                             " 1",
                             "1k",
                             "1.5",
                             "=5",
                             "08:00=5",
                             "08:00-=5",
                             "8:00-9:00=5",
                             "08:00-25:00=5",
                             "08:60-09:00=5",
                             "24:00-08:00=5",
                             "08:00-08:00=5",
                             "08:00-18:00=",
                             "08:00-18:00=x",
                             "08:00-18:00 5",
                             "08:00-18:00=5=6",
                             "18446744073709551616",
                             "08-00:18:00=5",
                             "ab:cd-ef:gh=5"}) {
        Rate_Control_Entry kept{42, 1, 2};
        EXPECT_FALSE(Rate_Control_Entry::from_string(text, kept)) << text;
        EXPECT_EQ(42u, kept.bytes_per_second);
        EXPECT_EQ(1, kept.begin);
        EXPECT_EQ(2, kept.end);
    }
    Rate_Control_Entry kept;
    EXPECT_FALSE(Rate_Control_Entry::from_string(std::string_view("1\0", 2), kept));
}

TEST(rate_control_entry, without_a_window_it_holds_all_day) {
    for (int minute : {0, at(12), at(23, 59)})
        EXPECT_TRUE(entry("5").applies(minute));
}

TEST(rate_control_entry, a_window_begins_with_its_first_minute_and_ends_before_its_last) {
    Rate_Control_Entry const day = entry("08:00-18:00=5");
    EXPECT_FALSE(day.applies(at(7, 59)));
    EXPECT_TRUE(day.applies(at(8)));
    EXPECT_TRUE(day.applies(at(17, 59)));
    EXPECT_FALSE(day.applies(at(18)));
    EXPECT_TRUE(entry("00:00-24:00=5").applies(at(23, 59)));
}

TEST(rate_control_entry, a_window_may_run_over_midnight) {
    Rate_Control_Entry const night = entry("22:00-06:00=5");
    EXPECT_TRUE(night.applies(at(22)));
    EXPECT_TRUE(night.applies(0));
    EXPECT_TRUE(night.applies(at(5, 59)));
    EXPECT_FALSE(night.applies(at(6)));
    EXPECT_FALSE(night.applies(at(21, 59)));
}

TEST(rate_at, the_first_entry_that_applies_counts) {
    Rate_Control_Entries const entries{entry("22:00-06:00=0"), entry("08:00-18:00=10"),
                                       entry("20")};
    EXPECT_EQ(0u, rate_at(entries, at(23)));
    EXPECT_EQ(10u, rate_at(entries, at(9)));
    EXPECT_EQ(20u, rate_at(entries, at(19)));
}

TEST(rate_at, nothing_that_applies_is_no_limit) {
    EXPECT_EQ(0u, rate_at({}, at(9)));
    EXPECT_EQ(0u, rate_at({entry("08:00-09:00=10")}, at(9)));
}

TEST(rate_entries, join_by_the_separator) {
    EXPECT_EQ("", rate_entries_to_string({}, ';'));
    EXPECT_EQ("5", rate_entries_to_string({entry("5")}, ';'));
    EXPECT_EQ("22:00-06:00=0;5", rate_entries_to_string({entry("22:00-06:00=0"), entry("5")}, ';'));
}

TEST(rate_entries, one_bad_text_refuses_the_list) {
    for (char const* text : {"5;", ";5", ";", "5;;6", "5;x", "5,6"}) {
        Rate_Control_Entries kept{entry("42")};
        EXPECT_FALSE(rate_entries_from_string(text, ';', kept)) << text;
        ASSERT_EQ(1u, kept.size());
        EXPECT_EQ(42u, kept[0].bytes_per_second);
    }
    Rate_Control_Entries read;
    EXPECT_TRUE(rate_entries_from_string("22:00-06:00=0,5", ',', read));
    EXPECT_EQ("22:00-06:00=0;5", rate_entries_to_string(read, ';'));
    EXPECT_TRUE(rate_entries_from_string("", ';', read));
    EXPECT_TRUE(read.empty());
}

TEST(rate_limits, travel_in_an_object_under_their_keys) {
    Rate_Limits limits;
    limits.dest = {entry("08:00-18:00=5"), entry("6")};
    limits.src = {entry("7")};
    json_spirit::Object object;
    limits.to_string_in_object(object, ';', false);
    EXPECT_EQ("08:00-18:00=5;6", json_spirit::object_get_str(object, Rate_Limits::dest_key));
    EXPECT_EQ("7", json_spirit::object_get_str(object, Rate_Limits::src_key));

    Rate_Limits read;
    EXPECT_TRUE(read.from_string_in_object(object, ';'));
    EXPECT_EQ("08:00-18:00=5;6", rate_entries_to_string(read.dest, ';'));
    EXPECT_EQ("7", rate_entries_to_string(read.src, ';'));
}

TEST(rate_limits, empty_lists_are_empty_texts_unless_they_are_to_be_left_out) {
    json_spirit::Object kept;
    Rate_Limits().to_string_in_object(kept, ';', false);
    ASSERT_EQ(2u, kept.size());
    EXPECT_EQ("", kept[Rate_Limits::dest_key].get_str());
    EXPECT_EQ("", kept[Rate_Limits::src_key].get_str());
    Rate_Limits read;
    EXPECT_TRUE(read.from_string_in_object(kept, ';'));

    json_spirit::Object skipped;
    Rate_Limits().to_string_in_object(skipped, ';', true);
    EXPECT_TRUE(skipped.empty());
}

TEST(rate_limits, absent_keys_give_no_limits) {
    Rate_Limits limits;
    limits.dest = limits.src = {entry("5")};
    EXPECT_TRUE(limits.from_string_in_object({}, ';'));
    EXPECT_TRUE(limits.dest.empty());
    EXPECT_TRUE(limits.src.empty());
}

TEST(rate_limits, a_bad_value_changes_nothing) {
    for (json_spirit::Value const& bad : {json_spirit::Value("x"), json_spirit::Value(5),
                                          json_spirit::Value(), json_spirit::Value("5;")}) {
        Rate_Limits limits;
        limits.dest = limits.src = {entry("42")};
        json_spirit::Object object;
        json_spirit::insert(object)(Rate_Limits::dest_key, "7")(Rate_Limits::src_key, bad);
        EXPECT_FALSE(limits.from_string_in_object(object, ';'));
        EXPECT_EQ("42", rate_entries_to_string(limits.dest, ';'));
        EXPECT_EQ("42", rate_entries_to_string(limits.src, ';'));
    }
}

TEST(rate_limits, channels_share_each_limit) {
    Rate_Limits limits;
    limits.dest = {entry("08:00-18:00=100"), entry("0")};
    limits.src = {entry("3")};
    limits.set_rate_limits_by_channels(4);
    EXPECT_EQ("08:00-18:00=25;0", rate_entries_to_string(limits.dest, ';'));
    EXPECT_EQ("1", rate_entries_to_string(limits.src, ';')); // never down to no limit at all
}

TEST(rate_limits, no_channel_counts_as_one) {
    Rate_Limits limits;
    limits.dest = {entry("100")};
    limits.set_rate_limits_by_channels(0);
    limits.set_rate_limits_by_channels(1);
    EXPECT_EQ("100", rate_entries_to_string(limits.dest, ';'));
}

} // namespace
