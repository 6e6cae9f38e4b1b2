#include "agent/jobs/job_schedule_text.h"

#include "tests/support/log_capture.h"
#include "tests/support/scoped_env.h"

#include <gtest/gtest.h>

namespace {

/** Local time means that of Berlin: clocks go forward on 2026-03-29, back on 2026-10-25. */
class Job_Schedule_Text_Test : public testing::Test {
protected:
    explicit Job_Schedule_Text_Test(char const* zone = "Europe/Berlin") : zone_("TZ", zone) {
        tzset();
    }

    static Job_Schedule_Text schedule(char const* type, char const* at) {
        Job_Schedule_Text result;
        std::string error;
        EXPECT_TRUE(Job_Schedule_Text::parse(type, at, result, error)) << error;
        return result;
    }
    static std::string refusal(char const* type, std::string const& at) {
        Job_Schedule_Text result;
        std::string error;
        EXPECT_FALSE(Job_Schedule_Text::parse(type, at, result, error)) << at;
        EXPECT_EQ(Job_Schedule::TYPE_NONE, result.type()) << "changed by a refused text";
        return error;
    }
    /** From "2026-03-29T01:59:00+0100". */
    static time_t at(char const* text) {
        tm fields{};
        char const* const end = strptime(text, "%Y-%m-%dT%H:%M:%S%z", &fields);
        EXPECT_TRUE(end && !*end) << text;
        long const offset = fields.tm_gmtoff;
        return timegm(&fields) - offset;
    }
    static std::string show(time_t time) {
        if (!time)
            return "never";
        tm fields{};
        localtime_r(&time, &fields);
        char text[64];
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &fields);
        return text;
    }
    static std::string next(char const* cron, char const* after) {
        return show(schedule("daily", cron).next_run(at(after)));
    }

private:
    Scoped_Env const zone_;
};

class Job_Schedule_Half_Hour_Test : public Job_Schedule_Text_Test {
protected:
    Job_Schedule_Half_Hour_Test() : Job_Schedule_Text_Test("Australia/Lord_Howe") {}
};

TEST_F(Job_Schedule_Text_Test, comes_daily) {
    EXPECT_EQ("2026-01-10T02:30:00+0100", next("30 2 * * *", "2026-01-10T00:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, comes_later_than_the_time_given_never_at_it) {
    EXPECT_EQ("2026-01-11T02:30:00+0100", next("30 2 * * *", "2026-01-10T02:30:00+0100"));
    EXPECT_EQ("2026-01-11T02:30:00+0100", next("30 2 * * *", "2026-01-10T02:30:59+0100"));
    EXPECT_EQ("2026-01-10T02:30:00+0100", next("30 2 * * *", "2026-01-10T02:29:59+0100"));
}

TEST_F(Job_Schedule_Text_Test, comes_on_weekdays_only) {
    // 2026-01-09 is a Friday
    EXPECT_EQ("2026-01-12T02:30:00+0100", next("30 2 * * 1-5", "2026-01-09T03:00:00+0100"));
    EXPECT_EQ("2026-01-12T02:30:00+0100", next("30 2 * * mon-FRI", "2026-01-09T03:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, knows_Sunday_as_0_as_7_and_by_name) {
    for (char const* text : {"0 1 * * 0", "0 1 * * 7", "0 1 * * sun", "0 1 * * 7-7"})
        EXPECT_EQ("2026-01-11T01:00:00+0100", next(text, "2026-01-09T03:00:00+0100")) << text;
    EXPECT_EQ("2026-01-11T01:00:00+0100", next("0 1 * * sat-7", "2026-01-10T03:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, takes_a_day_that_fits_either_restriction) {
    // the 15th is a Thursday; Monday is the 12th
    EXPECT_EQ("2026-01-12T00:00:00+0100", next("0 0 15 * mon", "2026-01-10T00:00:00+0100"));
    EXPECT_EQ("2026-01-15T00:00:00+0100", next("0 0 15 * mon", "2026-01-12T00:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, wants_both_when_one_of_them_begins_with_a_star) {
    // odd days that are Mondays: 12 is even, 19 is odd
    EXPECT_EQ("2026-01-19T00:00:00+0100", next("0 0 */2 * mon", "2026-01-10T00:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, takes_lists_ranges_and_steps) {
    EXPECT_EQ("2026-01-10T08:05:00+0100", next("5,10-20/5 8 * * *", "2026-01-10T00:00:00+0100"));
    EXPECT_EQ("2026-01-10T08:10:00+0100", next("5,10-20/5 8 * * *", "2026-01-10T08:05:00+0100"));
    EXPECT_EQ("2026-01-10T08:15:00+0100", next("5,10-20/5 8 * * *", "2026-01-10T08:10:00+0100"));
    EXPECT_EQ("2026-01-11T08:05:00+0100", next("5,10-20/5 8 * * *", "2026-01-10T08:20:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, steps_begin_anew_each_hour) {
    EXPECT_EQ("2026-01-10T08:56:00+0100", next("*/7 * * * *", "2026-01-10T08:49:00+0100"));
    EXPECT_EQ("2026-01-10T09:00:00+0100", next("*/7 * * * *", "2026-01-10T08:56:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, passes_over_months_without_a_31st) {
    EXPECT_EQ("2026-03-31T00:00:00+0200", next("0 0 31 * *", "2026-01-31T00:00:00+0100"));
    EXPECT_EQ("2026-05-31T00:00:00+0200", next("0 0 31 * *", "2026-03-31T00:00:00+0200"));
}

TEST_F(Job_Schedule_Text_Test, waits_for_the_29th_of_February) {
    EXPECT_EQ("2028-02-29T12:00:00+0100", next("0 12 29 feb *", "2026-03-01T00:00:00+0100"));
    EXPECT_EQ("2032-02-29T12:00:00+0100", next("0 12 29 2 *", "2028-02-29T12:00:00+0100"));
    // 2100 is no leap year
    EXPECT_EQ("2104-02-29T12:00:00+0100", next("0 12 29 2 *", "2096-03-01T00:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, waits_for_a_first_of_February_on_a_Sunday) {
    EXPECT_EQ("2032-02-01T12:00:00+0100", next("0 12 */31 2 */7", "2026-02-02T00:00:00+0100"));
    EXPECT_EQ("2105-02-01T12:00:00+0100", next("0 12 */31 2 */7", "2099-02-02T00:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, crosses_the_end_of_a_year) {
    EXPECT_EQ("2027-01-01T00:00:00+0100", next("0 0 1 jan *", "2026-01-01T00:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, a_fixed_time_that_the_clocks_pass_over_comes_when_they_do) {
    EXPECT_EQ("2026-03-29T03:00:00+0200", next("30 2 * * *", "2026-03-28T02:30:00+0100"));
    EXPECT_EQ("2026-03-30T02:30:00+0200", next("30 2 * * *", "2026-03-29T03:00:00+0200"));
}

TEST_F(Job_Schedule_Text_Test, several_times_that_the_clocks_pass_over_come_once) {
    EXPECT_EQ("2026-03-29T03:00:00+0200", next("*/10 2 * * *", "2026-03-28T02:50:00+0100"));
    EXPECT_EQ("2026-03-30T02:00:00+0200", next("*/10 2 * * *", "2026-03-29T03:00:00+0200"));
}

TEST_F(Job_Schedule_Text_Test, a_time_passed_over_on_a_day_that_does_not_fit_is_not_made_up_for) {
    // 2026-03-29 is a Sunday
    EXPECT_EQ("2026-03-30T02:30:00+0200", next("30 2 * * 1-5", "2026-03-28T02:30:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, a_fixed_time_that_the_clocks_show_twice_comes_the_first_time) {
    EXPECT_EQ("2026-10-25T02:30:00+0200", next("30 2 * * *", "2026-10-24T02:30:00+0200"));
    EXPECT_EQ("2026-10-26T02:30:00+0100", next("30 2 * * *", "2026-10-25T02:30:00+0200"));
}

TEST_F(Job_Schedule_Text_Test, an_hourly_time_comes_as_often_as_the_clocks_show_it) {
    EXPECT_EQ("2026-10-25T02:15:00+0200", next("15 * * * *", "2026-10-25T01:15:00+0200"));
    EXPECT_EQ("2026-10-25T02:15:00+0100", next("15 * * * *", "2026-10-25T02:15:00+0200"));
    EXPECT_EQ("2026-10-25T03:15:00+0100", next("15 * * * *", "2026-10-25T02:15:00+0100"));
    EXPECT_EQ("2026-03-29T03:15:00+0200", next("15 * * * *", "2026-03-29T01:15:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, midnight_is_found_on_days_of_23_and_25_hours) {
    EXPECT_EQ("2026-03-30T00:30:00+0200", next("30 0 * * *", "2026-03-29T00:30:00+0100"));
    EXPECT_EQ("2026-10-26T00:30:00+0100", next("30 0 * * *", "2026-10-25T00:30:00+0200"));
}

TEST_F(Job_Schedule_Half_Hour_Test, changes_of_half_an_hour_are_minded) {
    // back on 2026-04-05 from 02:00 to 01:30, forward on 2026-10-04 from 02:00 to 02:30
    EXPECT_EQ("2026-04-05T01:45:00+1100", next("45 1 * * *", "2026-04-04T01:45:00+1100"));
    EXPECT_EQ("2026-04-06T01:45:00+1030", next("45 1 * * *", "2026-04-05T01:45:00+1100"));
    EXPECT_EQ("2026-10-04T02:30:00+1100", next("15 2 * * *", "2026-10-03T02:15:00+1030"));
}

TEST_F(Job_Schedule_Text_Test, hourly_is_a_minute) {
    Job_Schedule_Text const hourly = schedule("hourly", "15");
    EXPECT_EQ(Job_Schedule::TYPE_HOURLY, hourly.type());
    EXPECT_EQ("2026-01-10T09:15:00+0100", show(hourly.next_run(at("2026-01-10T08:15:00+0100"))));
    for (char const* text : {"", "60", "-1", "*", "1,2", "15 "})
        EXPECT_NE("", refusal("hourly", text));
}

TEST_F(Job_Schedule_Text_Test, once_comes_once) {
    Job_Schedule_Text const once = schedule("once", "2026-11-22 02:30");
    EXPECT_EQ("2026-11-22T02:30:00+0100", show(once.next_run(at("2026-01-10T00:00:00+0100"))));
    EXPECT_EQ("2026-11-22T02:30:00+0100", show(once.next_run(at("2026-11-22T02:29:59+0100"))));
    EXPECT_EQ("never", show(once.next_run(at("2026-11-22T02:30:00+0100"))));
    EXPECT_EQ("never", show(once.next_run(at("2036-11-22T02:30:00+0100"))));
}

TEST_F(Job_Schedule_Text_Test, once_at_a_time_that_the_clocks_pass_over_or_show_twice) {
    time_t const after = at("2026-01-10T00:00:00+0100");
    EXPECT_EQ("2026-03-29T03:00:00+0200",
              show(schedule("once", "2026-03-29 02:30").next_run(after)));
    Job_Schedule_Text const twice = schedule("once", "2026-10-25 02:30");
    EXPECT_EQ("2026-10-25T02:30:00+0200", show(twice.next_run(after)));
    EXPECT_EQ("never", show(twice.next_run(at("2026-10-25T02:30:00+0200"))));
}

TEST_F(Job_Schedule_Text_Test, once_refuses_what_is_no_time) {
    for (char const* text : {"", "2026-11-22", "2026-02-30 02:30", "2026-13-01 00:00",
                             "2026-11-22 24:00", "2026-11-22 02:30 ", "1926-11-22 02:30", "now"})
        EXPECT_NE(std::string::npos, refusal("once", text).find("is not a time")) << text;
}

TEST_F(Job_Schedule_Text_Test, continuous_counts_from_the_end_of_the_last_run) {
    EXPECT_EQ(1060, schedule("continuous", "60").next_run(1000));
    for (char const* text : {"", "0", "-5", "1.5", "31622401", "99999999999999999999"})
        EXPECT_NE("", refusal("continuous", text));
}

TEST_F(Job_Schedule_Text_Test, none_and_ondemand_never_come) {
    EXPECT_EQ(0, schedule("none", "").next_run(1000));
    EXPECT_EQ(0, schedule("ondemand", "").next_run(1000));
    EXPECT_EQ("a schedule of type ondemand has no time", refusal("ondemand", "5"));
}

TEST_F(Job_Schedule_Text_Test, says_which_field_is_wrong) {
    EXPECT_EQ("\"60\" is not a valid minute", refusal("daily", "60 * * * *"));
    EXPECT_EQ("\"24\" is not a valid hour", refusal("daily", "0 24 * * *"));
    EXPECT_EQ("\"0\" is not a valid day of the month", refusal("monthly", "0 0 0 * *"));
    EXPECT_EQ("\"13\" is not a valid month", refusal("monthly", "0 0 1 13 *"));
    EXPECT_EQ("\"8\" is not a valid day of the week", refusal("weekly", "0 0 * * 8"));
    EXPECT_EQ("\"5-1\" is not a valid day of the week", refusal("weekly", "0 0 * * 5-1"));
}

TEST_F(Job_Schedule_Text_Test, refuses_what_is_no_field) {
    for (char const* minute : {"*/0", "*/", "/5", "5/10", "1-", "-1", "1-2-3", "1,,2", ",", "a",
                               "1.5", "+1", "*/60", "*5", "**", "0x1", "9999999999", "1/2/3"})
        EXPECT_NE("", refusal("daily", std::string(minute) + " * * * *"));
}

TEST_F(Job_Schedule_Text_Test, refuses_too_few_fields_and_too_many) {
    for (char const* text : {"", " ", "0 0 * *", "0 0 * * * *", "@daily"})
        EXPECT_NE(std::string::npos, refusal("daily", text).find("needs five fields"));
}

TEST_F(Job_Schedule_Text_Test, refuses_a_date_that_never_comes) {
    EXPECT_NE(std::string::npos, refusal("monthly", "0 0 31 feb,jun *").find("never happens"));
    EXPECT_NE(std::string::npos, refusal("monthly", "0 0 30 2 *").find("never happens"));
    // here Mondays do
    EXPECT_EQ("2026-02-02T00:00:00+0100", next("0 0 30 2 mon", "2026-01-10T00:00:00+0100"));
}

TEST_F(Job_Schedule_Text_Test, refuses_an_unknown_type) {
    EXPECT_NE(std::string::npos, refusal("yearly", "").find("\"yearly\" is not a type"));
}

TEST_F(Job_Schedule_Text_Test, a_huge_text_is_refused_and_nothing_else) {
    EXPECT_NE("", refusal("daily", std::string(1 << 20, '*') + " * * * *"));
}

TEST_F(Job_Schedule_Text_Test, names_every_type_as_it_is_written) {
    EXPECT_STREQ("none", Job_Schedule_Text::type_name(Job_Schedule::TYPE_NONE));
    EXPECT_STREQ("ondemand", Job_Schedule_Text::type_name(Job_Schedule::TYPE_ONDEMAND));
    EXPECT_STREQ("", Job_Schedule_Text::type_name(static_cast<Job_Schedule::Type>(8)));
}

/** Times in the manner of systemd. */
class Calendar_Text_Test : public Job_Schedule_Text_Test {
protected:
    /** After 2026-01-09, a Friday, at 12:00. */
    static std::string coming(char const* text, char const* after = "2026-01-09T12:00:00+0100") {
        return show(schedule("calendar", text).next_run(at(after)));
    }
};

TEST_F(Calendar_Text_Test, a_time_alone_comes_daily) {
    EXPECT_EQ("2026-01-10T02:00:00+0100", coming("02:00"));
    EXPECT_EQ("2026-01-10T02:00:00+0100", coming("2:00"));
    EXPECT_EQ("2026-01-10T02:00:00+0100", coming("*-*-* 02:00:00"));
    EXPECT_EQ("2026-01-10T02:00:00+0100", coming("  02:00  "));
}

TEST_F(Calendar_Text_Test, days_of_the_week_have_names_lists_and_ranges) {
    for (char const* text : {"Sun 02:00", "sunday 02:00", "SUN *-*-* 02:00", "Sun,Wed 02:00",
                             "Sun..Tue 02:00", "Sun-Tue 02:00"})
        EXPECT_EQ("2026-01-11T02:00:00+0100", coming(text)) << text;
    EXPECT_EQ("2026-01-12T02:00:00+0100", coming("Mon..Thu 02:00"));
    EXPECT_EQ("2026-01-09T22:30:00+0100", coming("Mon..Fri 22:30"));
    EXPECT_EQ("2026-01-12T22:30:00+0100", coming("Mon..Fri 22:30", "2026-01-09T22:30:00+0100"));
    EXPECT_EQ("2026-01-10T02:00:00+0100", coming("Sat..Mon 02:00"));
    EXPECT_EQ("2026-01-13T02:00:00+0100", coming("Tue..Thu 02:00", "2026-01-11T03:00:00+0100"));
}

TEST_F(Calendar_Text_Test, a_day_alone_comes_at_midnight) {
    EXPECT_EQ("2026-01-11T00:00:00+0100", coming("Sun"));
    EXPECT_EQ("2026-02-01T00:00:00+0100", coming("*-*-1"));
}

TEST_F(Calendar_Text_Test, dates_have_a_month_and_a_day) {
    EXPECT_EQ("2026-02-01T03:00:00+0100", coming("*-*-1 03:00"));
    EXPECT_EQ("2026-01-15T03:00:00+0100", coming("*-*-1,15 03:00"));
    EXPECT_EQ("2026-12-24T18:00:00+0100", coming("12-24 18:00"));
    EXPECT_EQ("2027-01-08T00:00:00+0100", coming("*-jan-8 00:00"));
    EXPECT_EQ("2026-01-22T00:00:00+0100", coming("*-*-8/14")) << "8 and 22";
}

TEST_F(Calendar_Text_Test, a_day_has_to_fit_day_and_date) {
    EXPECT_EQ("2026-02-13T12:00:00+0100", coming("Fri *-*-13 12:00"));
    EXPECT_EQ("2026-02-01T02:00:00+0100", coming("Sun *-*-1..7 02:00")) << "the first Sunday";
}

TEST_F(Calendar_Text_Test, hours_and_minutes_have_steps_and_ranges) {
    EXPECT_EQ("2026-01-09T12:15:00+0100", coming("*:0/15"));
    EXPECT_EQ("2026-01-09T12:20:00+0100", coming("*:*/20"));
    EXPECT_EQ("2026-01-09T16:00:00+0100", coming("0/4:00", "2026-01-09T12:00:00+0100"));
    EXPECT_EQ("2026-01-09T13:30:00+0100", coming("8..18:30", "2026-01-09T12:30:00+0100"));
    EXPECT_EQ("2026-01-10T08:30:00+0100", coming("8..18:30", "2026-01-09T18:30:00+0100"));
}

TEST_F(Calendar_Text_Test, a_year_happens_once) {
    EXPECT_EQ("2050-06-01T02:00:00+0200", coming("2050-06-01 02:00"));
    EXPECT_EQ("never", coming("2050-06-01 02:00", "2050-06-01T02:00:00+0200"));
    EXPECT_EQ("never", coming("2025-06-01 02:00"));
    EXPECT_EQ("2028-02-29T02:00:00+0100", coming("2028-02-29 02:00"));
    EXPECT_EQ("never", coming("2027-02-29 02:00"));
}

TEST_F(Calendar_Text_Test, a_leap_day_comes_every_fourth_year) {
    EXPECT_EQ("2028-02-29T02:00:00+0100", coming("*-02-29 02:00"));
    EXPECT_EQ("2032-02-29T02:00:00+0100", coming("*-02-29 02:00", "2028-02-29T02:00:00+0100"));
}

TEST_F(Calendar_Text_Test, has_words_for_usual_times) {
    EXPECT_EQ("2026-01-09T13:00:00+0100", coming("hourly"));
    EXPECT_EQ("2026-01-10T00:00:00+0100", coming("daily"));
    EXPECT_EQ("2026-01-12T00:00:00+0100", coming("Weekly"));
    EXPECT_EQ("2026-02-01T00:00:00+0100", coming("monthly"));
    EXPECT_EQ("2026-04-01T00:00:00+0200", coming("quarterly"));
    EXPECT_EQ("2027-01-01T00:00:00+0100", coming("yearly"));
}

TEST_F(Calendar_Text_Test, takes_the_five_fields_of_cron) {
    EXPECT_EQ("2026-01-11T02:30:00+0100", coming("30 2 * * sun"));
    EXPECT_EQ("2026-01-12T00:00:00+0100", coming("0 0 15 * mon")) << "either day, as cron has it";
    EXPECT_EQ("\"60\" is not a valid minute", refusal("calendar", "60 2 * * sun"));
}

TEST_F(Calendar_Text_Test, names_the_word_that_is_wrong) {
    EXPECT_EQ("\"Sunn\" is not a valid day of the week (expected for example Sun or Mon..Fri)",
              refusal("calendar", "Sunn 02:00"));
    EXPECT_EQ("\"25\" is not a valid hour", refusal("calendar", "Sun 25:00"));
    EXPECT_EQ("\"60\" is not a valid minute", refusal("calendar", "Sun 2:60"));
    EXPECT_EQ("\"32\" is not a valid day of the month", refusal("calendar", "*-*-32 02:00"));
    EXPECT_EQ("\"13\" is not a valid month", refusal("calendar", "*-13-1 02:00"));
    EXPECT_EQ("\"26\" is not a year (expected * or four digits)",
              refusal("calendar", "26-1-1 02:00"));
    EXPECT_EQ("\"02:00:30\" is not a time (expected HOUR:MINUTE)",
              refusal("calendar", "Sun 02:00:30"));
    for (char const* text : {"Sun 02", "02:00 Sun", "Sun 02:00 Europe/Berlin", "Sun Mon 02:00",
                             "02:00 03:00", "2", "@daily"})
        EXPECT_NE(std::string::npos, refusal("calendar", text).find("is not a time")) << text;
    EXPECT_EQ(0u, refusal("calendar", "").find("a time is missing"));
    EXPECT_EQ(0u, refusal("calendar", "   ").find("a time is missing"));
    EXPECT_NE(std::string::npos, refusal("calendar", "*-2-30 02:00").find("never happens"));
    for (char const* text : {"Sun.. 02:00", "..Sun 02:00", "Mon..Tue..Wed 02:00", ",Sun 02:00",
                             "5..1:00", "1..2..3:00", "*:0/0", "*:0/60", "*:0/5/5", "*:/5", ":00",
                             "2:", "*-*- 02:00", "1-2-3-4 02:00", "*:*:*"})
        EXPECT_NE("", refusal("calendar", text)) << text;
}

TEST_F(Calendar_Text_Test, shows_no_control_characters_of_a_text) {
    EXPECT_EQ(std::string::npos, refusal("calendar", "Sun\n\x1b 02:00").find('\x1b'));
}

TEST(Time_Zone_Test, knows_the_offsets_of_a_zone_for_ever) {
    Time_Zone berlin;
    ASSERT_TRUE(Time_Zone::find("Europe/Berlin", berlin));
    EXPECT_EQ("Europe/Berlin", berlin.name());
    EXPECT_EQ(3600, berlin.offset_at(1767225600)); // 2026-01-01
    EXPECT_EQ(7200, berlin.offset_at(1782864000)); // 2026-07-01
    EXPECT_EQ(7200, berlin.offset_at(3959884800)); // 2095-06-26, beyond the tables of the database
    EXPECT_EQ(3600, berlin.offset_at(3944160000)); // 2094-12-26
    Time_Zone utc;
    ASSERT_TRUE(Time_Zone::find("UTC", utc));
    EXPECT_EQ(0, utc.offset_at(1782864000));
}

TEST(Time_Zone_Test, of_the_host_is_that_of_the_process) {
    Scoped_Env const tokyo("TZ", "Asia/Tokyo");
    tzset();
    Time_Zone host;
    ASSERT_TRUE(Time_Zone::find("", host));
    EXPECT_EQ("", host.name());
    EXPECT_EQ(9 * 3600, host.offset_at(1782864000));
}

TEST(Time_Zone_Test, refuses_what_the_database_does_not_have) {
    Time_Zone zone;
    ASSERT_TRUE(Time_Zone::find("Asia/Tokyo", zone));
    for (std::string const name : {"Europe/Atlantis", "Europe", "../../etc/passwd",
                                   "/etc/localtime", "localtime", "libc:UTC", "file:/etc/localtime",
                                   "Europe/Berlin ", "europe/berlin", "Europe/../Europe/Berlin"})
        EXPECT_FALSE(Time_Zone::find(name, zone)) << name;
    EXPECT_FALSE(Time_Zone::find("E" + std::string(100000, 'x'), zone));
    EXPECT_EQ("Asia/Tokyo", zone.name()) << "changed by a refused name";
}

TEST_F(Calendar_Text_Test, a_schedule_of_another_zone_goes_by_its_clocks) {
    Time_Zone tokyo;
    ASSERT_TRUE(Time_Zone::find("Asia/Tokyo", tokyo));
    Job_Schedule_Text schedule;
    std::string error;
    ASSERT_TRUE(Job_Schedule_Text::parse("calendar", "Sun 02:00", schedule, error, tokyo));
    EXPECT_EQ("2026-01-10T18:00:00+0100", show(schedule.next_run(at("2026-01-09T12:00:00+0100"))));
}

} // namespace
