#include "agent/cli/unix_connection.h"
#include "tests/integration/agent_command_fixture.h"
#include "tests/support/temporary_directory.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

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
              "Started:  2026-11-22 02:30:00Z\n"
              "Module:   /m.so\n",
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

TEST_F(Agent_Command_Test, an_empty_list_can_be_trusted) {
    agent_->on("backup.list", Object{{"backups", Array()}});
    agent_->on("job.list", Object{{"jobs", Array()}});
    agent_->on("pool.list", Object{{"pools", Array{Object{{"uuid", "p-1"}, {"name", "main"}}}}});
    EXPECT_EQ(0, run({"backups", "prod", "--pool", "main"}));
    EXPECT_EQ(0, run({"backups", "--pool", "p-1"}));
    EXPECT_EQ(0, run({"jobs", "--instance", "prod"}));
    EXPECT_EQ(4, run({"backups", "--pool", "mian"}));
    EXPECT_EQ("zenbrak3: cannot list the backups: pool mian does not exist\n"
              "Did you mean 'main'? `zenbrak3 pools` lists the pools.\n",
              err());
    EXPECT_EQ("", out());
    auto const unknown = Scripted_Agent::Answer([](Value const&) -> Value {
        throw Scripted_Agent::Refusal{-32004, "it is unknown"};
    });
    agent_->on("instance.show", unknown);
    agent_->on("definition.show", unknown);
    EXPECT_EQ(4, run({"backups", "prdo"}));
    EXPECT_EQ(4, run({"backups", "prdo", "--json"}));
    EXPECT_EQ(4, run({"jobs", "--instance", "prdo"}));
    EXPECT_THAT(err(), HasSubstr("cannot list the jobs: it is unknown\n"
                                 "`zenbrak3 instances` lists the instances."));
    EXPECT_EQ(4, run({"jobs", "--definition", "nightyl"}));
    // what is gone may have left backups
    agent_->on("backup.list", Object{{"backups", Array{Object{{"uuid", "b-1"},
                                                              {"source_size", 2048},
                                                              {"backup_set_size", 1024},
                                                              {"pool_uuid", "p-1"}}}}});
    EXPECT_EQ(0, run({"backups", "prdo"}));
    EXPECT_THAT(out(), HasSubstr("2.0 KiB  1.0 KiB"));
    EXPECT_THAT(out(), HasSubstr("  main\n"));
}

TEST_F(Agent_Command_Test, an_error_with_json_is_one_document) {
    auto const error = [&] {
        Value printed;
        EXPECT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
        return printed.get_obj().at("error").get_obj();
    };
    agent_->on("job.show", Scripted_Agent::Answer([](Value const&) -> Value {
                   throw Scripted_Agent::Refusal{-32004, "job \"x\x1b\" is not known"};
               }));
    EXPECT_EQ(4, run({"job", "show", "x", "--json"}));
    EXPECT_EQ(Value(4), error().at("code"));
    EXPECT_THAT(error().at("message").get_str(), HasSubstr("cannot show job x: job \"x"));
    EXPECT_EQ(Value("`zenbrak3 jobs` lists the jobs."), error().at("hint"));
    EXPECT_THAT(out(), Not(HasSubstr("\x1b")));
    EXPECT_NE("", err());

    EXPECT_EQ(2, run({"nonsense", "--json"}));
    EXPECT_EQ(Value(2), error().at("code"));
    EXPECT_EQ(2, run({"pools", "--watch", "--json"}));
    EXPECT_THAT(error().at("message").get_str(), HasSubstr("--watch"));

    agent_->on("job.log",
               std::vector<Value>{Object{{"text", "a\n"}, {"next_offset", 2}, {"finished", false}},
                                  Object{{"text", "b\n"}, {"next_offset", 4}, {"finished", false}},
                                  Object{{"text", ""}, {"next_offset", 4}, {"finished", true}}});
    EXPECT_EQ(0, run({"job", "log", "x", "--json", "--follow", "--interval", "0.01"}));
    Value printed;
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ(Value("a\nb\n"), printed.get_obj().at("text"));
}

Array const INSTANCES{Object{{"name", "production-of-the-northern-warehouse"},
                             {"type", "gaussdb"},
                             {"uuid", "6f9619ff-8b86-d011-b42d-00cf4fc9648f"},
                             {"version", 4},
                             {"flavour", "DWS"},
                             {"edition", "8.2.1"}}};

TEST_F(Agent_Command_Test, a_pipe_gets_whole_lines) {
    agent_->on("instance.list", Object{{"instances", INSTANCES}});
    setting_.env["COLUMNS"] = "20";
    EXPECT_EQ(0, run({"instances"}));
    EXPECT_EQ("NAME                                  FLAVOUR  VERSION  LAST BACKUP  AGE  UUID\n"
              "production-of-the-northern-warehouse  DWS      8.2.1    -            -    "
              "6f9619ff-8b86-d011-b42d-00cf4fc9648f\n",
              out());
}

TEST_F(Agent_Command_Test, instances_have_their_last_backup_and_its_age) {
    Array const instances{
        Object{{"name", "young"}, {"last_backup", static_cast<int64_t>(time(nullptr)) - 30}},
        Object{{"name", "old"}, {"last_backup", 1000000000}, {"last_backup_level", "full"}},
        Object{{"name", "none"}, {"last_backup", 0}}};
    agent_->on("instance.list", Object{{"instances", instances}});
    EXPECT_EQ(0, run({"instances", "--columns", "name,age", "--filter", "age<600"}));
    EXPECT_THAT(out(), testing::MatchesRegex("NAME   AGE *\nyoung  0:[3-5][0-9]\n"));
    EXPECT_EQ(0, run({"instances", "--columns", "name,last-backup,level", "--sort", "age:desc"}));
    EXPECT_THAT(out(), HasSubstr("old    2001-09-09 01:46:40Z  full\n"));
    EXPECT_THAT(out(), testing::EndsWith("none   -                     -\n"));
    EXPECT_EQ(0, run({"instances", "--json", "--filter", "name=old"}));
    EXPECT_THAT(out(), HasSubstr("\"last_backup\": \"2001-09-09T01:46:40Z\""));
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
    EXPECT_EQ("NAME         FLAVOUR  VERSION  LAST BACKUP  AGE  UUID\n"
              "production…  DWS      8.2.1    -            -    6f9619ff-8…\n",
              out());
    setting_.env["COLUMNS"] = "56";
    EXPECT_EQ(0, run({"instances"}));
    EXPECT_EQ("NAME       FLAVOUR  VERSION  LAST BACKUP  AGE  UUID\n"
              "producti…  DWS      8.2.1    -            -    6f9619ff…\n",
              out());
    setting_.env["LANG"] = "C";
    EXPECT_EQ(0, run({"instances"}));
    EXPECT_THAT(out(), HasSubstr("produc..."));
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

TEST_F(Agent_Command_Test, a_user_who_may_not_ask_is_told_who_may) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    Temporary_Directory directory;
    ASSERT_EQ(0, chmod(directory.path().c_str(), 0711));
    std::string const path = directory.path("agent.sock");
    File_Descriptor const listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, listen(listener.get(), 1));
    ASSERT_EQ(0, chmod(path.c_str(), 0600));
    // that user may not reach the directory of the build
    std::filesystem::copy_file(ZENBRAK3_COMMAND, directory.path("zenbrak3"));
    std::filesystem::copy_file(ZENBRAK3_HOST_LIBRARY, directory.path("libzenbrak3_host.so.0"));
    for (char const* name : {"zenbrak3", "libzenbrak3_host.so.0"})
        ASSERT_EQ(0, chmod(directory.path(name).c_str(), 0755));
    child_.emplace(std::vector<std::string>{"/usr/bin/setpriv", "--reuid", "65534", "--regid",
                                            "65534", "--clear-groups", "/usr/bin/env",
                                            "LD_LIBRARY_PATH=" + directory.path(),
                                            directory.path("zenbrak3"), "--socket", path, "pools"},
                   setting_);
    EXPECT_EQ(5, child_->wait());
    EXPECT_EQ("zenbrak3: cannot list the pools: cannot connect to " + path +
                  ": user nobody may not use it\n" + WHO_MAY_ASK + "\n",
              err());
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

Array const ALERTS{Object{{"level", 5},
                          {"text", "a full backup is made instead"},
                          {"advice", "nothing"},
                          {"count", 3},
                          {"time", 1000}},
                   Object{{"level", 7},
                          {"text", "no space\x1b[2J"},
                          {"advice", "make\nroom"},
                          {"count", 1},
                          {"time", 2000}}};
constexpr char ALERTS_TEXT[] =
    "Warning, 1970-01-01 00:16:40Z: a full backup is made instead (3 times)\n"
    "  -> nothing\n"
    "Alert, 1970-01-01 00:33:20Z: no space\\x1b[2J\n"
    "  -> make\\nroom\n";

TEST_F(Agent_Command_Test, a_backup_that_fails) {
    EXPECT_EQ(
        1, back_up({run_in("error", {{"message", "the pool is full"}, {"alert_list", ALERTS}})}));
    EXPECT_THAT(out(), HasSubstr("The backup of prod ended: error\n"));
    EXPECT_EQ("zenbrak3: the backup of prod did not complete: the pool is full\n" +
                  std::string(ALERTS_TEXT) +
                  "`zenbrak3 job log 0f3a91c2-0000` shows what happened.\n",
              err());
}

TEST_F(Agent_Command_Test, a_backup_that_became_full_says_so) {
    Array const alerts{ALERTS.front()};
    EXPECT_EQ(0, back_up({run_in("completed", {{"alert_list", alerts}})}));
    EXPECT_THAT(err(), testing::StartsWith("Warning, 1970-01-01 00:16:40Z: a full backup"));
}

TEST_F(Agent_Command_Test, the_view_of_a_run_ends_with_its_alerts_and_what_to_do) {
    agent_->on(
        "job.show",
        run_in("error", {{"alert_list", ALERTS}, {"subtype", "incremental"}, {"level", "full"}}));
    EXPECT_EQ(0, run({"job", "show", "0f3a"}));
    EXPECT_THAT(out(), testing::EndsWith("\n\n" + std::string(ALERTS_TEXT)));
    EXPECT_THAT(out(), HasSubstr("Level:      full\nAsked for:  incremental\n"));
}

TEST_F(Agent_Command_Test, other_ends_of_a_backup) {
    EXPECT_EQ(6, back_up({run_in("canceled")}));
    EXPECT_EQ(1, back_up({run_in("completed with errors")}));
    EXPECT_EQ(1, back_up({run_in("skipped")}));
}

TEST_F(Agent_Command_Test, a_wait_with_json_prints_the_run_at_its_end) {
    agent_->on("job.watch", std::vector<Value>{run_in("running"), run_in("completed")});
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
    agent_->on("job.watch", run_in("running"));
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
    agent_->on("job.watch", Scripted_Agent::Answer([this](Value const&) {
                   agent_->be_silent();
                   return Value();
               }));
    start({"job", "wait", "0f3a"});
    agent_->await("job.watch", 1);
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
    agent_->on("job.watch", run_in("running"));
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
    agent_->on("job.watch", run_in("completed"));
    EXPECT_EQ(0, run({"restore", "b", "--instance", "rehearsal", "--channels", "2", "--yes"}));
    Object const definition = agent_->calls("job.start").at(0).get_obj().at("run").get_obj();
    EXPECT_EQ("restore", definition.at("type").get_str());
    EXPECT_EQ(Value(Object{{"id", "u-2"}}), definition.at("target"));
    EXPECT_EQ(Value(Object{{"channels", 2}}), definition.at("options"));
    EXPECT_EQ(Value("b-1"), definition.at("source").get_obj().at("catalog_id"));
}

TEST_F(Agent_Command_Test, a_restore_of_tables_and_one_as_a_new_cluster) {
    Object const said{{"title", "This restores tables to instance prod."},
                      {"lost", "nothing else"},
                      {"lines", Array{}}};
    agent_->on("guide.backup", Object{{"restore", said}});
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
    agent_->on("job.watch", run_in("completed"));
    EXPECT_EQ(0, run({"restore", "b", "--table", "public.orders=old.orders", "--yes"})) << err();
    EXPECT_THAT(out(), HasSubstr("This restores tables to instance prod."));
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
    agent_->on("job.watch", run_in("completed"));
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

} // namespace
