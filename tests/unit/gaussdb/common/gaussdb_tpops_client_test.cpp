#include "gaussdb/common/gaussdb_tpops_client.h"

#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/tpops_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

class GaussDB_TPOPS_Client_Test : public testing::Test {
protected:
    static constexpr char DATABASES_OF_I1[] = "GET /rds/gaussdb/v3/instances/i1/databases";

    GaussDB_TPOPS_Client client() const {
        GaussDB_TPOPS_Instance_Info info;
        info.id = "i1";
        info.version = "505.1";
        return GaussDB_TPOPS_Client(info, platform_.login());
    }
    static json_spirit::Object database(char const* name) {
        TPOPS_Database_Info info;
        info.name = name;
        return info.dump();
    }

    TPOPS_Platform platform_;
    std::vector<std::string> names_{"before"};
};

TEST_F(GaussDB_TPOPS_Client_Test, databases_are_appended_in_the_platforms_order) {
    platform_.on(DATABASES_OF_I1,
                 json_spirit::Object_Maker()("databases", json_spirit::Array_Maker()(database("z"))(
                                                              database("a")))("total_count", 2));
    EXPECT_TRUE(client().list_database(names_));
    EXPECT_THAT(names_, testing::ElementsAre("before", "z", "a"));
}

TEST_F(GaussDB_TPOPS_Client_Test, databases_that_cannot_be_listed_are_a_failure) {
    EXPECT_FALSE(client().list_database(names_));
    EXPECT_LOGGED(LM_ERROR, "TPOPS request 'GET /rds/gaussdb/v3/instances/i1/databases'");
    platform_.on(DATABASES_OF_I1, 200, "{}");
    EXPECT_FALSE(client().list_database(names_));
    EXPECT_LOGGED(LM_ERROR, "Failed to read the answer of TPOPS: ");
    EXPECT_THAT(names_, testing::ElementsAre("before"));
}

TEST_F(GaussDB_TPOPS_Client_Test, without_a_login_nothing_is_listed) {
    TPOPS_Platform refusing({}, false);
    refusing.on_login_refused();
    GaussDB_TPOPS_Client const client(GaussDB_TPOPS_Instance_Info(), refusing.login());
    EXPECT_FALSE(client.list_database(names_));
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty");
    EXPECT_TRUE(refusing.calls().empty());
}

TEST_F(GaussDB_TPOPS_Client_Test, the_version_is_the_one_on_record) {
    EXPECT_EQ("505.1", client().get_version());
    EXPECT_TRUE(platform_.requests().empty());
}

TEST_F(GaussDB_TPOPS_Client_Test, a_login_is_the_test_of_an_account) {
    EXPECT_TRUE(client().test_logon());
    EXPECT_EQ(1u, platform_.logins());
    TPOPS_Platform refusing({}, false);
    refusing.on_login_refused();
    EXPECT_FALSE(GaussDB_TPOPS_Client({}, refusing.login()).test_logon());
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty");
    TPOPS_Platform odd({}, false);
    odd.on(TPOPS_Platform::LOGIN, 200, "[]");
    EXPECT_FALSE(GaussDB_TPOPS_Client({}, odd.login()).test_logon());
    EXPECT_LOGGED(LM_ERROR, "Failed to read the answer of TPOPS: ");
}

TEST_F(GaussDB_TPOPS_Client_Test, a_query_does_nothing_and_succeeds) {
    EXPECT_TRUE(client().query("select 1", names_, true));
    EXPECT_TRUE(client().query(nullptr, names_, false));
    EXPECT_THAT(names_, testing::ElementsAre("before"));
    EXPECT_TRUE(platform_.requests().empty());
}

} // namespace
