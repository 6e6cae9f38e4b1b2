// The commands for schedules, against an agent that answers as the test says.
#include "tests/integration/agent_command_fixture.h"

namespace {

Object const WEEKLY{{"id", "d-1"},
                    {"name", "prod"},
                    {"type", "backup"},
                    {"instance", "prod"},
                    {"pool", "main"},
                    {"pool_uuid", "p-1"},
                    {"paused", false},
                    {"state", "completed"},
                    {"levels", Array{Object{{"level", "full"}, {"at", "Sun 02:00"}},
                                     Object{{"level", "incremental"}, {"at", "Mon..Sat 02:00"}}}},
                    {"time_zone", ""},
                    {"catch_up", true},
                    {"next_runs", Array{Object{{"time", 1795312800}, {"level", "full"}},
                                        Object{{"time", 1795399200}, {"level", "incremental"}}}},
                    {"last_run", 0},
                    {"fault", ""},
                    {"options", Object{}}};

class Agent_Schedule_Test : public Agent_Command_Test {
protected:
    Agent_Schedule_Test() {
        agent_->on("schedule.show", WEEKLY);
        agent_->on("schedule.list", Object{{"schedules", Array{WEEKLY}}});
        agent_->on("definition.save", Object{{"id", "d-1"}});
        agent_->on("definition.change", Object{});
        agent_->on("definition.remove", Object{});
    }
    void not_found(char const* method) {
        agent_->on(method, Scripted_Agent::Answer([](Value const&) -> Value {
                       throw Scripted_Agent::Refusal{-32004, "not found"};
                   }));
    }
    Object call(char const* method) { return agent_->calls(method).at(0).get_obj(); }
    /** What a command changes of the schedule "prod". */
    Object changes(std::vector<std::string> words) {
        size_t const before = agent_->calls("definition.change").size();
        words.insert(words.begin(), {"schedule", "update", "prod"});
        EXPECT_EQ(0, run(words)) << err();
        std::vector<Value> const calls = agent_->calls("definition.change");
        EXPECT_EQ(before + 1, calls.size());
        EXPECT_EQ(Value("prod"), calls.back().get_obj().at("definition"));
        return calls.back().get_obj().at("changes").get_obj();
    }
};

TEST_F(Agent_Schedule_Test, is_added_with_the_options_of_a_backup) {
    EXPECT_EQ(0, run({"schedule",
                      "add",
                      "prod",
                      "--pool",
                      "main",
                      "--full",
                      "Sun 02:00",
                      "--incremental",
                      "Mon..Sat 02:00",
                      "--time-zone",
                      "Europe/Berlin",
                      "--no-catch-up",
                      "--compression",
                      "zstd:3",
                      "--rate",
                      "1K",
                      "--channels",
                      "4",
                      "-o",
                      "buffer_size=7"}))
        << err();
    EXPECT_EQ("Added schedule prod; its next run is full, at 2026-11-22 02:00:00Z.\n", out());
    Object const definition = call("definition.save");
    EXPECT_EQ(Value("prod"), definition.at("name"));
    EXPECT_EQ(Value("backup"), definition.at("type"));
    EXPECT_EQ(0u, definition.count("subtype")) << "the schedule says it";
    EXPECT_EQ(Value(Object{{"pool", "main"}}), definition.at("target"));
    EXPECT_EQ(
        Value((Object{{"type", "calendar"},
                      {"times", Object{{"full", "Sun 02:00"}, {"incremental", "Mon..Sat 02:00"}}},
                      {"time_zone", "Europe/Berlin"},
                      {"catch_up", false}})),
        definition.at("schedule"));
    EXPECT_EQ(Value((Object{{"compression", "zstd"},
                            {"compression_level", 3},
                            {"channels", 4},
                            {"buffer_size", 7}})),
              definition.at("options"));
    EXPECT_EQ(1u, definition.count("rate_limits"));
}

TEST_F(Agent_Schedule_Test, has_another_name_than_its_instance_if_one_is_given) {
    EXPECT_EQ(0, run({"schedule", "add", "prod", "--pool", "main", "--log", "*:0/15", "--name",
                      "often", "--json"}));
    EXPECT_EQ(Value("often"), call("definition.save").at("name"));
    EXPECT_THAT(out(), HasSubstr("\"id\": \"d-1\""));
}

TEST_F(Agent_Schedule_Test, is_not_added_twice) {
    agent_->on("definition.show", Object{{"name", "prod"}});
    EXPECT_EQ(5, run({"schedule", "add", "prod", "--pool", "main", "--full", "daily"}));
    EXPECT_EQ("zenbrak3: cannot add schedule prod: it exists already\n`zenbrak3 schedule update "
              "prod` changes it, --name adds another one.\n",
              err());
    EXPECT_TRUE(agent_->calls("definition.save").empty());
}

TEST_F(Agent_Schedule_Test, wrong_usage_asks_the_agent_nothing) {
    for (std::vector<std::string> const& words :
         {std::vector<std::string>{"add", "prod", "--pool", "main"},
          {"add", "prod", "--full", "daily"},
          {"add", "--pool", "main", "--full", "daily"},
          {"add", "prod", "--pool", "main", "--full", "a\nb"},
          {"add", "prod", "--pool", "main", "--full", "daily", "--compression", "gzip"},
          {"update", "prod"},
          {"update", "prod", "--catch-up", "--no-catch-up"},
          {"run-now", "prod", "--level", "complete"},
          {"show"},
          {"delete", "prod"}}) {
        std::vector<std::string> all{"schedule"};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(2, run(all)) << words[0] << " " << words.size() << err();
    }
    EXPECT_TRUE(agent_->calls("definition.save").empty());
    EXPECT_TRUE(agent_->calls("definition.change").empty());
}

TEST_F(Agent_Schedule_Test, only_what_is_named_is_changed) {
    EXPECT_EQ((Object{{"schedule", Object{{"type", "calendar"},
                                          {"times", Object{{"full", "Sat 23:00"}}},
                                          {"at", Value()}}}}),
              changes({"--full", "Sat 23:00"}));
    EXPECT_THAT(out(), HasSubstr("Changed schedule prod; its next run is full"));
    EXPECT_EQ((Object{{"schedule", Object{{"type", "calendar"},
                                          {"times", Object{{"incremental", Value()}}},
                                          {"at", Value()}}}}),
              changes({"--incremental", "none"}));
    EXPECT_EQ((Object{{"schedule", Object{{"time_zone", Value()}, {"catch_up", true}}}}),
              changes({"--time-zone", "local", "--catch-up"}));
    EXPECT_EQ((Object{{"target", Object{{"id", Value()}, {"pool", "vault"}}}}),
              changes({"--pool", "vault"}));
    EXPECT_EQ(
        (Object{{"options", Object{{"compression", "lzop"}, {"compression_level", Value()}}}}),
        changes({"--compression", "lzop"}));
    EXPECT_EQ((Object{{"name", "weekly"}}), changes({"--name", "weekly"}));
    EXPECT_EQ((Object{{"rate_limits", Object{{"dest_rate_limits", "1024"}}}}),
              changes({"--rate", "1K"}));
}

TEST_F(Agent_Schedule_Test, a_change_says_that_a_run_goes_on) {
    Object running = WEEKLY;
    running["state"] = "running";
    agent_->on("schedule.show", running);
    (void)changes({"--full", "daily"});
    EXPECT_THAT(out(), HasSubstr("The run that is running goes on as it began."));
}

TEST_F(Agent_Schedule_Test, a_list_has_the_runs_to_come_in_their_order) {
    Object other = WEEKLY;
    other["name"] = "often";
    other["paused"] = true;
    other["state"] = "disabled";
    other["next_runs"] = Array{Object{{"time", 1795316400}, {"level", "log"}}};
    agent_->on("schedule.list", Object{{"schedules", Array{WEEKLY, other}}});
    EXPECT_EQ(0, run({"schedule", "list"}));
    EXPECT_EQ("NAME   INSTANCE  POOL  STATE      LAST RUN  TIMES\n"
              "prod   prod      main  completed  -         full Sun 02:00; incremental Mon..Sat "
              "02:00\n"
              "often  prod      main  paused     -         full Sun 02:00; incremental Mon..Sat "
              "02:00\n"
              "\n"
              "NEXT RUN              LEVEL        INSTANCE  SCHEDULE\n"
              "2026-11-22 02:00:00Z  full         prod      prod\n"
              "2026-11-22 03:00:00Z  log          prod      often\n"
              "2026-11-23 02:00:00Z  incremental  prod      prod\n",
              out());
    EXPECT_EQ(0, run({"schedule", "list", "--filter", "name=often"}));
    EXPECT_THAT(out(), Not(HasSubstr("2026-11-22 02:00:00")));
    EXPECT_EQ(0, run({"schedule", "list", "--columns", "name", "--sort", "name:desc"}));
    EXPECT_EQ("NAME\nprod\noften\n", out());
    EXPECT_EQ(0, run({"schedule", "list", "prod", "--json"}));
    EXPECT_THAT(out(), HasSubstr("\"time\": \"2026-11-22T02:00:00Z\""));
    EXPECT_EQ(Value(Object{{"instance", "prod"}}), agent_->calls("schedule.list").back());
    Value parsed;
    EXPECT_TRUE(json_spirit::parse(out(), parsed, nullptr)) << out();
}

TEST_F(Agent_Schedule_Test, a_list_of_an_unknown_instance_is_not_empty_but_an_error) {
    agent_->on("schedule.list", Object{{"schedules", Array{}}});
    EXPECT_EQ(0, run({"schedule", "list", "prod"}));
    not_found("instance.show");
    EXPECT_EQ(4, run({"schedule", "list", "x"}));
}

TEST_F(Agent_Schedule_Test, is_shown_with_its_rules) {
    EXPECT_EQ(0, run({"schedule", "show", "prod"}));
    EXPECT_THAT(out(), HasSubstr("made up for once, when the agent is back"));
    EXPECT_THAT(out(), HasSubstr("skipped, with an alert"));
    EXPECT_THAT(out(), HasSubstr("that of the agent's host"));
    EXPECT_THAT(out(), HasSubstr("2026-11-23 02:00:00Z  incremental"));
    EXPECT_THAT(out(), Not(HasSubstr("Fault")));
    Object strict = WEEKLY;
    strict["catch_up"] = false;
    strict["time_zone"] = "Asia/Tokyo";
    strict["fault"] = "schedule.time_zone: no";
    agent_->on("schedule.show", strict);
    EXPECT_EQ(0, run({"schedule", "show", "prod"}));
    EXPECT_THAT(out(), HasSubstr("not made up for"));
    EXPECT_THAT(out(), HasSubstr("Asia/Tokyo"));
    EXPECT_THAT(out(), HasSubstr("unreadable"));
}

TEST_F(Agent_Schedule_Test, is_paused_resumed_and_removed) {
    EXPECT_EQ(0, run({"schedule", "pause", "prod"}));
    EXPECT_THAT(out(), HasSubstr("Schedule prod is paused"));
    EXPECT_EQ(0, run({"schedule", "resume", "prod"}));
    EXPECT_THAT(out(), HasSubstr("Schedule prod is active; its next run is full"));
    std::vector<Value> const changes = agent_->calls("definition.change");
    ASSERT_EQ(2u, changes.size());
    EXPECT_EQ(Value(Object{{"enabled", false}}), changes[0].get_obj().at("changes"));
    EXPECT_EQ(Value(Object{{"enabled", true}}), changes[1].get_obj().at("changes"));
    EXPECT_EQ(0, run({"schedule", "remove", "prod"}));
    EXPECT_EQ(Value("prod"), call("definition.remove").at("definition"));
}

TEST_F(Agent_Schedule_Test, what_is_not_a_schedule_is_neither_paused_nor_removed) {
    not_found("schedule.show");
    for (char const* action : {"pause", "resume", "remove", "show", "run-now"}) {
        EXPECT_EQ(4, run({"schedule", action, "x"})) << action;
        EXPECT_THAT(err(), HasSubstr("`zenbrak3 schedule list` lists the schedules."));
    }
    EXPECT_EQ(4, run({"schedule", "update", "x", "--full", "daily"}));
    EXPECT_TRUE(agent_->calls("definition.change").empty());
    EXPECT_TRUE(agent_->calls("definition.remove").empty());
    EXPECT_TRUE(agent_->calls("job.start").empty());
}

TEST_F(Agent_Schedule_Test, is_run_at_once) {
    agent_->on("job.watch", run_in("completed"));
    EXPECT_EQ(0, run({"schedule", "run-now", "prod"}));
    EXPECT_EQ((Object{{"definition", "prod"}}), call("job.start"));
    EXPECT_EQ(0, run({"schedule", "run-now", "prod", "--level", "incremental", "--no-wait"}));
    EXPECT_EQ(Value("incremental"), agent_->calls("job.start").back().get_obj().at("level"));
    Object paused = WEEKLY;
    paused["paused"] = true;
    agent_->on("schedule.show", paused);
    EXPECT_EQ(5, run({"schedule", "run-now", "prod"}));
    EXPECT_EQ(2u, agent_->calls("job.start").size());
}

TEST_F(Agent_Schedule_Test, a_backup_keeps_its_definition_only_under_a_name) {
    agent_->on("job.watch", run_in("completed"));
    EXPECT_EQ(0, run({"backup", "prod", "--pool", "main"}));
    EXPECT_EQ(Value(false), call("job.start").at("keep"));
    EXPECT_EQ(0, run({"backup", "prod", "--pool", "main", "--name", "mine"}));
    EXPECT_EQ(Value(true), agent_->calls("job.start").back().get_obj().at("keep"));
}

} // namespace
