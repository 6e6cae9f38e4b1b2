#include "gaussdb/websvcs_agent/tpops_list_handler.h"

#include "tests/unit/gaussdb/tpops_platform.h"
#include "tests/unit/gaussdb/websvcs_agent/instance_handler_fixture.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

class TPOPS_List_Test : public Instance_Handler_Fixture<JSON_RPC_TPOPS_List_Handler> {
protected:
    /** The platform offers these. */
    void offers(std::vector<std::string> const& names) {
        Array list;
        for (std::string const& name : names) {
            list.push_back(Object{{"id", "id-" + name},
                                  {"name", name},
                                  {"instance_status", "normal"},
                                  {"mode", "Ha"},
                                  {"engine_version", "505.1"}});
            platform_.on("GET /rds/gaussdb/v3/instances/id-" + name + "/agent/status", 200,
                         R"({"node_list": [1, 2]})");
        }
        platform_.on("GET /rds/v3/instances", Object{{"instances", list}});
    }
    static Object offered(std::string const& name) {
        return {{"id", "id-" + name}, {"name", name},       {"status", "normal"},
                {"type", "Ha"},       {"version", "505.1"}, {"node_count", 2}};
    }
    /** The params of a login. */
    Object login() { return platform_.record(""); }

    TPOPS_Platform platform_;
};

TEST_F(TPOPS_List_Test, only_requests_are_handled) {
    expect_only_requests_are_handled();
}

TEST_F(TPOPS_List_Test, a_login_lists_all) {
    offers({"a", "b"});
    EXPECT_EQ(Value(Array{offered("a"), offered("b")}), result(login()));
}

TEST_F(TPOPS_List_Test, an_instance_on_record_lists_itself_alone) {
    offers({"a", "b", "c"});
    put_record("b", platform_.record("id-b"));
    EXPECT_EQ(Value(Array{offered("b")}), result(Object{{"name", "b"}}));
}

TEST_F(TPOPS_List_Test, of_two_with_one_name_the_first_is_listed) {
    offers({"b", "b"});
    put_record("b", platform_.record("id-b"));
    EXPECT_EQ(Value(Array{offered("b")}), result(Object{{"name", "b"}}));
    EXPECT_EQ(Value(Array{offered("b"), offered("b")}), result(login()));
}

TEST_F(TPOPS_List_Test, an_instance_that_is_not_on_record_is_refused_without_asking) {
    EXPECT_EQ("-32602 Instance does not exists", error(Object{{"name", "b"}}));
    Object both = login();
    both["name"] = "b";
    EXPECT_EQ("-32602 Instance does not exists", error(both));
    EXPECT_TRUE(platform_.requests().empty());
}

TEST_F(TPOPS_List_Test, an_instance_that_the_platform_does_not_know) {
    offers({"a"});
    put_record("b", platform_.record("id-b"));
    EXPECT_EQ("-32603 Internal error: failed to get instances info", error(Object{{"name", "b"}}));
}

TEST_F(TPOPS_List_Test, an_instance_that_is_not_of_a_platform) {
    put_record("c1", {{"user", "omm"}});
    EXPECT_EQ("-32602 Invalid params", error(Object{{"name", "c1"}}));
    EXPECT_LOGGED(LM_ERROR, "Invalid params: ");
}

TEST_F(TPOPS_List_Test, a_platform_without_instances) {
    offers({});
    EXPECT_EQ("-32603 Internal error: failed to get instances info", error(login()));
}

TEST_F(TPOPS_List_Test, a_list_that_fails) {
    platform_.on("GET /rds/v3/instances", 500, "{}");
    EXPECT_EQ("-32603 Internal error: failed to get instances info", error(login()));
    EXPECT_LOGGED(LM_ERROR, "TPOPS request 'GET /rds/v3/instances'");
}

TEST_F(TPOPS_List_Test, a_login_that_is_refused) {
    TPOPS_Platform refusing({}, false);
    refusing.on_login_refused();
    EXPECT_EQ("-32603 Internal error: failed to connect to TPOPS server",
              error(refusing.record("")));
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty");
}

TEST_F(TPOPS_List_Test, an_answer_that_cannot_be_read_leaves_for_the_frame) {
    platform_.on("GET /rds/v3/instances", 200, "{}");
    EXPECT_THROW(ask(login()), json_spirit::Error);
}

TEST_F(TPOPS_List_Test, params_that_are_no_login) {
    for (Value const& other : {Value(Array{}), Value("x"), Value(5), Value()})
        EXPECT_EQ("-32602 Invalid params to list TPOPS instances", error(other));
    for (char const* key : {"tpops_host", "tpops_port", "tpops_ssl", "username", "password"}) {
        Object missing = login();
        missing.erase(key);
        EXPECT_EQ("-32602 Invalid params", error(missing)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid params: ");
    }
    EXPECT_TRUE(platform_.requests().empty());
}

TEST_F(TPOPS_List_Test, without_memory_there_is_no_answer) {
    Failing_New const no_memory(sizeof(JSON_RPC_Response));
    errno = 0;
    EXPECT_EQ(Value(), ask(login(), -1));
    EXPECT_EQ(ENOMEM, errno);
}

} // namespace
