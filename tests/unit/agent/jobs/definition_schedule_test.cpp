#include "agent/jobs/definition_schedule.h"

#include "json_spirit/text.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr time_t FRIDAY = 1767960000; // 2026-01-09 12:00 UTC

bool parse_schedule(std::string const& text, Definition_Schedule& result, std::string& error) {
    json_spirit::Value value;
    EXPECT_TRUE(json_spirit::parse(text, value, &error)) << error << ": " << text;
    return Definition_Schedule::parse(value.get_obj(), result, error);
}

Definition_Schedule schedule_of(std::string const& text) {
    Definition_Schedule result;
    std::string error;
    EXPECT_TRUE(parse_schedule(text, result, error)) << error;
    return result;
}

std::string fault_of(std::string const& text) {
    Definition_Schedule result;
    std::string error;
    EXPECT_FALSE(parse_schedule(text, result, error)) << text;
    EXPECT_TRUE(result.is_empty()) << "changed by a refused text";
    return error;
}

TEST(Definition_Schedule_Test, of_one_text_has_no_levels) {
    Definition_Schedule const schedule =
        schedule_of(R"({"type":"calendar","at":"Sun 02:00","time_zone":"UTC"})");
    EXPECT_THAT(schedule.levels(), IsEmpty());
    EXPECT_EQ(FRIDAY + 38 * 3600, schedule.next(FRIDAY).time);
    EXPECT_EQ("", schedule.next(FRIDAY).level);
    EXPECT_TRUE(schedule.catches_up());
    EXPECT_EQ("UTC", schedule.time_zone());
    EXPECT_TRUE(schedule.is_calendar());
    EXPECT_FALSE(schedule.is_empty());
}

TEST(Definition_Schedule_Test, levels_are_in_the_order_of_what_they_cover) {
    Definition_Schedule const schedule = schedule_of(
        R"({"type":"calendar","times":{"incremental":"daily","log":"hourly","full":"Sun","cumulative":"Wed"}})");
    EXPECT_THAT(schedule.levels(), ElementsAre("full", "cumulative", "incremental", "log"));
    EXPECT_EQ("Sun", schedule.first().at());
}

TEST(Definition_Schedule_Test, of_several_levels_the_first_that_is_due_comes_next) {
    Definition_Schedule const schedule = schedule_of(
        R"({"type":"calendar","time_zone":"UTC","times":{"full":"Sat 00:00","log":"0/6:00"}})");
    std::vector<Due_Run> const runs = schedule.next_runs(FRIDAY, 4);
    std::vector<std::string> levels;
    for (Due_Run const& run : runs)
        levels.push_back(run.level);
    EXPECT_THAT(levels, ElementsAre("log", "full", "log", "log"));
    EXPECT_EQ("full", schedule.due(FRIDAY, FRIDAY + 24 * 3600).level);
    EXPECT_EQ(FRIDAY + 6 * 3600, schedule.due(FRIDAY, FRIDAY + 24 * 3600).time);
    EXPECT_EQ("log", schedule.due(FRIDAY, FRIDAY + 6 * 3600).level);
    EXPECT_EQ(0, schedule.due(FRIDAY, FRIDAY + 6 * 3600 - 1).time);
}

TEST(Definition_Schedule_Test, what_runs_continuously_has_one_run_to_come) {
    EXPECT_EQ(1u, schedule_of(R"({"type":"continuous","at":"60"})").next_runs(FRIDAY, 5).size());
    EXPECT_EQ(5u, schedule_of(R"({"type":"hourly","at":"15"})").next_runs(FRIDAY, 5).size());
    EXPECT_THAT(schedule_of(R"({"type":"none"})").next_runs(FRIDAY, 5), IsEmpty());
    EXPECT_TRUE(schedule_of(R"({"type":"ondemand"})").is_empty());
}

TEST(Definition_Schedule_Test, names_what_is_wrong) {
    EXPECT_EQ("schedule.type: is missing", fault_of("{}"));
    EXPECT_THAT(fault_of(R"({"type":"weekly","times":{"full":"Sun"}})"),
                HasSubstr("only a schedule of type calendar"));
    EXPECT_THAT(fault_of(R"({"type":"calendar","at":"Sun","times":{"full":"Sun"}})"),
                HasSubstr("give either this or schedule.at"));
    EXPECT_EQ("schedule.times: name at least one level and its times",
              fault_of(R"({"type":"calendar","times":{}})"));
    EXPECT_EQ("schedule.times: name at least one level and its times",
              fault_of(R"({"type":"calendar","times":{"full":null}})"));
    EXPECT_EQ("schedule.times.weekly: is not known",
              fault_of(R"({"type":"calendar","times":{"full":"Sun","weekly":"Sun"}})"));
    EXPECT_EQ("schedule.times.log: \"25\" is not a valid hour",
              fault_of(R"({"type":"calendar","times":{"full":"Sun","log":"25:00"}})"));
    EXPECT_THAT(fault_of(R"({"type":"calendar","times":{"full":""}})"),
                HasSubstr("schedule.times.full: a time is missing"));
    EXPECT_THAT(fault_of(R"({"type":"calendar","times":{"full":5}})"), HasSubstr("full"));
    EXPECT_THAT(fault_of(R"({"type":"calendar","at":"Sun","time_zone":"Mars/Olympus"})"),
                HasSubstr("schedule.time_zone: \"Mars/Olympus\" is not a known time zone"));
    EXPECT_THAT(fault_of(R"({"type":"calendar","at":"Sun","catch_up":"no"})"),
                HasSubstr("schedule.catch_up: "));
    EXPECT_EQ("schedule.zone: is not known", fault_of(R"({"type":"none","zone":"UTC"})"));
}

} // namespace
