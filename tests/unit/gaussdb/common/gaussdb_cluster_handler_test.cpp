#include "gaussdb/common/gaussdb_cluster_handler.h"

#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>

namespace {

using testing::ElementsAre;

/** What a client was made with, and what it is to answer. */
struct Client_Script {
    bool available = true;
    bool logon = true;
    std::string username;
    std::string password;
    std::string db;
};

class Scripted_Client : public GaussDB_Client {
public:
    Scripted_Client(GaussDB_Env const& env, Client_Script const& script)
        : GaussDB_Client(env, nullptr, nullptr, nullptr, 0, nullptr, nullptr), script_(script) {}
    bool list_database(std::vector<std::string>& databases) const override {
        databases.push_back("db1");
        return true;
    }
    std::string get_version() const override { return "8.1.3"; }
    bool test_logon() const override { return script_.logon; }
    bool query(char const*, std::vector<std::string>&, bool) const override { return false; }

private:
    Client_Script const& script_;
};

class Plain_Handler : public GaussDB_Cluster_Handler {
public:
    using GaussDB_Cluster_Handler::conf_;
    using GaussDB_Cluster_Handler::find_local_device;
    using GaussDB_Cluster_Handler::GaussDB_Cluster_Handler;
    using GaussDB_Cluster_Handler::parse_cluster_info;

    bool init(char const*) override { return true; }
    GaussDB_Client_ptr create_client(char const* username, char const* password,
                                     char const* db) const override {
        auto const text = [](char const* value) { return value ? value : "(null)"; };
        script->username = text(username);
        script->password = text(password);
        script->db = text(db);
        return script->available ? std::make_unique<Scripted_Client>(env_, *script) : nullptr;
    }

    std::unique_ptr<Client_Script> const script = std::make_unique<Client_Script>();
};

class Cluster_Handler_Test : public testing::Test {
protected:
    Cluster_Handler_Test() {
        env_.set_env("PATH", host_.tools.path());
        env_.set_env("GAUSSHOME", "/g");
    }
    static GaussDB_Cluster_Info with_devices(std::vector<std::string> const& names) {
        GaussDB_Cluster_Info info;
        for (std::string const& name : names) {
            info.devices.emplace_back();
            info.devices.back().name = name;
        }
        return info;
    }

    Product_Directories host_;
    Temporary_Directory files_;
    GaussDB_Env env_;
};

TEST_F(Cluster_Handler_Test, what_it_was_made_of) {
    Plain_Handler const handler(env_, "omm", GAUSSDB_A_811);
    env_.set_env("GAUSSHOME", "/changed");
    EXPECT_STREQ("/g", handler.env().gauss_home()) << "the environment is copied";
    EXPECT_EQ("omm", handler.user());
    EXPECT_EQ("", handler.conf());
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_HA, handler.type());
    EXPECT_TRUE(handler.get_gaussdb_version() == GAUSSDB_A_811);
    EXPECT_EQ(0u, handler.nodes());
}

TEST_F(Cluster_Handler_Test, numbers_of_the_types) {
    EXPECT_EQ(0, GaussDB_Cluster_Handler::TYPE_NONE);
    EXPECT_EQ(1, GaussDB_Cluster_Handler::TYPE_SINGLE);
    EXPECT_EQ(2, GaussDB_Cluster_Handler::TYPE_HA2NODE);
    EXPECT_EQ(3, GaussDB_Cluster_Handler::TYPE_HA);
}

TEST_F(Cluster_Handler_Test, info_is_replaced_as_a_whole) {
    Plain_Handler handler(env_, "omm", GAUSSDB_A_811);
    GaussDB_Cluster_Info info = with_devices({"a", "b"});
    info.name = "c1";
    handler.info(info);
    EXPECT_EQ(2u, handler.nodes());
    EXPECT_EQ("c1", handler.info().name);
    handler.info(GaussDB_Cluster_Info());
    EXPECT_EQ(0u, handler.nodes());
}

TEST_F(Cluster_Handler_Test, first_device_is_the_one_with_this_hosts_name) {
    Plain_Handler handler(env_, "omm", GAUSSDB_A_811);
    EXPECT_FALSE(handler.is_first_device()) << "no device at all";
    handler.info(with_devices({"host1", "host2"}));
    EXPECT_TRUE(handler.is_first_device());
    handler.info(with_devices({"host2", "host1"}));
    EXPECT_FALSE(handler.is_first_device());
    handler.info(with_devices({"HOST1"}));
    EXPECT_FALSE(handler.is_first_device());
}

TEST_F(Cluster_Handler_Test, local_device_is_the_first_with_this_hosts_name) {
    Plain_Handler handler(env_, "omm", GAUSSDB_A_811);
    EXPECT_EQ(nullptr, handler.find_local_device());
    GaussDB_Cluster_Info info = with_devices({"host2", "host1", "host1"});
    info.devices[1].coordinators.port = 8000;
    handler.info(info);
    ASSERT_NE(nullptr, handler.find_local_device());
    EXPECT_EQ(8000, handler.find_local_device()->coordinators.port);
}

TEST_F(Cluster_Handler_Test, a_broken_file_leaves_the_topology_as_it_was) {
    Plain_Handler handler(env_, "omm", GAUSSDB_A_811);
    handler.info(with_devices({"a"}));
    handler.conf_ = files_.write("cut.xml", "<ROOT><DEVICELIST><DEVICE/><DEVICE/>");
    EXPECT_FALSE(handler.parse_cluster_info());
    EXPECT_LOGGED(LM_ERROR, "Failed to parse XML " + handler.conf_);
    EXPECT_EQ(1u, handler.nodes());
}

TEST_F(Cluster_Handler_Test, status_is_asked_as_the_clusters_user) {
    host_.tools.prints("gs_om", "cluster_state   : Degraded\nbalanced        : Yes");
    Plain_Handler const handler(env_, "nobody", GAUSSDB_A_811);
    std::string status;
    bool balanced = false;
    EXPECT_TRUE(handler.get_status(status, balanced));
    EXPECT_EQ("Degraded", status);
    EXPECT_TRUE(balanced);
    EXPECT_THAT(host_.tools.call("gs_om").args, ElementsAre("gs_om", "-t", "status"));
    EXPECT_EQ(getpwnam("nobody")->pw_uid, host_.tools.call("gs_om").uid);
}

TEST_F(Cluster_Handler_Test, logon_is_the_clients) {
    Plain_Handler handler(env_, "omm", GAUSSDB_A_811);
    EXPECT_TRUE(handler.test_logon("sys", "secret"));
    EXPECT_EQ("sys", handler.script->username);
    EXPECT_EQ("secret", handler.script->password);
    EXPECT_EQ("(null)", handler.script->db);
    handler.script->logon = false;
    EXPECT_FALSE(handler.test_logon("sys", "wrong"));
}

TEST_F(Cluster_Handler_Test, databases_are_the_clients) {
    Plain_Handler const handler(env_, "omm", GAUSSDB_A_811);
    std::vector<std::string> databases;
    EXPECT_TRUE(handler.list_database("sys", "secret", databases));
    EXPECT_THAT(databases, ElementsAre("db1"));
    EXPECT_EQ("sys", handler.script->username);
    EXPECT_EQ("(null)", handler.script->db);
}

TEST_F(Cluster_Handler_Test, the_servers_version_is_asked_without_an_account) {
    Plain_Handler const handler(env_, "omm", GAUSSDB_A_811);
    EXPECT_EQ("8.1.3", handler.get_database_version());
    EXPECT_EQ("(null)", handler.script->username);
    EXPECT_EQ("(null)", handler.script->password);
}

TEST_F(Cluster_Handler_Test, without_a_client) {
    Plain_Handler handler(env_, "omm", GAUSSDB_A_811);
    handler.script->available = false;
    EXPECT_FALSE(handler.test_logon("sys", "secret"));
    EXPECT_CHECK_LOGGED("client is NULL");
    std::vector<std::string> databases;
    EXPECT_FALSE(handler.list_database("sys", "secret", databases));
    EXPECT_CHECK_LOGGED("client is NULL");
    EXPECT_EQ("", handler.get_database_version());
}

} // namespace
