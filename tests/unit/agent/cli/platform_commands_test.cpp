// What the command says of an instance of a management platform.
#include "json_spirit/access.h"
#include "tests/support/scoped_env.h"
#include "tests/unit/agent/cli/command_run.h"

#include <gmock/gmock.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::HasSubstr;

constexpr int64_t TEN = 1795341600; // 2026-11-22T10:00:00Z

class Platform_Commands_Test : public Command_Run {
protected:
    Platform_Commands_Test() {
        tzset();
        agent_.answers("instance.show", Object{{"name", "prod"}, {"uuid", "u-1"}, {"version", 6}});
        agent_.answers("job.start", Object{{"run_id", "r-1"}, {"definition", "d-1"}});
        agent_.answers("backup.list", Object{{"backups", Array{}}});
        agent_.answers("backup.point", Object{{"time", TEN},
                                              {"windows", windows()},
                                              {"backup", set("l-2", "log")},
                                              {"sets", Array{set("f-1", "full"), set("l-1", "log"),
                                                             set("l-2", "log")}}});
    }
    ~Platform_Commands_Test() override {
        zone_.reset();
        tzset();
    }
    static Object set(std::string const& uuid, std::string const& type) {
        return {{"uuid", uuid},
                {"type", type},
                {"instance", "prod"},
                {"resource_uuid", "u-1"},
                {"backup_key", "key of " + uuid},
                {"timeline", "t-1"},
                {"series", 6},
                {"backup_end_time", TEN}};
    }
    static Array windows() {
        return {Object{{"from", TEN - 3600}, {"until", TEN + 3600}},
                Object{{"from", TEN + 7200}, {"until", TEN + 9000}}};
    }
    Object last_definition() const {
        return agent_.calls.back().second.get_obj().at("run").get_obj();
    }

    std::unique_ptr<Scoped_Env> zone_ = std::make_unique<Scoped_Env>("TZ", "UTC-8");
};

// to a time

TEST_F(Platform_Commands_Test, a_restore_to_a_time_names_the_last_set_and_the_time) {
    ASSERT_EQ(EXIT_OK,
              run({"restore", "prod", "--to", "2026-11-22T10:00:00Z", "--yes", "--no-wait"}))
        << err_;
    EXPECT_EQ("backup.point", agent_.calls.front().first);
    EXPECT_EQ((Object{{"instance", "prod"}, {"time", TEN}}), agent_.calls.front().second.get_obj());
    Object const definition = last_definition();
    EXPECT_EQ(Value("key of l-2"), definition.at("source").get_obj().at("backup_key"));
    EXPECT_EQ(Value(Object{{"restore_time", "2026-11-22T10:00:00Z"}}), definition.at("options"));
    EXPECT_EQ(Value(Object{{"id", "u-1"}}), definition.at("target"));
}

TEST_F(Platform_Commands_Test, a_time_is_local_or_has_a_zone) {
    for (char const* const time :
         {"2026-11-22 18:00:00", "2026-11-22T18:00:00", "2026-11-22T10:00:00Z",
          "2026-11-22T18:00:00+0800", "2026-11-22T18:00:00+08:00", "2026-11-22 12:00:00+02"}) {
        ASSERT_EQ(EXIT_OK, run({"restore", "prod", "--to", time, "--dry-run"})) << time << err_;
        Object params;
        for (auto const& [method, sent] : agent_.calls)
            if (method == "backup.point")
                params = sent.get_obj();
        EXPECT_EQ(Value(TEN), params.at("time")) << time;
        agent_.calls.clear();
    }
}

TEST_F(Platform_Commands_Test, what_is_no_time_is_refused_before_anybody_is_asked) {
    for (char const* const time : {"yesterday", "2026-11-22", "10:00", "2026-13-22 10:00:00", "0",
                                   "1960-01-01T00:00:00Z", ""}) {
        EXPECT_EQ(EXIT_USAGE, run({"restore", "prod", "--to", time, "--yes"})) << time;
        EXPECT_THAT(err_, HasSubstr("--to: '" + std::string(time) + "' is not a time")) << time;
    }
    EXPECT_EQ(EXIT_USAGE,
              run({"restore", "prod", "--to", "2026-11-22T10:00:00Z", "--table", "a.b"}));
    EXPECT_EQ(EXIT_USAGE,
              run({"restore", "prod", "--to", "2026-11-22T10:00:00Z", "--config", "/x"}));
    EXPECT_EQ(EXIT_USAGE, run({"restore", "../prod", "--yes"}));
    EXPECT_TRUE(agent_.calls.empty());
}

TEST_F(Platform_Commands_Test, what_a_restore_to_a_time_reads_and_loses_is_shown) {
    ASSERT_EQ(EXIT_OK, run({"restore", "prod", "--to", "2026-11-22 18:00:00", "--dry-run"}))
        << err_;
    EXPECT_THAT(out_, HasSubstr("This overwrites instance prod."));
    EXPECT_THAT(out_, HasSubstr("2026-11-22 18:00:00+08:00\n"));
    EXPECT_THAT(out_, HasSubstr("all changes since 2026-11-22 18:00:00+08:00"));
    for (char const* const set : {"f-1, full", "l-1, log", "l-2, log"})
        EXPECT_THAT(out_, HasSubstr(set));
    EXPECT_NE("job.start", agent_.calls.back().first);
}

TEST_F(Platform_Commands_Test, another_instance_is_restored_from_it) {
    agent_.answers("instance.show", Object{{"name", "copy"}, {"uuid", "u-2"}, {"version", 6}});
    ASSERT_EQ(EXIT_OK, run({"restore", "prod", "--to", "2026-11-22T10:00:00Z", "--as", "copy",
                            "--yes", "--no-wait"}))
        << err_;
    EXPECT_THAT(out_, HasSubstr("of instance prod"));
    EXPECT_THAT(out_, HasSubstr("all that copy holds"));
    EXPECT_EQ(Value(Object{{"id", "u-2"}}), last_definition().at("target"));
    EXPECT_EQ(Value("gaussdb/copy"), last_definition().at("source").get_obj().at("restore_as"));
}

TEST_F(Platform_Commands_Test, a_time_outside_is_refused_with_those_that_can_be) {
    agent_.answers("backup.point",
                   Object{{"time", TEN}, {"windows", windows()}, {"sets", Array{}}});
    EXPECT_EQ(EXIT_REFUSED, run({"restore", "prod", "--to", "2026-11-22T10:00:00Z", "--yes"}));
    EXPECT_EQ(
        "zenbrak3: cannot restore prod to 2026-11-22 18:00:00+08:00: it can be restored to a time "
        "from 2026-11-22 17:00:00+08:00 to 2026-11-22 19:00:00+08:00, or 2026-11-22 20:00:00+08:00 "
        "to "
        "2026-11-22 20:30:00+08:00\n",
        err_);
    agent_.answers("backup.point", Object{{"time", TEN}, {"windows", Array{}}, {"sets", Array{}}});
    EXPECT_EQ(EXIT_REFUSED, run({"restore", "prod", "--to", "2026-11-22T10:00:00Z", "--yes"}));
    EXPECT_THAT(err_, HasSubstr("no full backup of it has a log backup behind it"));
    for (auto const& [method, sent] : agent_.calls)
        EXPECT_NE("job.start", method);
}

TEST_F(Platform_Commands_Test, the_windows_stand_behind_the_backups) {
    agent_.answers("backup.list",
                   Object{{"backups", Array{set("f-1", "full")}}, {"windows", windows()}});
    ASSERT_EQ(EXIT_OK, run({"backups", "prod"}));
    EXPECT_THAT(out_, HasSubstr("TO ANY TIME FROM"));
    EXPECT_THAT(out_,
                testing::ContainsRegex("2026-11-22 17:00:00.08:00 +2026-11-22 19:00:00.08:00"));
    EXPECT_THAT(out_,
                testing::ContainsRegex("2026-11-22 20:00:00.08:00 +2026-11-22 20:30:00.08:00"));
    ASSERT_EQ(EXIT_OK, run({"backups", "prod", "--json"}));
    EXPECT_THAT(out_, HasSubstr("\"until\""));
    agent_.answers("backup.list",
                   Object{{"backups", Array{set("f-1", "full")}}, {"windows", Array{}}});
    ASSERT_EQ(EXIT_OK, run({"backups", "prod"}));
    EXPECT_THAT(out_, testing::Not(HasSubstr("TO ANY TIME")));
}

TEST_F(Platform_Commands_Test, a_backup_shows_from_when_its_data_are) {
    Object shown = set("f-1", "full");
    json_spirit::insert(shown)("begin_time", TEN - 800 * 3600)("end_time", TEN - 800 * 3600)(
        "data_begin", TEN)("data_end", TEN + 60)("platform_end_time", "2026-11-22T18:01:00+0800");
    agent_.answers("backup.show", shown);
    ASSERT_EQ(EXIT_OK, run({"backup", "show", "f"}));
    EXPECT_THAT(out_, testing::ContainsRegex("Data from: +2026-11-22 18:00:00"));
    EXPECT_THAT(out_, testing::ContainsRegex("Data until: +2026-11-22 18:01:00.08:00"));
    EXPECT_THAT(out_, testing::Not(HasSubstr("begin_time"))) << "which is not right";
}

// what a backup becomes

TEST_F(Platform_Commands_Test, what_the_agent_knows_of_a_backup_is_told_before_it) {
    agent_.answers("guide.instance",
                   Object{{"outlook", Object{{"note", "It becomes a full one.\x1b"}}}});
    ASSERT_EQ(EXIT_OK,
              run({"backup", "prod", "--pool", "main", "--level", "incremental", "--no-wait"}));
    EXPECT_EQ("It becomes a full one.\\x1b\n", err_);
    EXPECT_EQ((Object{{"instance", "prod"}, {"pool", "main"}, {"level", "incremental"}}),
              agent_.calls.at(1).second.get_obj());
}

TEST_F(Platform_Commands_Test, a_backup_that_would_fail_is_refused) {
    agent_.answers("guide.instance",
                   Object{{"outlook", Object{{"refusal", "nothing is known"},
                                             {"advice", "Make a full backup first."}}}});
    EXPECT_EQ(EXIT_REFUSED, run({"backup", "prod", "--pool", "main", "--level", "log"}));
    EXPECT_EQ("zenbrak3: cannot back up the log of prod: nothing is known\nMake a full backup "
              "first.\n",
              err_);
    EXPECT_NE("job.start", agent_.calls.back().first);
}

TEST_F(Platform_Commands_Test, full_backups_and_agents_that_cannot_tell_start_at_once) {
    ASSERT_EQ(EXIT_OK, run({"backup", "prod", "--pool", "main", "--no-wait"}));
    for (auto const& [method, sent] : agent_.calls)
        EXPECT_NE("guide.instance", method);
    ASSERT_EQ(EXIT_OK, run({"backup", "prod", "--pool", "main", "--level", "log", "--no-wait"}));
    EXPECT_EQ("", err_);
}

} // namespace
