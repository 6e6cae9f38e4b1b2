// The command for clusters that are reached by ssh, on a terminal and in a script.
#include "tests/integration/agent_command_fixture.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::HasSubstr;
using testing::Not;

constexpr char FINGERPRINT[] = "SHA256:47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU";

class Agent_Declare_Test : public Command_Run_Test {
protected:
    Agent_Declare_Test() {
        setting_.env = {
            {"LANG", "C.UTF-8"}, {"PATH", "/usr/bin:/bin"}, {"ZENBRAK3_SOCKET", agent_.path()}};
        agent_.on("agent.info", Object{{"uid", "uid-1"}});
        agent_.on("instance.try", tried("known", true));
        agent_.on("gaussdb.create_instance", Value("uuid-1"));
        agent_.on("gaussdb.modify_instance", Value(true));
        agent_.on("gaussdb.get_instance", Object{{"name", "dws1"},
                                                 {"address", "10.0.0.1"},
                                                 {"meta_path", "/m"},
                                                 {"backup_port", 9500},
                                                 {"source_commands", "a;"},
                                                 {"ssh_options", "-4"},
                                                 {"version", 4},
                                                 {"manual", true}});
    }

    static Value tried(char const* key_state, bool ok) {
        Object key{{"state", key_state}, {"type", "ED25519"}, {"fingerprint", FINGERPRINT}};
        Array lines{Object{{"subject", "ssh 10.0.0.1"},
                           {"ok", ok},
                           {"text", ok ? "logged in" : "it does not accept a key"},
                           {"advice", ok ? "" : "add the key"}},
                    Object{{"subject", "database"}, {"ok", true}, {"text", "DWS 8.2.1"}},
                    Object{{"subject", "nodes"}, {"ok", true}, {"text", "3"}}};
        return Object{{"ok", ok}, {"host_key", key}, {"lines", lines}};
    }
    void on_a_terminal() { setting_.columns = 200; }
    void answer(std::string const& prompt, std::string const& typed) {
        ASSERT_TRUE(child_->await(prompt)) << child_->err();
        child_->type(typed + "\n");
    }
    Object last(std::string const& method) const {
        auto const calls = agent_.calls(method);
        return calls.empty() ? Object() : calls.back().get_obj();
    }

    static inline std::vector<std::string> const ALL{"instance",    "add",           "dws1",
                                                     "--address",   "omm@10.0.0.1",  "--meta-path",
                                                     "/gauss/meta", "--backup-port", "9000"};
    static std::vector<std::string> all_and(std::vector<std::string> const& more) {
        std::vector<std::string> words = ALL;
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }

    Scripted_Agent agent_;
};

TEST_F(Agent_Declare_Test, a_script_gives_all_that_is_needed) {
    EXPECT_EQ(0, run(all_and({"--ssh-options", "-o Port=2222 -4", "--source-commands",
                              "source \"$HOME/env\""})))
        << err();
    Object const options{{"address", "omm@10.0.0.1"},
                         {"meta_path", "/gauss/meta"},
                         {"backup_port", 9000},
                         {"ssh_options", "-o Port=2222 -4"},
                         {"source_commands", "source \"$HOME/env\";"}};
    EXPECT_EQ(Value(Object{{"options", options}}), Value(last("instance.try")));
    Object created = options;
    created["name"] = "dws1";
    created["uid"] = "uid-1";
    EXPECT_EQ(Value(created), Value(last("gaussdb.create_instance")));
    EXPECT_EQ("ok    ssh 10.0.0.1: logged in\n"
              "ok    database: DWS 8.2.1\n"
              "ok    nodes: 3\n"
              "Instance dws1 is on record: DWS 8.2.1, nodes: 3.\n",
              out());
}

TEST_F(Agent_Declare_Test, a_node_that_disappears_is_noticed_unless_ssh_is_told_otherwise) {
    EXPECT_EQ(0, run(ALL)) << err();
    Object const created = last("gaussdb.create_instance");
    EXPECT_EQ("-o ConnectTimeout=15 -o ServerAliveInterval=15 -o ServerAliveCountMax=4",
              json_spirit::object_get_str(created, "ssh_options"));
    EXPECT_EQ(0, run(all_and({"--ssh-options", ""}))) << err();
    EXPECT_EQ("", json_spirit::object_get_str(last("gaussdb.create_instance"), "ssh_options"));
}

TEST_F(Agent_Declare_Test, json_has_the_trial_and_the_uuid) {
    EXPECT_EQ(0, run(all_and({"--json", "--uid", "uid-2"})));
    Value printed;
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ(Value("uuid-1"), printed.get_obj().at("result"));
    EXPECT_EQ(Value(true), printed.get_obj().at("ok"));
    EXPECT_EQ(3u, printed.get_obj().at("lines").get_array().size());
    EXPECT_EQ("uid-2", json_spirit::object_get_str(last("gaussdb.create_instance"), "uid"));
}

TEST_F(Agent_Declare_Test, a_terminal_is_asked_for_what_is_missing) {
    on_a_terminal();
    start({"instance", "add", "dws1"});
    answer("Where ssh logs in, HOST or ACCOUNT@HOST: ", "10.0.0.1");
    answer("metadata directory on the nodes: ", "/gauss/meta");
    answer("master on the node [9500]: ", "");
    EXPECT_EQ(0, child_->wait()) << err();
    Object const created = last("gaussdb.create_instance");
    EXPECT_EQ("10.0.0.1", json_spirit::object_get_str(created, "address"));
    EXPECT_EQ("/gauss/meta", json_spirit::object_get_str(created, "meta_path"));
    EXPECT_EQ(Value(9500), created.at("backup_port"));
}

TEST_F(Agent_Declare_Test, an_answer_that_nothing_can_be_ends_it) {
    on_a_terminal();
    for (char const* hostile : {"$(id)", "-oProxyCommand=id", ""}) {
        start({"instance", "add", "dws1"});
        answer("ACCOUNT@HOST: ", hostile);
        EXPECT_EQ(2, child_->wait());
    }
    for (char const* port : {"0", "65536", "x", "-1", "99999999999999999999"}) {
        start({"instance", "add", "dws1", "--address", "h", "--meta-path", "/m"});
        answer("[9500]: ", port);
        EXPECT_EQ(2, child_->wait()) << port;
    }
    EXPECT_TRUE(agent_.calls("instance.try").empty());
}

TEST_F(Agent_Declare_Test, without_a_terminal_what_is_missing_is_named) {
    std::vector<std::string> words{"instance", "add", "dws1"};
    for (auto const& [flag, value] :
         {std::pair{"--address", "h"}, {"--meta-path", "/m"}, {"--backup-port", "1"}}) {
        EXPECT_EQ(2, run(words));
        EXPECT_THAT(err(), HasSubstr(std::string(flag) + " is missing, and stdin is not a"));
        words.insert(words.end(), {flag, value});
    }
    EXPECT_TRUE(agent_.calls("instance.try").empty());
    EXPECT_EQ(0, run(words));
}

TEST_F(Agent_Declare_Test, hostile_flags_ask_nobody) {
    for (auto const& [flag, hostile] : {std::pair{"--address", "$(id)"},
                                        {"--address", "-oProxyCommand=id"},
                                        {"--meta-path", "/m;id"},
                                        {"--meta-path", "m"},
                                        {"--ssh-options", "-o ProxyCommand=id"},
                                        {"--ssh-options", "-o StrictHostKeyChecking=no"},
                                        {"--source-commands", "a' ; id '"},
                                        {"--backup-port", "0"},
                                        {"--backup-port", "65536"}})
        for (char const* verb : {"add", "change"}) {
            EXPECT_EQ(2, run({"instance", verb, "dws1", std::string(flag) + "=" + hostile}))
                << flag << hostile;
            EXPECT_EQ("", out());
        }
    EXPECT_EQ(2, run({"instance", "add", "../x", "--address", "h"}));
    EXPECT_TRUE(agent_.calls("instance.try").empty());
    EXPECT_TRUE(agent_.calls("gaussdb.get_instance").empty());
}

TEST_F(Agent_Declare_Test, an_instance_that_is_on_record_is_not_added) {
    agent_.on("instance.show", Object{{"name", "dws1"}});
    EXPECT_EQ(5, run(ALL));
    EXPECT_THAT(err(), HasSubstr("it is on record already"));
    EXPECT_TRUE(agent_.calls("instance.try").empty());
}

TEST_F(Agent_Declare_Test, source_commands_can_be_followed_by_a_command) {
    for (auto const& [given, sent] :
         {std::pair{"a", "a;"}, {"a;", "a;"}, {"a; ", "a;"}, {" ", ""}}) {
        EXPECT_EQ(0, run({"instance", "change", "dws1", "--source-commands", given})) << err();
        EXPECT_EQ(sent,
                  json_spirit::object_get_str(last("gaussdb.modify_instance"), "source_commands"));
    }
}

// host keys

TEST_F(Agent_Declare_Test, an_unknown_key_is_shown_and_asked_for) {
    on_a_terminal();
    agent_.on("instance.try", std::vector<Value>{tried("unknown", false), tried("known", true)});
    start(ALL);
    answer(std::string("is unknown: ED25519 ") + FINGERPRINT, "");
    EXPECT_EQ(5, child_->wait()) << "an empty line is a no";
    EXPECT_THAT(err() + out(), HasSubstr("Nothing was changed."));
    EXPECT_EQ(1u, agent_.calls("instance.try").size());
    EXPECT_TRUE(agent_.calls("gaussdb.create_instance").empty());

    agent_.on("instance.try", std::vector<Value>{tried("unknown", false), tried("known", true)});
    start(ALL);
    answer("Is it that host's key? [y/N] ", "y");
    EXPECT_EQ(0, child_->wait()) << err();
    EXPECT_EQ(FINGERPRINT, json_spirit::object_get_str(last("instance.try"), "accept_host_key"));
    EXPECT_EQ(1u, agent_.calls("gaussdb.create_instance").size());
}

TEST_F(Agent_Declare_Test, a_script_accepts_no_key_unseen) {
    agent_.on("instance.try", tried("unknown", false));
    EXPECT_EQ(5, run(ALL));
    EXPECT_THAT(err(), HasSubstr(std::string("is unknown: ED25519 ") + FINGERPRINT));
    EXPECT_THAT(err(), HasSubstr(std::string("--host-key ") + FINGERPRINT + " accepts it."));
    EXPECT_TRUE(agent_.calls("gaussdb.create_instance").empty());
    EXPECT_EQ(1u, agent_.calls("instance.try").size());
}

TEST_F(Agent_Declare_Test, a_script_names_the_key) {
    EXPECT_EQ(0, run(all_and({"--host-key", FINGERPRINT})));
    EXPECT_EQ(FINGERPRINT, json_spirit::object_get_str(last("instance.try"), "accept_host_key"));
    agent_.on("instance.try", Scripted_Agent::Answer([](Value const&) -> Value {
                  throw Scripted_Agent::Refusal{-32005, "it is another key"};
              }));
    EXPECT_EQ(5, run(all_and({"--host-key", "SHA256:other"})));
    EXPECT_THAT(err(), HasSubstr("it is another key"));
    EXPECT_EQ(1u, agent_.calls("gaussdb.create_instance").size());
}

// what comes of it

TEST_F(Agent_Declare_Test, a_failed_trial_says_what_to_do_and_records_nothing) {
    agent_.on("instance.try", tried("known", false));
    EXPECT_EQ(1, run(ALL));
    EXPECT_THAT(out(), HasSubstr("FAIL  ssh 10.0.0.1: it does not accept a key\n"
                                 "      -> add the key\n"));
    EXPECT_THAT(err(), HasSubstr("cannot add instance dws1: the trial failed\n"));
    EXPECT_EQ(1, run(all_and({"--json"})));
    EXPECT_THAT(out(), HasSubstr("\"it does not accept a key\""));
    EXPECT_TRUE(agent_.calls("gaussdb.create_instance").empty());
}

TEST_F(Agent_Declare_Test, a_change_is_tried_with_the_rest_of_the_record) {
    EXPECT_EQ(0,
              run({"instance", "change", "dws1", "--address", "10.0.0.2", "--source-commands", ""}))
        << err();
    EXPECT_EQ(Value(Object{{"address", "10.0.0.2"},
                           {"meta_path", "/m"},
                           {"backup_port", 9500},
                           {"source_commands", ""},
                           {"ssh_options", "-4"},
                           {"version", 4}}),
              last("instance.try").at("options"));
    EXPECT_EQ(Value(Object{{"name", "dws1"}, {"address", "10.0.0.2"}, {"source_commands", ""}}),
              Value(last("gaussdb.modify_instance")));
    EXPECT_THAT(out(), HasSubstr("Instance dws1 is changed: DWS 8.2.1, nodes: 3.\n"));
}

TEST_F(Agent_Declare_Test, a_change_that_fails_or_says_nothing_changes_nothing) {
    EXPECT_EQ(2, run({"instance", "change", "dws1"}));
    EXPECT_THAT(err(), HasSubstr("name at least one option"));
    agent_.on("instance.try", tried("known", false));
    EXPECT_EQ(1, run({"instance", "change", "dws1", "--address", "10.0.0.2"}));
    agent_.on("instance.try", tried("unknown", false));
    EXPECT_EQ(5, run({"instance", "change", "dws1", "--address", "10.0.0.2"}));
    agent_.on("gaussdb.get_instance", Object{{"name", "prod"}});
    EXPECT_EQ(5, run({"instance", "change", "prod", "--address", "10.0.0.2"}));
    EXPECT_THAT(err(), HasSubstr("not a cluster that is reached by ssh"));
    EXPECT_TRUE(agent_.calls("gaussdb.modify_instance").empty());
}

TEST_F(Agent_Declare_Test, a_declared_cluster_is_removed_by_its_own_method) {
    agent_.on("instance.show", Object{{"name", "dws1"}, {"options", Object{{"manual", true}}}});
    agent_.on("gaussdb.remove_instance", Value(true));
    agent_.on("instance.remove", Object());
    EXPECT_EQ(0, run({"instance", "remove", "dws1", "--yes"})) << err();
    EXPECT_EQ("dws1", json_spirit::object_get_str(last("gaussdb.remove_instance"), "instance"));
    EXPECT_TRUE(agent_.calls("instance.remove").empty());
    agent_.on("instance.show", Object{{"name", "prod"}, {"options", Object()}});
    EXPECT_EQ(0, run({"instance", "remove", "prod", "--yes"}));
    EXPECT_EQ(1u, agent_.calls("instance.remove").size());
}

TEST_F(Agent_Declare_Test, nothing_that_comes_steers_the_terminal) {
    Value evil = tried("unknown", false);
    evil.get_obj()["host_key"].get_obj()["fingerprint"] = "\x1b[2Jx";
    agent_.on("instance.try", evil);
    EXPECT_EQ(5, run(ALL));
    EXPECT_THAT(err(), Not(HasSubstr("\x1b")));
}

} // namespace
