#include "gaussdb/websvcs_agent/tpops_add_instance_handler.h"

#include "gaussdb/common/gaussdb_tpops_handler.h"
#include "tests/unit/gaussdb/tpops_platform.h"
#include "tests/unit/gaussdb/websvcs_agent/instance_handler_fixture.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::IsEmpty;

class TPOPS_Add_Test : public Instance_Handler_Fixture<JSON_RPC_TPOPS_Add_Instance_Handler> {
protected:
    TPOPS_Add_Test() {
        enciphered_ = encrypt_string("secret", CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH);
    }

    Object params(Array const& instances) const {
        return {{"uid", "user-1"},        {"username", "u1"},  {"password", enciphered_},
                {"instances", instances}, {"tpops_host", "h"}, {"tpops_port", 1234},
                {"tpops_ssl", true},      {"xbsa_host", "x"},  {"xbsa_port", 9},
                {"xbsa_ssl", true}};
    }
    static Object element(char const* name) {
        return {{"id", std::string("id-") + name}, {"name", name}};
    }
    size_t added(Object const& wish) { return result(wish).get_array().size(); }
    GaussDB_TPOPS_Handler* cluster(char const* name) {
        return dynamic_cast<GaussDB_TPOPS_Handler*>(
            GaussDB_Cluster_Manager::instance()->get_cluster(name).get());
    }

    std::string enciphered_;
};

TEST_F(TPOPS_Add_Test, only_requests_are_handled) {
    expect_only_requests_are_handled();
}

TEST_F(TPOPS_Add_Test, instances_are_entered_and_recorded) {
    Object second = element("b");
    second["version"] = "505.1";
    second["xbsa_port"] = 10;
    Array const uuids = result(params({element("a"), second})).get_array();
    ASSERT_EQ(2u, uuids.size());
    ASSERT_TRUE(record("a"));
    EXPECT_EQ(uuids[0].get_str(), record("a")->uuid);
    EXPECT_EQ(36u, record("a")->uuid.size());
    Object expected{{"id", "id-a"},      {"name", "a"},        {"status", ""},
                    {"type", ""},        {"version", ""},      {"node_count", 0},
                    {"tpops_host", "h"}, {"tpops_port", 1234}, {"tpops_ssl", true},
                    {"xbsa_host", "x"},  {"xbsa_port", 9},     {"xbsa_ssl", true},
                    {"manual", true},    {"username", "u1"},   {"password", enciphered_}};
    EXPECT_EQ(expected, record("a")->options);
    EXPECT_EQ("gaussdb", record("a")->type);
    ASSERT_TRUE(cluster("a"));
    EXPECT_EQ(expected, cluster("a")->info().extend_attrs);
    EXPECT_EQ("a", cluster("a")->info().name);
    EXPECT_EQ("secret", cluster("a")->get_login_info().password.plain());
    EXPECT_EQ(uuids[1].get_str(), record("b")->uuid);
    EXPECT_EQ(10, cluster("b")->get_instance_info().xbsa_port);
    EXPECT_NE(uuids[0], uuids[1]);
}

TEST_F(TPOPS_Add_Test, the_account_is_recorded_in_plain_for_the_backend) {
    result(params({element("a")}));
    std::string username;
    secure_string password;
    Object account;
    EXPECT_EQ(0, Instance_Manager::instance()->get_account("gaussdb", "user-1", "a", username,
                                                           password, &account));
    EXPECT_EQ("u1", username);
    EXPECT_EQ("secret", password.plain());
    EXPECT_EQ("instance", account.at("auth_type").get_str());
}

TEST_F(TPOPS_Add_Test, the_backup_server_is_told) {
    result(params({element("a")}));
    ASSERT_EQ(1u, upstream_->notifications().size());
    auto const [method, told] = upstream_->notifications().front();
    EXPECT_EQ("backupd.instance.notify", method);
    EXPECT_EQ(Value(Object{{"type", "gaussdb"},
                           {"name", "a"},
                           {"accounts", Array{Object{{"user_uuid", "user-1"}, {"name", "null"}}}}}),
              told);
}

TEST_F(TPOPS_Add_Test, a_server_that_was_not_told_is_no_failure) {
    upstream_->reachable(false);
    EXPECT_EQ(1u, added(params({element("a")})));
    EXPECT_LOGGED(LM_ERROR, "Failed to notify the server");
    EXPECT_TRUE(record("a"));
}

TEST_F(TPOPS_Add_Test, what_an_instance_does_not_say_the_one_before_it_did) {
    Object first = element("a");
    insert(first)("type", "Ha")("xbsa_host", "other");
    Object const second{{"name", "b"}};
    EXPECT_EQ(2u, added(params({first, "skipped", second})));
    EXPECT_EQ("Ha", record("b")->options.at("type").get_str());
    EXPECT_EQ("other", record("b")->options.at("xbsa_host").get_str());
    EXPECT_EQ("id-a", record("b")->options.at("id").get_str());
}

TEST_F(TPOPS_Add_Test, a_name_that_is_taken_is_passed_over) {
    enter_manual("a");
    put_record("b", {{"user", "omm"}});
    EXPECT_EQ(1u, added(params({element("a"), element("b"), element("c"), element("c")})));
    EXPECT_LOGGED(LM_ERROR, "GaussDB instance a already exists.\n");
    EXPECT_LOGGED(LM_ERROR, "GaussDB instance b already exists.\n");
    EXPECT_LOGGED(LM_ERROR, "GaussDB instance c already exists.\n");
    EXPECT_EQ("omm", record("b")->options.at("user").get_str());
    EXPECT_FALSE(is_known("b"));
    EXPECT_TRUE(record("c"));
}

TEST_F(TPOPS_Add_Test, with_a_text_that_cannot_be_one_nothing_is_added) {
    for (char const* name : {"", "../a", "a b", "-a", "meta", "a\nb", "$(x)"}) {
        EXPECT_EQ("-32602 Invalid params", error(params({element("b"), Object{{"name", name}}})));
        EXPECT_LOGGED(LM_ERROR, "Invalid params: name '");
    }
    for (auto const& [key, value] :
         {std::pair{"id", "../b"}, {"tpops_host", "h/x"}, {"xbsa_host", "-h"}, {"type", "a\nb"}}) {
        Object wish = element("c");
        wish[key] = value;
        EXPECT_EQ("-32602 Invalid params", error(params({element("b"), wish}))) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid params: " + std::string(key) + " '");
        wish = params({element("b")});
        wish[key] = value;
        EXPECT_EQ("-32602 Invalid params", error(wish)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid params: " + std::string(key) + " '");
    }
    EXPECT_EQ(0u, instances_->list("gaussdb").size());
    EXPECT_THAT(upstream_->notifications(), IsEmpty());
}

TEST_F(TPOPS_Add_Test, without_instances_the_answer_is_an_empty_array) {
    EXPECT_EQ(Value(Array{}), result(params({})));
}

TEST_F(TPOPS_Add_Test, an_element_without_a_name_raises_after_those_before_it) {
    EXPECT_THROW(ask(params({element("a"), Object{{"id", "i"}}, element("b")})),
                 json_spirit::Error);
    EXPECT_TRUE(record("a"));
    EXPECT_FALSE(record("b"));
    EXPECT_THROW(ask(params({Object{{"name", "c"}, {"xbsa_port", "9"}}})), json_spirit::Error);
    EXPECT_FALSE(record("c"));
}

TEST_F(TPOPS_Add_Test, keys_that_are_missing_or_of_another_kind) {
    for (char const* key : {"uid", "username", "password", "instances"}) {
        Object missing = params({element("a")});
        missing.erase(key);
        EXPECT_EQ("-32602 Invalid params", error(missing)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid params: ");
        missing[key] = 7;
        EXPECT_EQ("-32602 Invalid params", error(missing)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid params: ");
    }
    Object wrong = params({element("a")});
    wrong["tpops_port"] = "8002";
    EXPECT_EQ("-32602 Invalid params", error(wrong));
    EXPECT_LOGGED(LM_ERROR, "Invalid params: ");
    EXPECT_FALSE(record("a"));
}

TEST_F(TPOPS_Add_Test, a_user_or_a_password_that_cannot_be_one) {
    Object wrong = params({element("a")});
    wrong["uid"] = "../x";
    EXPECT_EQ("-32602 Invalid params", error(wrong));
    wrong = params({element("a")});
    wrong["username"] = "a\nb";
    EXPECT_EQ("-32602 Invalid params", error(wrong));
    wrong = params({element("a")});
    wrong["password"] = "in plain";
    EXPECT_EQ("-32602 Invalid params", error(wrong));
    EXPECT_EQ(3u, Log_Capture::instance().claim_all(LM_ERROR, "Invalid params: "));
    Log_Capture::instance().claim_all(LM_ERROR, "decrypt");
    EXPECT_NOT_LOGGED("in plain");
    Log_Capture::instance().claim_all(LM_ERROR, "");
    EXPECT_FALSE(record("a"));
}

TEST_F(TPOPS_Add_Test, params_that_are_no_object) {
    for (Value const& other : {Value(Array{}), Value("x"), Value(5), Value()})
        EXPECT_EQ("-32602 Invalid params to add TPOPS instance", error(other));
}

TEST_F(TPOPS_Add_Test, without_a_host_the_fault_shows_at_the_first_login) {
    Object wish = params({element("a")});
    wish.erase("tpops_host");
    EXPECT_EQ(1u, added(wish));
    std::string status;
    bool balanced = false;
    EXPECT_FALSE(cluster("a")->get_status(status, balanced));
    EXPECT_LOGGED(LM_ERROR, "the host is not a valid name or address");
    EXPECT_LOGGED(LM_ERROR, "Failed to get mini token");
}

TEST_F(TPOPS_Add_Test, an_instance_that_cannot_be_recorded_is_passed_over) {
    instances_->fail("put");
    EXPECT_EQ(0u, added(params({element("a")})));
    EXPECT_LOGGED(LM_ERROR, "Failed to add a instance.\n");
    Log_Capture::instance().claim_all(LM_ERROR, "");
    EXPECT_FALSE(is_known("a"));
    EXPECT_FALSE(record("a"));
}

TEST_F(TPOPS_Add_Test, an_account_that_cannot_be_saved_takes_the_instance_with_it) {
    instances_->fail("save_account");
    EXPECT_EQ(0u, added(params({element("a")})));
    EXPECT_LOGGED(LM_ERROR, "Failed to save a account.\n");
    Log_Capture::instance().claim_all(LM_ERROR, "");
    EXPECT_FALSE(is_known("a"));
    EXPECT_FALSE(record("a"));
    EXPECT_THAT(upstream_->notifications(), IsEmpty());
}

TEST_F(TPOPS_Add_Test, without_memory_for_a_part_there_is_no_answer) {
    for (size_t const size : {sizeof(GaussDB_TPOPS_Handler), sizeof(Instance)}) {
        Failing_New const no_memory(size);
        errno = 0;
        EXPECT_EQ(Value(), ask(params({element("a")}), -1));
        EXPECT_EQ(ENOMEM, errno);
        EXPECT_FALSE(is_known("a"));
        EXPECT_FALSE(record("a"));
    }
}

TEST_F(TPOPS_Add_Test, without_memory_for_the_answer_nothing_is_added) {
    Failing_New const no_memory(sizeof(JSON_RPC_Response));
    EXPECT_EQ("-32603 Internal error, out of memory.", error(params({element("a")})));
    EXPECT_FALSE(record("a"));
}

} // namespace
