#include "gaussdb/common/gaussdb_tpops_handler.h"

#include "gaussdb/common/gaussdb_tpops_client.h"
#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/tpops_platform.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

class GaussDB_TPOPS_Handler_Test : public testing::Test {
protected:
    explicit GaussDB_TPOPS_Handler_Test(bool takes_logins = true) : platform_({}, takes_logins) {}

    bool init(json_spirit::Object const& record) {
        GaussDB_Cluster_Info info;
        info.extend_attrs = record;
        handler_.info(info);
        return handler_.init("");
    }
    bool init() { return init(platform_.record("i1")); }
    std::string status() {
        std::string result = "old";
        bool balanced = true;
        EXPECT_TRUE(handler_.get_status(result, balanced));
        EXPECT_TRUE(balanced) << "left alone";
        return result;
    }
    std::string failed_status() {
        std::string result = "old";
        bool balanced = false;
        EXPECT_FALSE(handler_.get_status(result, balanced));
        return result;
    }
    /** The platform's word for the instance's state; null for none. */
    void on_instance(json_spirit::Value const& status) {
        json_spirit::Object instance{{"id", "i1"}};
        if (!status.is_null())
            instance["instance_status"] = status;
        platform_.on("GET /rds/v3/instances",
                     json_spirit::Object_Maker()("instances", json_spirit::Array{instance}));
        platform_.on("GET /rds/gaussdb/v3/instances/i1/agent/status", 200, "{}");
    }
    /** What a login by this client sends. */
    json_spirit::Object sent_login() {
        json_spirit::Value sent;
        EXPECT_TRUE(json_spirit::parse(platform_.requests().back().body, sent, nullptr));
        return sent.get_obj();
    }

    TPOPS_Platform platform_;
    GaussDB_TPOPS_Handler handler_;
};

class Refusing_Platform_Test : public GaussDB_TPOPS_Handler_Test {
protected:
    Refusing_Platform_Test() : GaussDB_TPOPS_Handler_Test(false) {}
};

TEST_F(GaussDB_TPOPS_Handler_Test, a_new_one_is_of_the_flavour_and_knows_nothing) {
    EXPECT_TRUE(handler_.get_gaussdb_version() == GaussDB_Version(GAUSSDB_TPOPS, 0, 0, 0));
    EXPECT_EQ("", handler_.user());
    EXPECT_TRUE(handler_.env().get_env().empty());
    EXPECT_EQ("", handler_.get_login_info().host);
    EXPECT_EQ("", handler_.get_instance_info().id);
}

TEST_F(GaussDB_TPOPS_Handler_Test, init_reads_instance_and_login_from_one_record) {
    json_spirit::Object record = platform_.record("i1");
    json_spirit::insert(record)("xbsa_host", "x")("xbsa_port", 9)("version", "505.1");
    ASSERT_TRUE(init(record));
    EXPECT_EQ("i1", handler_.get_instance_info().id);
    EXPECT_EQ("x", handler_.get_instance_info().xbsa_host);
    EXPECT_EQ(9, handler_.get_instance_info().xbsa_port);
    EXPECT_EQ(platform_.port(), handler_.get_login_info().port);
    EXPECT_EQ(TPOPS_Platform::USER, handler_.get_login_info().username);
    EXPECT_EQ(TPOPS_Platform::PASSWORD, handler_.get_login_info().password.plain());
    EXPECT_EQ("505.1", handler_.get_database_version());
    EXPECT_TRUE(platform_.requests().empty());
}

TEST_F(GaussDB_TPOPS_Handler_Test, init_needs_every_key_of_the_login) {
    ASSERT_TRUE(init());
    for (char const* key : {"tpops_host", "tpops_port", "tpops_ssl", "username", "password"}) {
        json_spirit::Object record = platform_.record("i2");
        record.erase(key);
        EXPECT_FALSE(init(record)) << key;
        EXPECT_LOGGED(LM_ERROR, "Failed to extract TPOPS info: ");
    }
    EXPECT_EQ("i1", handler_.get_instance_info().id) << "the handler stays as it was";
}

TEST_F(GaussDB_TPOPS_Handler_Test, init_refuses_a_value_of_the_wrong_kind) {
    json_spirit::Object record = platform_.record("i1");
    record["xbsa_port"] = 65536;
    EXPECT_FALSE(init(record));
    EXPECT_LOGGED(LM_ERROR, "Failed to extract TPOPS info: ");
}

TEST_F(GaussDB_TPOPS_Handler_Test, init_takes_over_a_changed_record) {
    ASSERT_TRUE(init());
    TPOPS_Login const& old = handler_.get_login_info();
    json_spirit::Object record = platform_.record("i2");
    record["username"] = "other";
    ASSERT_TRUE(init(record));
    EXPECT_EQ("i2", handler_.get_instance_info().id);
    EXPECT_EQ("other", handler_.get_login_info().username);
    EXPECT_EQ(TPOPS_Platform::USER, old.username) << "a reference stays valid";
}

TEST_F(GaussDB_TPOPS_Handler_Test, a_client_without_an_account_has_the_login_on_record) {
    ASSERT_TRUE(init());
    for (auto const& [user, password] :
         {std::pair<char const*, char const*>{nullptr, nullptr}, {nullptr, "x"}, {"x", nullptr}}) {
        EXPECT_TRUE(handler_.create_client(user, password, nullptr)->test_logon());
        EXPECT_EQ(TPOPS_Platform::USER, sent_login()["username"].get_str());
        EXPECT_EQ(TPOPS_Platform::PASSWORD, sent_login()["password"].get_str());
    }
}

TEST_F(GaussDB_TPOPS_Handler_Test, a_client_with_an_account_has_that_one) {
    ASSERT_TRUE(init());
    EXPECT_TRUE(handler_.create_client("u2", "", "ignored")->test_logon());
    EXPECT_EQ("u2", sent_login()["username"].get_str());
    EXPECT_EQ("", sent_login()["password"].get_str());
}

TEST_F(GaussDB_TPOPS_Handler_Test, without_memory_there_is_no_client) {
    Failing_New const guard(sizeof(GaussDB_TPOPS_Client));
    errno = 0;
    EXPECT_EQ(nullptr, handler_.create_client(nullptr, nullptr, nullptr));
    EXPECT_EQ(ENOMEM, errno);
}

TEST_F(GaussDB_TPOPS_Handler_Test, an_account_that_logs_on_is_used_from_then_on) {
    ASSERT_TRUE(init());
    EXPECT_TRUE(handler_.test_logon("u2", "p2"));
    EXPECT_EQ("u2", handler_.get_login_info().username);
    EXPECT_EQ("p2", handler_.get_login_info().password.plain());
    EXPECT_EQ("localhost", handler_.get_login_info().host);
    TPOPS_Login const& first = handler_.get_login_info();
    EXPECT_TRUE(handler_.test_logon("u2", "p2"));
    EXPECT_EQ(&first, &handler_.get_login_info()) << "nothing piles up";
    EXPECT_TRUE(handler_.test_logon(nullptr, nullptr));
    EXPECT_EQ("u2", handler_.get_login_info().username);
}

TEST_F(Refusing_Platform_Test, an_account_that_does_not_log_on_changes_nothing) {
    platform_.on_login_refused();
    ASSERT_TRUE(init());
    EXPECT_FALSE(handler_.test_logon("u2", "p2"));
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty");
    EXPECT_EQ(TPOPS_Platform::USER, handler_.get_login_info().username);
    EXPECT_EQ(TPOPS_Platform::PASSWORD, handler_.get_login_info().password.plain());
}

TEST_F(GaussDB_TPOPS_Handler_Test, states_of_the_platform) {
    ASSERT_TRUE(init());
    std::pair<json_spirit::Value, char const*> const cases[] = {{"normal", "running"},
                                                                {"", "running"},
                                                                {json_spirit::Value(), "running"},
                                                                {"Normal", "error"},
                                                                {"abnormal", "error"}};
    for (auto const& [word, expected] : cases)
        on_instance(word);
    for (auto const& [word, expected] : cases)
        EXPECT_EQ(expected, status()) << JSON_Dump(word).str();
}

TEST_F(GaussDB_TPOPS_Handler_Test, an_instance_that_cannot_be_fetched_counts_as_running) {
    ASSERT_TRUE(init());
    platform_.on("GET /rds/v3/instances", 500, "{}");
    EXPECT_EQ("running", status());
    EXPECT_LOGGED(LM_ERROR, "TPOPS request 'GET /rds/v3/instances'");
}

TEST_F(GaussDB_TPOPS_Handler_Test, an_answer_that_cannot_be_read_gives_no_state) {
    ASSERT_TRUE(init());
    platform_.on("GET /rds/v3/instances", 200, "{}");
    EXPECT_EQ("error", failed_status());
    EXPECT_LOGGED(LM_ERROR, "Failed to read the answer of TPOPS: ");
}

TEST_F(GaussDB_TPOPS_Handler_Test, without_an_id_nothing_is_asked) {
    ASSERT_TRUE(init(platform_.record("")));
    EXPECT_EQ("error", failed_status());
    json_spirit::Object record = platform_.record("");
    record.erase("id");
    ASSERT_TRUE(init(record));
    EXPECT_EQ("error", failed_status());
    EXPECT_TRUE(platform_.requests().empty());
}

TEST_F(Refusing_Platform_Test, a_refused_login_says_nothing_against_the_instance) {
    ASSERT_TRUE(init());
    platform_.on_login_refused(401);
    platform_.on_login_refused(403);
    EXPECT_EQ("running", status());
    EXPECT_EQ("running", status());
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, "Mini token is empty"));
    EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(Refusing_Platform_Test, another_failed_login_gives_no_state) {
    ASSERT_TRUE(init());
    platform_.on_login_refused(500);
    platform_.on(TPOPS_Platform::LOGIN, 200, "[]");
    EXPECT_EQ("error", failed_status());
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty");
    EXPECT_EQ("error", failed_status());
    EXPECT_LOGGED(LM_ERROR, "Failed to read the answer of TPOPS: ");
}

TEST_F(GaussDB_TPOPS_Handler_Test, databases_are_listed_by_the_account_that_is_given) {
    ASSERT_TRUE(init());
    platform_.on("GET /rds/gaussdb/v3/instances/i1/databases", 200, R"({"databases": []})");
    std::vector<std::string> names;
    EXPECT_TRUE(handler_.list_database("u2", "p2", names));
    EXPECT_TRUE(names.empty());
}

TEST_F(GaussDB_TPOPS_Handler_Test, threads_may_read_while_an_account_changes) {
    ASSERT_TRUE(init());
    std::thread other([&] {
        for (char const* user : {"u1", "u2", "u3"})
            EXPECT_TRUE(handler_.test_logon(user, "p"));
    });
    for (int round = 0; round < 1000; ++round) {
        EXPECT_FALSE(handler_.get_login_info().username.empty());
        EXPECT_EQ("i1", handler_.get_instance_info().id);
    }
    other.join();
    EXPECT_EQ("u3", handler_.get_login_info().username);
}

} // namespace
