#include "host/agent/host_manager.h"

#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace {

/** Puts back what the agent has configured. */
class Host_Manager_Test : public testing::Test {
protected:
    ~Host_Manager_Test() override {
        host_->name(name_);
        host_->uuid("");
        host_->access_key(secure_string());
        host_->node_access_key(secure_string());
        host_->component(Host_Manager::CPN_AGENT);
    }
    Host_Manager* const host_ = Host_Manager::instance();
    std::string const name_ = host_->name();
};

TEST_F(Host_Manager_Test, the_name_is_the_hosts_own_at_first) {
    char name[256];
    gethostname(name, sizeof name);
    EXPECT_EQ(name, host_->name());
    EXPECT_NE("", host_->name());
}

TEST_F(Host_Manager_Test, the_rest_is_empty_until_it_is_configured) {
    EXPECT_EQ("", host_->uuid());
    EXPECT_TRUE(host_->access_key().empty());
    EXPECT_TRUE(host_->node_access_key().empty());
    EXPECT_EQ(Host_Manager::CPN_AGENT, host_->component());
    EXPECT_FALSE(host_->on_backupd());
}

TEST_F(Host_Manager_Test, each_setter_sets_its_own_value) {
    host_->uuid("uuid");
    host_->name("name");
    host_->access_key(secure_string("key"));
    host_->node_access_key(secure_string("node key"));
    EXPECT_EQ("uuid", host_->uuid());
    EXPECT_EQ("name", Host_Manager::instance()->name());
    EXPECT_EQ("key", host_->access_key().plain());
    EXPECT_EQ("node key", host_->node_access_key().plain());
}

TEST_F(Host_Manager_Test, the_backup_server_is_one_of_the_components) {
    for (auto component :
         {Host_Manager::CPN_UNKNOWN, Host_Manager::CPN_AGENT, Host_Manager::CPN_BACKUPD,
          Host_Manager::CPN_CONTROLLER, Host_Manager::CPN_STORAGED, Host_Manager::CPN_LICENSED}) {
        host_->component(component);
        EXPECT_EQ(component == Host_Manager::CPN_BACKUPD, host_->on_backupd());
    }
    EXPECT_EQ(5, Host_Manager::CPN_LICENSED);
}

TEST_F(Host_Manager_Test, the_key_of_a_run_belongs_to_its_thread) {
    host_->access_key(secure_string("key"));
    std::thread([this] {
        EXPECT_TRUE(host_->access_key().empty());
        host_->access_key(secure_string("another"));
        EXPECT_EQ("another", host_->access_key().plain());
    }).join();
    EXPECT_EQ("key", host_->access_key().plain());
    host_->access_key(secure_string());
    EXPECT_TRUE(host_->access_key().empty());
}

TEST_F(Host_Manager_Test, threads_read_while_one_writes) {
    host_->uuid("uuid 0");
    std::thread writer([this] {
        for (int count = 0; count < 200; ++count)
            host_->uuid("uuid " + std::to_string(count));
    });
    for (int count = 0; count < 200; ++count)
        EXPECT_EQ(0u, host_->uuid().find("uuid "));
    writer.join();
}

} // namespace
