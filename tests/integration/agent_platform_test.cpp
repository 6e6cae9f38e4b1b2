// The command for platforms, on a terminal and in a script.
#include "host/agent/credential.h"
#include "tests/integration/agent_command_fixture.h"

namespace {

class Agent_Platform_Test : public Command_Run_Test {
protected:
    Agent_Platform_Test() {
        setting_.env = {
            {"LANG", "C.UTF-8"}, {"PATH", "/usr/bin:/bin"}, {"ZENBRAK3_SOCKET", agent_.path()}};
        setting_.input = "se cret\nnot this\n";
        agent_.on("agent.info", Object{{"uid", "uid-1"}});
        agent_.on("instance.list",
                  Object{{"instances", Array{Object{{"name", "old"}}, Object{{"name", "prod"}}}}});
        agent_.on("gaussdb.list_tpops_instances", Value(Array{offered("orders"), offered("old"),
                                                              offered("stock"), offered("a b")}));
        agent_.on("gaussdb.add_tpops_instances", Value(Array{"uuid-1", "uuid-2"}));
        agent_.on("instance.show",
                  Object{{"name", "orders"}, {"options", Object{{"tpops_host", "h"}}}});
        agent_.on("gaussdb.modify_instance", Value(true));
    }

    static Object offered(std::string const& name) {
        return {{"id", "id-" + name.substr(0, 1)},
                {"name", name},
                {"status", "normal"},
                {"type", "Ha"},
                {"version", "505.1"},
                {"node_count", 3}};
    }
    Object last(std::string const& method) const {
        auto const calls = agent_.calls(method);
        return calls.empty() ? Object() : calls.back().get_obj();
    }
    /** Takes the password out of the params of a call. @return in plain */
    static std::string password_of(Object& params) {
        std::string const text = json_spirit::object_get_str(params, "password");
        params.erase("password");
        return decrypt_secure_string(text, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH).plain();
    }
    static std::vector<std::string> add(std::vector<std::string> more) {
        std::vector<std::string> words{"platform", "add", "tpops.example", "--user", "backup"};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }
    static std::vector<std::string> add_with_route(std::vector<std::string> more) {
        more.insert(more.end(), {"--xbsa-host", "10.0.0.5", "--xbsa-port", "9000"});
        return add(more);
    }
    void expect_nothing_asked() {
        EXPECT_TRUE(agent_.calls("gaussdb.list_tpops_instances").empty());
        EXPECT_TRUE(agent_.calls("gaussdb.add_tpops_instances").empty());
    }

    Scripted_Agent agent_;
};

TEST_F(Agent_Platform_Test, a_list_asks_with_the_password_of_stdin) {
    EXPECT_EQ(0, run({"platform", "list", "tpops.example", "--user", "backup"})) << err();
    Object login = last("gaussdb.list_tpops_instances");
    EXPECT_EQ("se cret", password_of(login));
    EXPECT_EQ((Object{{"tpops_host", "tpops.example"},
                      {"tpops_port", 8002},
                      {"tpops_ssl", true},
                      {"username", "backup"}}),
              login);
    EXPECT_THAT(out(), HasSubstr("NAME"));
    EXPECT_THAT(out(), HasSubstr("orders"));
    EXPECT_THAT(out(), HasSubstr("id-s"));
}

TEST_F(Agent_Platform_Test, a_list_as_json) {
    EXPECT_EQ(0, run({"platform", "list", "h", "--user", "u", "--json"})) << err();
    Value printed;
    ASSERT_TRUE(json_spirit::parse(out(), printed, nullptr)) << out();
    EXPECT_EQ(4u, printed.get_obj()["instances"].get_array().size());
}

TEST_F(Agent_Platform_Test, a_password_on_the_terminal_is_not_shown) {
    setting_.columns = 100;
    start({"platform", "list", "tpops.example", "--user", "backup"});
    ASSERT_TRUE(child_->await("Password of backup on tpops.example: ")) << err();
    EXPECT_FALSE(child_->echoes());
    child_->type("typed\n");
    EXPECT_EQ(0, child_->wait()) << err();
    Object login = last("gaussdb.list_tpops_instances");
    EXPECT_EQ("typed", password_of(login));
    EXPECT_THAT(out() + err(), Not(HasSubstr("typed")));
}

TEST_F(Agent_Platform_Test, where_a_platform_may_be) {
    struct Case {
        char const* text;
        char const* host;
        int port;
    };
    for (Case const& one : {Case{"10.0.0.1:1", "10.0.0.1", 1},
                            {"h:65535", "h", 65535},
                            {"::1", "::1", 8002},
                            {"[::1]", "::1", 8002},
                            {"[fe80::2]:99", "fe80::2", 99}}) {
        EXPECT_EQ(0, run({"platform", "list", one.text, "--user", "u", "--no-tls"})) << err();
        Object const login = last("gaussdb.list_tpops_instances");
        EXPECT_EQ(one.host, json_spirit::object_get_str(login, "tpops_host"));
        EXPECT_EQ(Value(one.port), login.at("tpops_port"));
        EXPECT_EQ(Value(false), login.at("tpops_ssl"));
    }
}

TEST_F(Agent_Platform_Test, where_a_platform_cannot_be) {
    for (char const* text : {"h:", "h:0", "h:65536", "h:x", "a b", "h/x", "", "[::1]:x", ":1"}) {
        EXPECT_EQ(2, run({"platform", "list", text, "--user", "u"})) << text;
        EXPECT_NE("", err());
    }
    expect_nothing_asked();
}

TEST_F(Agent_Platform_Test, without_a_password_nothing_is_asked) {
    setting_.input = "\n";
    EXPECT_EQ(2, run({"platform", "list", "h", "--user", "u"}));
    EXPECT_THAT(err(), HasSubstr("no password was read: it is empty"));
    expect_nothing_asked();
}

TEST_F(Agent_Platform_Test, a_password_is_not_an_option) {
    EXPECT_EQ(2, run({"platform", "list", "h", "--user", "u", "--password", "x"}));
}

TEST_F(Agent_Platform_Test, a_platform_that_cannot_be_reached) {
    agent_.on("gaussdb.list_tpops_instances", [](Value const&) -> Value {
        throw Scripted_Agent::Refusal{-32603, "Internal error: failed to connect to TPOPS server"};
    });
    EXPECT_EQ(1, run({"platform", "list", "h", "--user", "u"}));
    EXPECT_THAT(err(), HasSubstr("cannot list the instances of platform h: "));
    EXPECT_THAT(err(), HasSubstr("ca_file"));
    EXPECT_THAT(err(), Not(HasSubstr("se cret")));
}

TEST_F(Agent_Platform_Test, instances_are_added_by_name) {
    EXPECT_EQ(0, run(add_with_route({"orders", "stock"}))) << err();
    Object params = last("gaussdb.add_tpops_instances");
    EXPECT_EQ("se cret", password_of(params));
    EXPECT_EQ((Object{{"uid", "uid-1"},
                      {"username", "backup"},
                      {"tpops_host", "tpops.example"},
                      {"tpops_port", 8002},
                      {"tpops_ssl", true},
                      {"xbsa_host", "10.0.0.5"},
                      {"xbsa_port", 9000},
                      {"xbsa_ssl", true},
                      {"instances", Array{offered("orders"), offered("stock")}}}),
              params);
    EXPECT_THAT(out(), HasSubstr("On record: orders, stock."));
}

TEST_F(Agent_Platform_Test, all_leaves_out_what_cannot_be_added) {
    EXPECT_EQ(0, run(add_with_route({"--all", "--no-xbsa-tls", "--uid", "uid-2"}))) << err();
    Object const params = last("gaussdb.add_tpops_instances");
    EXPECT_EQ(Value(Array{offered("orders"), offered("stock")}), params.at("instances"));
    EXPECT_EQ(Value(false), params.at("xbsa_ssl"));
    EXPECT_EQ(Value("uid-2"), params.at("uid"));
    EXPECT_THAT(err(), HasSubstr("Left out old: an instance of this name is on record already."));
    EXPECT_THAT(err(), HasSubstr("Left out a b: its name "));
}

TEST_F(Agent_Platform_Test, a_name_that_cannot_be_added_stops_all) {
    std::pair<char const*, char const*> const cases[] = {
        {"old", "an instance of this name is on record already"},
        {"missing", "the platform does not offer it to this user"},
        {"orders", "an instance of this name is on record already"}};
    for (auto const& [name, why] : cases) {
        EXPECT_EQ(5, run(add_with_route({"orders", name}))) << name;
        EXPECT_THAT(err(), HasSubstr(std::string("cannot add instance ") + name + ": " + why));
    }
    EXPECT_TRUE(agent_.calls("gaussdb.add_tpops_instances").empty());
}

TEST_F(Agent_Platform_Test, a_hostile_platform_adds_nothing) {
    Object bad = offered("orders");
    bad["id"] = "../x";
    agent_.on("gaussdb.list_tpops_instances",
              Value(Array{bad, offered("../up"), offered("$(reboot)"), offered("x\n y"), "text"}));
    EXPECT_EQ(5, run(add_with_route({"--all"})));
    EXPECT_THAT(err(), HasSubstr("the platform offers no instance that is not on record"));
    EXPECT_TRUE(agent_.calls("gaussdb.add_tpops_instances").empty());
}

TEST_F(Agent_Platform_Test, instances_that_were_not_added_are_a_failure) {
    agent_.on("gaussdb.add_tpops_instances", Value(Array{"uuid-1"}));
    EXPECT_EQ(1, run(add_with_route({"orders", "stock"})));
    EXPECT_THAT(err(), HasSubstr("only 1 of 2 instances were added"));
}

TEST_F(Agent_Platform_Test, what_an_addition_needs) {
    EXPECT_EQ(2, run(add({"orders"}))) << "no route";
    EXPECT_EQ(2, run(add_with_route({}))) << "no instance";
    EXPECT_THAT(err(), HasSubstr("INSTANCE or --all"));
    EXPECT_EQ(2, run(add_with_route({"orders", "--all"}))) << "both";
    EXPECT_EQ(2, run({"platform", "add", "h", "orders", "--xbsa-host", "x", "--xbsa-port", "1"}));
    EXPECT_EQ(2, run(add_with_route({"../x"})));
    expect_nothing_asked();
}

TEST_F(Agent_Platform_Test, a_change_sends_what_is_given) {
    EXPECT_EQ(0, run({"platform", "change", "orders", "--platform", "h2:9", "--no-tls",
                      "--xbsa-host", "x", "--xbsa-port", "7", "--xbsa-tls"}))
        << err();
    EXPECT_EQ((Object{{"name", "orders"},
                      {"tpops_host", "h2"},
                      {"tpops_port", 9},
                      {"tpops_ssl", false},
                      {"xbsa_host", "x"},
                      {"xbsa_port", 7},
                      {"xbsa_ssl", true}}),
              last("gaussdb.modify_instance"));
    EXPECT_EQ(0, run({"platform", "change", "orders", "--tls"})) << err();
    EXPECT_EQ((Object{{"name", "orders"}, {"tpops_ssl", true}}), last("gaussdb.modify_instance"));
}

TEST_F(Agent_Platform_Test, a_change_of_nothing_or_of_another_instance_is_refused) {
    EXPECT_EQ(2, run({"platform", "change", "orders"}));
    EXPECT_EQ(2, run({"platform", "change", "orders", "--platform", "h:x"}));
    agent_.on("instance.show", Object{{"name", "c1"}, {"options", Object{{"user", "omm"}}}});
    EXPECT_EQ(5, run({"platform", "change", "c1", "--no-tls"}));
    EXPECT_THAT(err(), HasSubstr("it is not an instance of a platform"));
    EXPECT_TRUE(agent_.calls("gaussdb.modify_instance").empty());
}

} // namespace
