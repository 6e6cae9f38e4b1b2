#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/log_capture.h"
#include "tests/support/program_run.h"
#include "tests/support/scripted_agent.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <signal.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

Object const RUN{{"run_id", "0f3a91c2-0000"}, {"type", "backup"}, {"instance", "prod"}};

Object run_in(char const* state, Object more = {}) {
    more.insert(RUN.begin(), RUN.end());
    more["state"] = state;
    return more;
}

class Agent_Command_Test : public testing::Test {
protected:
    Agent_Command_Test() {
        setting_.env = {{"LANG", "C.UTF-8"},
                        {"TZ", "UTC"},
                        {"PATH", "/usr/bin:/bin"},
                        {"ZENBRAK3_SOCKET", agent_->path()}};
        agent_->on("instance.show", Object{{"name", "prod"}, {"uuid", "u-1"}});
        agent_->on("job.start", Object{{"run_id", "0f3a91c2-0000"}, {"definition", "d-1"}});
    }

    void start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ZENBRAK3_COMMAND);
        child_.emplace(arguments, setting_);
    }
    /** Runs the command to its end. */
    int run(std::vector<std::string> const& arguments) {
        start(arguments);
        return child_->wait();
    }
    std::string out() const { return child_->out(); }
    std::string const& err() const { return child_->err(); }
    int back_up(std::vector<Value> const& states) {
        agent_->on("job.show", states);
        return run({"backup", "prod", "--pool", "main", "--interval", "0.01"});
    }

    std::optional<Scripted_Agent> agent_{std::in_place};
    Program_Run::Setting setting_;
    std::optional<Program_Run> child_;
};

TEST_F(Agent_Command_Test, info) {
    agent_->on("agent.info", Object{{"name", "host1"},
                                    {"version", "0.1.0"},
                                    {"pid", 42},
                                    {"started", 1795314600},
                                    {"methods", Array{"a"}},
                                    {"module", Object{{"path", "/m.so"}}}});
    EXPECT_EQ(0, run({"info"}));
    EXPECT_EQ("Name:     host1\n"
              "Version:  0.1.0\n"
              "Process:  42\n"
              "Started:  2026-11-22 02:30:00\n"
              "module:   {\"path\":\"/m.so\"}\n",
              out());
    EXPECT_EQ("", err());
}

TEST_F(Agent_Command_Test, json_is_the_result_as_it_came) {
    Value const result(Object{{"name", "host1"}, {"numbers", Array{1, 2.5, Value(), true}}});
    agent_->on("agent.info", result);
    EXPECT_EQ(0, run({"info", "--json"}));
    Value printed;
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ(result, printed);
    EXPECT_THAT(out(), HasSubstr("\n  \"name\""));
}

Array const INSTANCES{Object{{"name", "production-of-the-northern-warehouse"},
                             {"type", "gaussdb"},
                             {"uuid", "6f9619ff-8b86-d011-b42d-00cf4fc9648f"},
                             {"version", 4},
                             {"edition", "8.2.1"}}};

TEST_F(Agent_Command_Test, a_pipe_gets_whole_lines) {
    agent_->on("instance.list", Object{{"instances", INSTANCES}});
    setting_.env["COLUMNS"] = "20";
    EXPECT_EQ(0, run({"instances"}));
    EXPECT_EQ("NAME                                  FLAVOUR  VERSION  TYPE     UUID\n"
              "production-of-the-northern-warehouse  DWS      8.2.1    gaussdb  "
              "6f9619ff-8b86-d011-b42d-00cf4fc9648f\n",
              out());
}

TEST_F(Agent_Command_Test, instances_are_shown_with_their_alerts) {
    Array const alerts{Object{{"instance", "c1"}, {"text", "claimed by \"mallory\"\x1b[2J"}}};
    agent_->on("instance.list", Object{{"instances", INSTANCES}, {"alerts", alerts}});
    EXPECT_EQ(0, run({"instances"}));
    EXPECT_THAT(out(), HasSubstr("\n\nAlert: claimed by \"mallory\""));
    EXPECT_THAT(out(), Not(HasSubstr("\x1b")));
}

TEST_F(Agent_Command_Test, a_terminal_gets_what_fits) {
    agent_->on("instance.list", Object{{"instances", INSTANCES}});
    setting_.columns = 60;
    EXPECT_EQ(0, run({"instances"}));
    EXPECT_EQ("NAME             FLAVOUR  VERSION  TYPE     UUID\n"
              "production-of-…  DWS      8.2.1    gaussdb  6f9619ff-8b86-d…\n",
              out());
    setting_.env["COLUMNS"] = "56";
    EXPECT_EQ(0, run({"instances"}));
    EXPECT_EQ("NAME           FLAVOUR  VERSION  TYPE     UUID\n"
              "production-o…  DWS      8.2.1    gaussdb  6f9619ff-8b86…\n",
              out());
    setting_.env["LANG"] = "C";
    EXPECT_EQ(0, run({"instances"}));
    EXPECT_THAT(out(), HasSubstr("production..."));
}

TEST_F(Agent_Command_Test, nothing_that_comes_steers_the_terminal) {
    std::string const evil = "x\x1b]0;owned\x07\x1b[2J\n\xc2\x9b"
                             "31m\u202e";
    agent_->on("pool.list", Object{{"pools", Array{Object{{"name", evil}, {"url", evil}}}}});
    agent_->on("job.log",
               Object{{"text", "line\n" + evil}, {"next_offset", 0}, {"finished", true}});
    agent_->on("pool.remove", Scripted_Agent::Answer([evil](Value const&) -> Value {
                   throw Scripted_Agent::Refusal{-32005, evil, evil};
               }));
    agent_->on("gaussdb.list", Object{{"databases", Array{Object{{"name", evil}}, evil}}});
    agent_->on("agent.check",
               Object{{"ok", false},
                      {"lines",
                       Array{Object{
                           {"ok", false}, {"subject", evil}, {"text", evil}, {"advice", evil}}}}});
    for (std::vector<std::string> const& command : {std::vector<std::string>{"pools"},
                                                    {"pools", "--json"},
                                                    {"job", "log", "x"},
                                                    {"pool", "remove", evil},
                                                    {"databases", "prod", "--uid", "u"},
                                                    {"check"}}) {
        run(command);
        std::string const all = out() + err();
        EXPECT_EQ(std::string::npos, all.find_first_of("\x1b\x07")) << all;
        EXPECT_THAT(all, Not(HasSubstr("\xc2\x9b")));
        EXPECT_THAT(all, Not(HasSubstr("\u202e")));
        EXPECT_THAT(all, HasSubstr("]0;owned"));
    }
}

TEST_F(Agent_Command_Test, nobody_listens) {
    Temporary_Directory const directory;
    std::string const file = directory.write("file", "x");
    for (std::string const& path :
         {directory.path("none"), file, directory.path(), std::string(200, 'x')}) {
        EXPECT_EQ(3, run({"info", "--socket", path})) << path;
        EXPECT_THAT(err(), HasSubstr("zenbrak3: cannot ask the agent about itself: "));
        EXPECT_THAT(err(), HasSubstr("systemctl status zenbrak3-agent"));
        EXPECT_EQ("", out());
    }
}

TEST_F(Agent_Command_Test, the_option_goes_before_the_environment) {
    agent_->on("pool.list", Object{{"pools", Array{}}});
    setting_.env["ZENBRAK3_SOCKET"] = "/no/such/socket";
    EXPECT_EQ(3, run({"pools"}));
    EXPECT_THAT(err(), HasSubstr("cannot connect to /no/such/socket: there is no such socket\n"));
    EXPECT_EQ(0, run({"pools", "--socket", agent_->path()}));
    EXPECT_EQ(0, run({"--socket", agent_->path(), "pools"}));
    setting_.env["ZENBRAK3_SOCKET"] = "";
    EXPECT_EQ(3, run({"pools"}));
    EXPECT_THAT(err(), HasSubstr("/run/zenbrak3/agent.sock"));
}

TEST_F(Agent_Command_Test, not_found_and_refused) {
    EXPECT_EQ(4, run({"backup", "show", "b-1"}));
    EXPECT_EQ("zenbrak3: cannot show backup b-1: not found\n"
              "`zenbrak3 backups` lists the backups.\n",
              err());
    agent_->on("pool.remove", Scripted_Agent::Answer([](Value const&) -> Value {
                   throw Scripted_Agent::Refusal{-32005, "pool main holds 3 backups; drop them"};
               }));
    EXPECT_EQ(5, run({"pool", "remove", "main", "--yes"}));
    EXPECT_EQ("zenbrak3: cannot remove pool main: pool main holds 3 backups; drop them\n", err());
}

TEST_F(Agent_Command_Test, answers_that_are_none) {
    for (std::string const& bytes :
         {std::string(), std::string("\n"), std::string("no json\n"), std::string("[1]\n"),
          std::string("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\""),
          std::string("{\"jsonrpc\":\"2.0\",\"id\":1}\n"),
          std::string("{\"jsonrpc\":\"2.0\",\"id\":99,\"result\":{}}\n"),
          std::string("\xff\xfe\x00\n", 4), std::string(200, '[') + "\n"}) {
        agent_->answer_raw(bytes);
        EXPECT_EQ(3, run({"info"})) << bytes;
        EXPECT_THAT(err(), HasSubstr("zenbrak3: cannot ask the agent about itself: "));
        EXPECT_EQ("", out());
    }
}

TEST_F(Agent_Command_Test, an_error_of_an_agent_that_could_not_read_the_question) {
    agent_->answer_raw("{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32700,\"message\":"
                       "\"Parse error\"}}\n");
    EXPECT_EQ(1, run({"info"}));
    EXPECT_THAT(err(), HasSubstr("Parse error"));
}

TEST_F(Agent_Command_Test, what_answers_nothing_is_passed_over) {
    agent_->send_first("{\"jsonrpc\":\"2.0\",\"method\":\"hello\",\"params\":{}}\n"
                       "{\"jsonrpc\":\"2.0\",\"id\":77,\"result\":5}\n");
    agent_->on("pool.list", Object{{"pools", Array{}}});
    EXPECT_EQ(0, run({"pools"}));
}

TEST_F(Agent_Command_Test, a_large_answer_comes_whole) {
    Array pools;
    for (int number = 0; number < 20000; ++number)
        pools.push_back(Object{{"name", "pool-" + std::to_string(number)}});
    agent_->on("pool.list", Object{{"pools", pools}});
    EXPECT_EQ(0, run({"pools"}));
    std::string const lines = out();
    EXPECT_EQ(20001, std::count(lines.begin(), lines.end(), '\n'));
}

TEST_F(Agent_Command_Test, a_backup_that_is_waited_for) {
    EXPECT_EQ(0, back_up({run_in("starting"), run_in("running", {{"percent", 40}}),
                          run_in("completed",
                                 {{"start_time", 1000}, {"end_time", 1075}, {"set_size", 1536}})}));
    EXPECT_EQ("Started job 0f3a91c2-0000.\n"
              "backup of prod: starting\n"
              "backup of prod: running, 40%\n"
              "The backup of prod ended: completed, after 1:15, backup of 1.5 KiB\n",
              out());
    EXPECT_EQ("", err());
}

TEST_F(Agent_Command_Test, a_backup_that_fails) {
    EXPECT_EQ(1, back_up({run_in("error", {{"message", "the pool is full"},
                                           {"alert_list", Array{Object{{"level", "error"},
                                                                       {"text", "no space"},
                                                                       {"count", 1},
                                                                       {"time", 1000}}}}})}));
    EXPECT_THAT(out(), HasSubstr("The backup of prod ended: error\n"));
    EXPECT_EQ("zenbrak3: the backup of prod did not complete: the pool is full\n"
              "TIME                 LEVEL  COUNT  ALERT\n"
              "1970-01-01 00:16:40  error  1      no space\n"
              "`zenbrak3 job log 0f3a91c2-0000` shows what happened.\n",
              err());
}

TEST_F(Agent_Command_Test, other_ends_of_a_backup) {
    EXPECT_EQ(6, back_up({run_in("canceled")}));
    EXPECT_EQ(1, back_up({run_in("completed with errors")}));
    EXPECT_EQ(1, back_up({run_in("skipped")}));
}

TEST_F(Agent_Command_Test, a_wait_with_json_prints_the_run_at_its_end) {
    agent_->on("job.show", std::vector<Value>{run_in("running"), run_in("completed")});
    EXPECT_EQ(0, run({"backup", "prod", "--pool", "main", "--interval", "0.01", "--json"}));
    Value printed;
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ(Value(run_in("completed")), printed);
}

TEST_F(Agent_Command_Test, a_terminal_shows_a_bar_and_then_the_outcome) {
    setting_.columns = 60;
    EXPECT_EQ(0, back_up({run_in("running", {{"percent", 50}}), run_in("completed")}));
    EXPECT_EQ("Started job 0f3a91c2-0000.\n"
              "\r\x1b[K[##########----------] running, 50%"
              "\r\x1b[KThe backup of prod ended: completed\n",
              out());
}

TEST_F(Agent_Command_Test, a_cancelled_run_that_goes_on_says_so) {
    agent_->on("job.cancel", Object());
    agent_->on("job.show", run_in("canceling"));
    EXPECT_EQ(0, run({"job", "cancel", "0f3a"}));
    EXPECT_THAT(out(), HasSubstr("Job 0f3a is still running. It ends when the program that it runs "
                                 "has ended"));
    EXPECT_THAT(out(), HasSubstr("`zenbrak3 job cancel 0f3a --now` ends that program.\n"));
    EXPECT_EQ((std::vector<Value>{Object{{"job", "0f3a"}}}), agent_->calls("job.cancel"));
}

TEST_F(Agent_Command_Test, a_run_is_cancelled_now) {
    agent_->on("job.cancel", Object());
    agent_->on("job.show", std::vector<Value>{run_in("canceling"), run_in("canceled")});
    EXPECT_EQ(0, run({"job", "cancel", "0f3a", "--now"}));
    EXPECT_EQ("Job 0f3a has ended: canceled.\n", out());
    EXPECT_EQ((std::vector<Value>{Object{{"job", "0f3a"}, {"now", true}}}),
              agent_->calls("job.cancel"));
}

TEST_F(Agent_Command_Test, ctrl_c_leaves_the_job_alone) {
    agent_->on("job.show", run_in("running"));
    start({"backup", "prod", "--pool", "main", "--interval", "3600"});
    ASSERT_TRUE(child_->await("backup of prod: running"));
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    EXPECT_EQ("\nThe job goes on. `zenbrak3 job wait 0f3a91c2-0000` waits for it again, `zenbrak3 "
              "job cancel 0f3a91c2-0000` ends it.\n",
              err());
    EXPECT_TRUE(agent_->calls("job.cancel").empty());
}

TEST_F(Agent_Command_Test, ctrl_c_also_ends_the_wait_for_an_answer) {
    agent_->on("job.show", Scripted_Agent::Answer([this](Value const&) {
                   agent_->be_silent();
                   return Value();
               }));
    start({"job", "wait", "0f3a"});
    agent_->await("job.show", 1);
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    EXPECT_THAT(err(), HasSubstr("The job goes on."));
}

TEST_F(Agent_Command_Test, before_there_is_a_job_ctrl_c_just_ends_the_command) {
    agent_->be_silent();
    start({"backup", "prod", "--pool", "main"});
    agent_->await("instance.show", 1);
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(-SIGINT, child_->wait());
}

TEST_F(Agent_Command_Test, an_agent_that_goes_midway) {
    agent_->on("job.show", run_in("running"));
    start({"job", "wait", "0f3a", "--interval", "0.01"});
    ASSERT_TRUE(child_->await("running"));
    agent_.reset();
    EXPECT_EQ(3, child_->wait());
    EXPECT_THAT(err(), HasSubstr("zenbrak3: cannot look at job 0f3a: the connection to "));
    EXPECT_THAT(err(), HasSubstr(" was lost: "));
}

TEST_F(Agent_Command_Test, a_restore_of_a_backup_as_another_instance) {
    agent_->on("backup.show", Object{{"uuid", "b-1"},
                                     {"instance", "prod"},
                                     {"resource_uuid", "u-1"},
                                     {"backup_key", "k"}});
    agent_->on("instance.show", Object{{"name", "rehearsal"}, {"uuid", "u-2"}});
    agent_->on("job.show", run_in("completed"));
    EXPECT_EQ(0, run({"restore", "b", "--instance", "rehearsal", "--channels", "2", "--yes"}));
    Object const definition = agent_->calls("job.start").at(0).get_obj().at("run").get_obj();
    EXPECT_EQ("restore", definition.at("type").get_str());
    EXPECT_EQ(Value(Object{{"id", "u-2"}}), definition.at("target"));
    EXPECT_EQ(Value(Object{{"channels", 2}}), definition.at("options"));
    EXPECT_EQ(Value("b-1"), definition.at("source").get_obj().at("catalog_id"));
}

TEST_F(Agent_Command_Test, a_restore_of_tables_and_one_as_a_new_cluster) {
    auto const record = [](char const* uuid, char const* parent, char const* type,
                           char const* name) {
        return Object{{"uuid", uuid}, {"parent_uuid", parent}, {"type", type}, {"name", name}};
    };
    agent_->on("backup.show", Object{{"uuid", "b-1"},
                                     {"instance", "prod"},
                                     {"resource_uuid", "u-1"},
                                     {"backup_key", "k"},
                                     {"tables", Array{record("d", "", "database", "sales"),
                                                      record("s", "d", "schema", "public"),
                                                      record("t", "s", "table", "orders")}}});
    agent_->on("instance.show", Object{{"name", "dws2"}, {"uuid", "u-2"}});
    agent_->on("backup.list", Object{{"backups", Array{}}});
    agent_->on("job.show", run_in("completed"));
    EXPECT_EQ(0, run({"restore", "b", "--table", "public.orders=old.orders", "--yes"})) << err();
    EXPECT_THAT(out(), HasSubstr("This restores tables to instance prod, which goes on running."));
    EXPECT_THAT(out(), HasSubstr("public.orders=old.orders"));
    Object definition = agent_->calls("job.start").at(0).get_obj().at("run").get_obj();
    EXPECT_EQ("table", definition.at("subtype").get_str());
    EXPECT_EQ(Value(Array{"gaussdb/prod/table/sales/public/orders/old/orders"}),
              definition.at("source").get_obj().at("entries"));

    EXPECT_EQ(0, run({"restore", "b", "--as", "dws2", "--config", "/home/omm/x.xml", "--yes"}));
    definition = agent_->calls("job.start").at(1).get_obj().at("run").get_obj();
    EXPECT_EQ("instance", definition.at("subtype").get_str());
    EXPECT_EQ(Value(Object{{"xml_config_path", "/home/omm/x.xml"}}), definition.at("options"));

    for (std::vector<std::string> const& wrong :
         {std::vector<std::string>{"--table", "public.none"},
          {"--table", "$(id).a.b"},
          {"--table", "public.orders", "--config", "/x"},
          {"--as", "dws2", "--config", "/x;id"},
          {"--as", "dws2", "--config", "x"}}) {
        std::vector<std::string> words{"restore", "b", "--yes"};
        words.insert(words.end(), wrong.begin(), wrong.end());
        EXPECT_EQ(2, run(words)) << wrong.at(1);
    }
    EXPECT_EQ(2u, agent_->calls("job.start").size());
}

TEST_F(Agent_Command_Test, a_backup_of_schemas) {
    agent_->on("job.show", run_in("completed"));
    EXPECT_EQ(0, run({"backup", "prod", "--pool", "main", "--schema", "sales.public", "--schema",
                      "sales.S 2"}))
        << err();
    Object const definition = agent_->calls("job.start").at(0).get_obj().at("run").get_obj();
    EXPECT_EQ(Value(Array{"gaussdb/prod/schema/sales/public", "gaussdb/prod/schema/sales/S%202"}),
              definition.at("source").get_obj().at("entries"));
    EXPECT_EQ(2, run({"backup", "prod", "--pool", "main", "--schema", "$(id).x"}));
    EXPECT_EQ(2, run({"backup", "prod", "--pool", "main", "--schema", "x"}));
    EXPECT_EQ(1u, agent_->calls("job.start").size());
}

// What is destroyed only when somebody agrees.

class Consent_Test : public Agent_Command_Test {
protected:
    Consent_Test() {
        Object const set{{"uuid", "b-1"},          {"instance", "prod"},
                         {"type", "full"},         {"resource_uuid", "u-1"},
                         {"backup_key", "k1"},     {"backup_end_time", 1795314600},
                         {"backup_set_size", 1536}};
        agent_->on("backup.show", set);
        agent_->on("instance.show",
                   Object{{"name", "prod"},
                          {"uuid", "u-1"},
                          {"state", "Normal"},
                          {"accounts", Array{Object{{"uid", "u"}, {"username", "backup"}}}}});
        agent_->on("backup.list",
                   Object{{"backups", Array{Object{{"uuid", "b-3"},
                                                   {"type", "incremental"},
                                                   {"backup_key", "k3"},
                                                   {"prior_backup_key", "k2"},
                                                   {"backup_end_time", 1795318200}},
                                            Object{{"uuid", "b-2"},
                                                   {"type", "incremental"},
                                                   {"backup_key", "k2"},
                                                   {"prior_backup_key", "k1"}},
                                            set,
                                            Object{{"uuid", "b-0"},
                                                   {"backup_key", "k0"},
                                                   {"backup_end_time", 1795300000}}}}});
        agent_->on("job.show", run_in("completed"));
        agent_->on("backup.remove", Object{{"removed", Array{"b-1"}}});
        agent_->on("pool.remove", Object());
        agent_->on("pool.list",
                   Object{{"pools",
                           Array{Object{{"name", "main"}, {"url", "file:///p"}, {"used", 2048}}}}});
        agent_->on("instance.remove", Object());
        agent_->on("member.remove", Object());
        agent_->on(
            "member.list",
            Object{{"members",
                    Array{Object{{"name", "db2"}, {"host", "host2"}, {"connected", true}}}}});
    }
    /** Answers the question on a terminal; the exit status. */
    int answer(std::vector<std::string> const& arguments, std::string const& typed) {
        setting_.columns = 200;
        start(arguments);
        EXPECT_TRUE(child_->await("Continue? [y/N] "));
        child_->type(typed);
        return child_->wait();
    }
    /** Every command that destroys something, and the method that does it. */
    static std::vector<std::pair<std::vector<std::string>, std::string>> commands() {
        return {{{"restore", "b", "--interval", "0.01"}, "job.start"},
                {{"backup", "remove", "b"}, "backup.remove"},
                {{"pool", "remove", "main"}, "pool.remove"},
                {{"instance", "remove", "prod"}, "instance.remove"},
                {{"member", "remove", "db2"}, "member.remove"}};
    }
    static std::vector<std::string> with(std::vector<std::string> words, std::string const& word) {
        words.push_back(word);
        return words;
    }
};

TEST_F(Consent_Test, without_a_terminal_nothing_is_done_unless_it_is_told_to) {
    for (auto const& [command, method] : commands()) {
        EXPECT_EQ(5, run(command)) << command[0];
        EXPECT_THAT(err(),
                    HasSubstr(": stdin is not a terminal, so nobody can be asked\n--yes does "
                              "it without asking, --dry-run shows what it would do.\n"));
        EXPECT_TRUE(agent_->calls(method).empty()) << method;
        EXPECT_EQ(0, run(with(command, "--yes"))) << err();
        EXPECT_EQ(1u, agent_->calls(method).size()) << method;
    }
}

TEST_F(Consent_Test, a_dry_run_shows_and_does_nothing) {
    for (auto const& [command, method] : commands()) {
        EXPECT_EQ(0, run(with(command, "--dry-run"))) << err();
        EXPECT_THAT(out(), testing::StartsWith("This ")) << command[0];
        EXPECT_TRUE(agent_->calls(method).empty()) << method;
        EXPECT_EQ(2, run(with(with(command, "--dry-run"), "--yes")));
    }
}

TEST_F(Consent_Test, on_a_terminal_it_is_asked) {
    for (std::string const yes : {"y\n", "yes\n", "YES\n"})
        EXPECT_EQ(0, answer({"pool", "remove", "main"}, yes)) << yes;
    EXPECT_EQ(3u, agent_->calls("pool.remove").size());
    for (std::string const no : {"\n", "n\n", "no\n", "yes please\n", "\x04"})
        EXPECT_EQ(5, answer({"pool", "remove", "main"}, no)) << no;
    EXPECT_THAT(err(), HasSubstr("Nothing was changed.\n"));
    start({"pool", "remove", "main"});
    EXPECT_TRUE(child_->await("Continue? [y/N] "));
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    EXPECT_THAT(err(), HasSubstr("Nothing was changed.\n"));
    EXPECT_EQ(3u, agent_->calls("pool.remove").size());
    EXPECT_EQ(0, answer({"restore", "b", "--interval", "0.01"}, "y\n"));
    EXPECT_EQ(1u, agent_->calls("job.start").size());
}

TEST_F(Consent_Test, a_restore_tells_what_it_overwrites_and_what_is_lost) {
    EXPECT_EQ(0, run({"restore", "b", "--dry-run"}));
    EXPECT_THAT(out(), HasSubstr("This overwrites instance prod.\n"));
    EXPECT_THAT(out(), HasSubstr("Backup:               b-1, full, of 2026-11-22 02:30:00, "));
    EXPECT_THAT(out(), HasSubstr(" ago, 1.5 KiB\n"));
    EXPECT_THAT(out(), HasSubstr("State of prod:        Normal: it is running and healthy\n"));
    EXPECT_THAT(out(), HasSubstr("Lost:                 all changes since 2026-11-22 02:30:00\n"));
    EXPECT_THAT(out(), HasSubstr("Last backup of prod:  2026-11-22 03:30:00, "));
    agent_->on("instance.show", Object{{"name", "rehearsal"}, {"uuid", "u-2"}});
    agent_->on("backup.list", Object{{"backups", Array{}}});
    EXPECT_EQ(0, run({"restore", "b", "--dry-run", "--instance", "rehearsal"}));
    EXPECT_THAT(out(), HasSubstr("This overwrites instance rehearsal.\n"));
    EXPECT_THAT(out(), HasSubstr(" ago, 1.5 KiB, of instance prod\n"));
    EXPECT_THAT(out(), HasSubstr("State of rehearsal:        unknown\n"));
    EXPECT_THAT(out(), HasSubstr("Lost:                      all that rehearsal holds\n"));
    EXPECT_THAT(out(), HasSubstr("Last backup of rehearsal:  none\n"));
}

TEST_F(Consent_Test, a_removal_of_a_backup_tells_what_goes_and_what_is_left) {
    EXPECT_EQ(0, run({"backup", "remove", "b", "--dry-run", "--with-dependents"}));
    EXPECT_THAT(out(), HasSubstr("This removes 3 backups of instance prod with the data"));
    EXPECT_THAT(out(), HasSubstr("Builds on it:      b-3, incremental"));
    EXPECT_THAT(out(), HasSubstr("Builds on it:      b-2, incremental"));
    EXPECT_THAT(out(), HasSubstr("Last backup left:  2026-11-21 22:26:40, "));
    EXPECT_EQ(0, run({"backup", "remove", "b", "--dry-run"}));
    EXPECT_THAT(out(), HasSubstr("This removes a backup of instance prod"));
    EXPECT_THAT(out(), HasSubstr("Needs it:          b-2, incremental"));
}

TEST_F(Consent_Test, other_removals_tell_what_goes) {
    run({"pool", "remove", "main", "--dry-run"});
    EXPECT_THAT(out(), HasSubstr("URL:   file:///p\n  Used:  2.0 KiB\n"));
    run({"instance", "remove", "prod", "--dry-run"});
    EXPECT_THAT(out(), HasSubstr("Accounts:     backup\n  Backups:      4\n"));
    run({"member", "remove", "db2", "--dry-run"});
    EXPECT_THAT(out(), HasSubstr("Host:       host2\n  Connected:  yes\n"));
}

TEST_F(Consent_Test, json_is_for_programs) {
    EXPECT_EQ(0, run({"pool", "remove", "main", "--dry-run", "--json"}));
    Value printed;
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ("file:///p", printed.get_obj().at("consequences").get_obj().at("URL").get_str());
    EXPECT_EQ(0, run({"pool", "remove", "main", "--yes", "--json"}));
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ(Value(Object()), printed);
}

TEST_F(Agent_Command_Test, a_definition_from_stdin) {
    setting_.input = "{\"name\": \"n\", \"type\": \"backup\"}";
    agent_->on("definition.save", Object{{"id", "d-9"}});
    EXPECT_EQ(0, run({"definition", "save", "-"}));
    EXPECT_EQ("Saved definition d-9.\n", out());
    EXPECT_THAT(agent_->calls("definition.save"),
                ElementsAre(Value(Object{{"name", "n"}, {"type", "backup"}})));
    EXPECT_EQ(0, run({"run", "-", "--no-wait"}));
    EXPECT_THAT(agent_->calls("job.start"),
                ElementsAre(Value(Object{{"run", Object{{"name", "n"}, {"type", "backup"}}}})));
}

TEST_F(Agent_Command_Test, a_log_is_read_to_its_end) {
    agent_->on("job.log", Scripted_Agent::Answer([](Value const& params) {
                   int64_t const offset = params.get_obj().at("offset").get_int64();
                   static char const* const texts[] = {"one\n", "two\n", ""};
                   return Value(Object{{"text", texts[offset / 4]},
                                       {"offset", offset},
                                       {"next_offset", offset < 8 ? offset + 4 : offset},
                                       {"finished", true}});
               }));
    EXPECT_EQ(0, run({"job", "log", "0f3a"}));
    EXPECT_EQ("one\ntwo\n", out());
}

TEST_F(Agent_Command_Test, a_log_that_is_followed_goes_on_until_the_run_is_over) {
    auto const part = [](char const* text, int next, bool finished) {
        return Value(Object{{"text", text}, {"next_offset", next}, {"finished", finished}});
    };
    agent_->on("job.log",
               std::vector<Value>{part("one\n", 4, false), part("", 4, false), part("", 4, false),
                                  part("two\n", 8, true), part("", 8, true)});
    EXPECT_EQ(0, run({"job", "log", "0f3a", "--follow", "--interval", "0.01"}));
    EXPECT_EQ("one\ntwo\n", out());
}

TEST_F(Agent_Command_Test, a_list_that_is_watched_comes_again_when_it_has_changed) {
    auto const jobs = [](char const* state) {
        return Value(Object{{"jobs", Array{run_in(state)}}});
    };
    agent_->on("job.list", std::vector<Value>{jobs("running"), jobs("running"), jobs("completed")});
    start({"jobs", "--watch", "0.1"});
    ASSERT_TRUE(child_->await("completed"));
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    std::string const text = out();
    EXPECT_EQ(text.find("running"), text.rfind("running")) << text;
    EXPECT_EQ("", err());
}

TEST_F(Agent_Command_Test, watch_without_a_number_watches) {
    agent_->on("job.list", Object{{"jobs", Array{}}});
    start({"jobs", "--watch"});
    agent_->await("job.list", 2);
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
}

TEST_F(Agent_Command_Test, a_terminal_is_cleared_when_it_is_watched) {
    setting_.columns = 80;
    agent_->on("pool.list", Object{{"pools", Array{}}});
    start({"pools", "--watch", "0.1"});
    agent_->await("pool.list", 3);
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    EXPECT_THAT(out(), testing::StartsWith("\x1b[H\x1b[2J\x1b[3JNo pools;"));
}

TEST_F(Agent_Command_Test, a_check_that_finds_something) {
    agent_->on("agent.check",
               Object{{"ok", false},
                      {"lines", Array{Object{{"subject", "socket"}, {"ok", true}, {"text", "open"}},
                                      Object{{"subject", "gsql"},
                                             {"ok", false},
                                             {"text", "not found"},
                                             {"advice", "install it"}}}}});
    EXPECT_EQ(1, run({"check", "prod", "--pool", "main"}));
    EXPECT_EQ("ok    socket: open\nFAIL  gsql: not found\n      -> install it\n", out());
    EXPECT_THAT(agent_->calls("agent.check"),
                ElementsAre(Value(Object{{"instance", "prod"}, {"pool", "main"}})));
    agent_->on("agent.check", Object{{"ok", true}, {"lines", Array{}}});
    EXPECT_EQ(0, run({"check"}));
}

TEST_F(Agent_Command_Test, databases_and_schemas_are_asked_as_the_default_user) {
    agent_->on("agent.info", Object{{"uid", "user-1"}});
    agent_->on("gaussdb.list", Object{{"databases", Array{Object{{"name", "sales"}}}},
                                      {"schemas", Array{"public", "x y"}}});
    EXPECT_EQ(0, run({"databases", "prod"}));
    EXPECT_EQ("sales\n", out());
    EXPECT_EQ(0, run({"schemas", "prod", "sales"}));
    EXPECT_EQ("public\nx y\n", out());
    EXPECT_THAT(
        agent_->calls("gaussdb.list"),
        ElementsAre(Value(Object{{"uid", "user-1"}, {"instance", "prod"}}),
                    Value(Object{{"uid", "user-1"}, {"instance", "prod"}, {"database", "sales"}})));
}

class Account_Test : public Agent_Command_Test {
protected:
    Account_Test() { agent_->on("account.save", Object{}); }
    std::string saved_password() const {
        return json_spirit::object_get_str(agent_->calls("account.save").at(0).get_obj(),
                                           "password");
    }
};

TEST_F(Account_Test, a_password_comes_from_stdin) {
    setting_.input = "S3cret \xe2\x82\xac\r\nthe next line\n";
    EXPECT_EQ(0, run({"account", "prod", "admin"}));
    EXPECT_EQ("S3cret \xe2\x82\xac", saved_password());
    EXPECT_EQ("Account admin of prod is saved.\n", out());
    EXPECT_EQ("", err());
}

TEST_F(Account_Test, what_cannot_be_a_password) {
    for (std::string const& input :
         {std::string(), std::string("\n"), std::string("\r\n"), std::string(1025, 'x') + "\n",
          std::string(5000, 'x'), std::string("a\0b\n", 4)}) {
        setting_.input = input;
        EXPECT_EQ(2, run({"account", "prod", "admin"})) << input.size();
        EXPECT_THAT(err(), HasSubstr("no password was read: "));
    }
    EXPECT_TRUE(agent_->calls("account.save").empty());
    setting_.input = std::string(1024, 'x');
    EXPECT_EQ(0, run({"account", "prod", "admin"}));
}

TEST_F(Account_Test, a_terminal_does_not_show_the_password) {
    setting_.columns = 80;
    start({"account", "prod", "admin"});
    ASSERT_TRUE(child_->await("Password of admin on prod: "));
    EXPECT_FALSE(child_->echoes());
    child_->type("S3cret\n");
    EXPECT_EQ(0, child_->wait());
    EXPECT_EQ("S3cret", saved_password());
    EXPECT_THAT(out() + err(), Not(HasSubstr("S3cret")));
    EXPECT_TRUE(child_->echoes());
}

TEST_F(Account_Test, ctrl_c_gives_the_terminal_its_echo_back) {
    setting_.columns = 80;
    start({"account", "prod", "admin"});
    ASSERT_TRUE(child_->await("Password of admin on prod: "));
    kill(child_->pid(), SIGINT);
    EXPECT_EQ(130, child_->wait());
    EXPECT_TRUE(child_->echoes());
    EXPECT_TRUE(agent_->calls("account.save").empty());
}

TEST_F(Account_Test, there_is_no_way_to_give_it_on_the_command_line) {
    EXPECT_EQ(2, run({"account", "prod", "admin", "S3cret"}));
    EXPECT_EQ(2, run({"account", "prod", "admin", "--password", "S3cret"}));
}

TEST_F(Agent_Command_Test, an_output_that_cannot_be_written_is_a_failure) {
    agent_->on("pool.list", Object{{"pools", Array{}}});
    setting_.stdout_path = "/dev/full";
    EXPECT_EQ(1, run({"pools"}));
    EXPECT_EQ("zenbrak3: cannot write the output: No space left on device\n", err());
}

TEST_F(Agent_Command_Test, names_for_a_shell_are_silent_about_failures) {
    agent_->on("pool.list", Object{{"pools", Array{Object{{"name", "a"}}, Object{{"name", "b"}}}}});
    EXPECT_EQ(0, run({"complete", "pools"}));
    EXPECT_EQ("a\nb\n", out());
    EXPECT_EQ(0, run({"complete", "instances"}));
    agent_.reset();
    EXPECT_EQ(0, run({"complete", "pools"}));
    EXPECT_EQ("", out() + err());
}

} // namespace
