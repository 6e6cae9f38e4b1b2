#include "agent/cli/check_command.h"

#include "tests/unit/agent/cli/command_run.h"

#include <gmock/gmock.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::HasSubstr;

Object check_line(char const* subject, char const* state) {
    bool const ok = std::string(state) == "ok" || std::string(state) == "warning";
    return {{"subject", subject}, {"ok", ok}, {"state", state}, {"text", "t|\n'"}, {"advice", ""}};
}

class Check_Command_Test : public Command_Run {
protected:
    void answers(Array const& lines) {
        bool ok = true;
        for (Object const& line : json_spirit::objects_of(lines))
            ok = ok && line.at("ok") == Value(true);
        agent_.answers("agent.check", Object{{"ok", ok}, {"lines", lines}});
    }
};

TEST_F(Check_Command_Test, people_see_each_state) {
    answers({check_line("a", "ok"), check_line("b", "warning"), check_line("c", "critical"),
             check_line("d", "unknown")});
    EXPECT_EQ(EXIT_FAILED, run({"check"}));
    for (char const* line : {"ok    a: t", "WARN  b: t", "FAIL  c: t", "????  d: t"})
        EXPECT_THAT(out_, HasSubstr(line));
    answers({check_line("b", "warning")});
    EXPECT_EQ(EXIT_OK, run({"check"}));
    answers({check_line("d", "unknown")});
    EXPECT_EQ(EXIT_FAILED, run({"check"}));
}

TEST_F(Check_Command_Test, a_plugin_ends_with_the_worst_state) {
    struct {
        std::vector<char const*> states;
        int status;
        char const* word;
    } const cases[] = {{{"ok", "ok"}, 0, "OK"},
                       {{"ok", "warning"}, 1, "WARNING"},
                       {{"warning", "critical", "unknown"}, 2, "CRITICAL"},
                       {{"unknown", "critical"}, 2, "CRITICAL"},
                       {{"warning", "unknown"}, 3, "UNKNOWN"},
                       {{"unknown", "warning"}, 3, "UNKNOWN"}};
    for (auto const& row : cases) {
        Array lines;
        for (char const* state : row.states)
            lines.emplace_back(check_line(state, state));
        answers(lines);
        EXPECT_EQ(row.status, run({"check", "--nagios"})) << row.word;
        EXPECT_THAT(out_, testing::StartsWith("ZENBRAK3 " + std::string(row.word) + " - "));
        EXPECT_EQ(1, std::ranges::count(out_, '\n')) << out_;
        EXPECT_EQ(1, std::ranges::count(out_, '|')) << out_;
        EXPECT_EQ("", err_);
        if (row.status) {
            char const* const worst = row.status == 1   ? "warning: "
                                      : row.status == 2 ? "critical: "
                                                        : "unknown: ";
            EXPECT_THAT(out_, HasSubstr(std::string(" checks: ") + worst)) << "the worst is told";
        }
    }
}

TEST_F(Check_Command_Test, a_plugin_has_performance_data) {
    Object pool = check_line("pool", "ok"), clock = check_line("clock", "ok");
    pool["measure"] = Object{{"name", "free_my pool='x|"}, {"value", 1.5e12}, {"unit", "B"}};
    clock["measure"] = Object{{"name", "clock_h"}, {"value", -0.25}, {"unit", "s"}};
    answers({pool, clock});
    EXPECT_EQ(0, run({"check", "--nagios"}));
    EXPECT_EQ("ZENBRAK3 OK - 2 checks | 'checks'=2;;;0 'failed'=0;;;0 "
              "'free_my poolx'=1500000000000B;;;0 'clock_h'=-0.250s\n",
              out_);
}

TEST_F(Check_Command_Test, a_plugin_that_cannot_ask_is_unknown) {
    EXPECT_EQ(3, run({"check", "--nagios"}));
    EXPECT_EQ("ZENBRAK3 UNKNOWN - not found\n", out_);
    answers({});
    EXPECT_EQ(3, run({"check", "--nagios"}));
    EXPECT_EQ("ZENBRAK3 UNKNOWN - the agent has checked nothing\n", out_);
    agent_.answers("agent.check", "text");
    EXPECT_EQ(3, run({"check", "--nagios"}));
}

TEST_F(Check_Command_Test, lines_of_an_older_agent_are_good_or_bad) {
    Object line = check_line("a", "ok");
    line.erase("state");
    answers({line});
    EXPECT_EQ(0, run({"check", "--nagios"}));
    line["ok"] = false;
    answers({line});
    EXPECT_EQ(2, run({"check", "--nagios"}));
}

TEST_F(Check_Command_Test, the_time_is_the_agents_too) {
    answers({check_line("a", "ok")});
    EXPECT_EQ(EXIT_OK, run({"check", "prod", "--timeout", "7"}));
    EXPECT_EQ((Object{{"instance", "prod"}, {"timeout", 7}}), agent_.calls.back().second.get_obj());
    EXPECT_EQ(EXIT_OK, run({"check"}));
    EXPECT_EQ(Object(), agent_.calls.back().second.get_obj());
}

TEST_F(Check_Command_Test, flavours_are_listed) {
    agent_.answers("guide.flavours",
                   Object{{"flavours", Array{Object{{"version", 4},
                                                    {"name", "DWS"},
                                                    {"title", "GaussDB DWS"},
                                                    {"access", "over ssh"},
                                                    {"levels", Array{"full", "incremental"}},
                                                    {"parts", Array{"schema"}},
                                                    {"restores", Array{"instance"}}}}}});
    EXPECT_EQ(EXIT_OK, run({"flavours"}));
    EXPECT_THAT(out_, testing::ContainsRegex("DWS +over ssh +full, incremental +schema"));
    agent_.answers("backup.show", Object{{"uuid", "b-1"}, {"series", 4}});
    EXPECT_EQ(EXIT_OK, run({"backup", "show", "b"}));
    EXPECT_THAT(out_, testing::ContainsRegex("Flavour: +DWS"));
    agent_.answers("backup.show", Object{{"uuid", "b-1"}, {"series", 9}});
    EXPECT_EQ(EXIT_OK, run({"backup", "show", "b"}));
    EXPECT_THAT(out_, testing::ContainsRegex("Flavour: +9"));
    agent_.answers("guide.backup",
                   Object{{"contents", Array{Object{{"label", "Holds"}, {"text", "all"}}}}});
    EXPECT_EQ(EXIT_OK, run({"backup", "show", "b"}));
    EXPECT_THAT(out_, testing::ContainsRegex("Holds: +all"));
}

} // namespace
