#include "gaussdb/common/gaussdb_cluster_identity.h"

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "qmrt/file.h"
#include "tests/support/cluster_xml.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace {

class Identified_Handler : public GaussDB_Cluster_Handler {
public:
    using GaussDB_Cluster_Handler::conf_;
    using GaussDB_Cluster_Handler::GaussDB_Cluster_Handler;
    using GaussDB_Cluster_Handler::parse_cluster_info;

    bool init(char const*) override { return true; }
    GaussDB_Client_ptr create_client(char const*, char const*, char const*) const override {
        return nullptr;
    }
};

class Cluster_Identity_Test : public testing::Test {
protected:
    Cluster_Identity_Test() {
        profile_names("c1");
        machines("host1");
        system("/home/omm/dn1", 7);
        env_.set_env("MPPDB_ENV_SEPARATE_PATH", "/home/omm/profile");
        env_.set_env("GS_CLUSTER_NAME", "c1");
        handler_ = std::make_unique<Identified_Handler>(env_, "nobody",
                                                        GaussDB_Version(GAUSSDB_100, 1, 0, 0));
        handler_->conf_ = CONF;
        EXPECT_TRUE(handler_->parse_cluster_info());
        record_ = look();
    }
    void profile_names(std::string const& name) {
        host_.write("/home/omm/profile", "export GS_CLUSTER_NAME=" + name + "\n");
    }
    void machines(std::string const& name) {
        host_.write(CONF, cluster_xml({{"clusterName", "c1"}}, {{{"name", name},
                                                                 {"dataNum", "1"},
                                                                 {"dataPortBase", "4000"},
                                                                 {"dataNode1", "/home/omm/dn1"}}}));
    }
    void system(std::string const& directory, uint64_t id) {
        std::string content(reinterpret_cast<char const*>(&id), sizeof id);
        host_.write(directory + "/global/pg_control", content + "more");
    }
    Cluster_Identity look() { return Cluster_Identity::look(*handler_, record_); }

    static constexpr char CONF[] = "/home/omm/clusterconfig.xml";
    Product_Directories host_;
    GaussDB_Env env_;
    std::unique_ptr<Identified_Handler> handler_;
    Cluster_Identity record_;
};

TEST_F(Cluster_Identity_Test, it_is_name_topology_and_system_identifiers) {
    EXPECT_EQ("c1", record_.name);
    EXPECT_EQ("host1 0 4000 /home/omm/dn1\n", record_.topology);
    EXPECT_NE("", record_.stamp);
    EXPECT_EQ((std::map<std::string, std::string>{{"/home/omm/dn1", "7"}}), record_.systems);
}

TEST_F(Cluster_Identity_Test, the_same_cluster_does_not_differ) {
    EXPECT_EQ("", record_.difference(look(), true));
    record_.topology = "known"; // the file is not read again as long as its stamp is the same
    EXPECT_EQ("known", look().topology);
}

TEST_F(Cluster_Identity_Test, another_name_in_the_profile_is_another_cluster) {
    profile_names("c2");
    EXPECT_EQ("its user's tools answer for the cluster \"c2\" now",
              record_.difference(look(), false));
}

TEST_F(Cluster_Identity_Test, other_machines_are_another_cluster) {
    machines("host2");
    EXPECT_EQ("its machines, ports or data directories have changed",
              record_.difference(look(), false));
    machines("host1");
    EXPECT_EQ("", record_.difference(look(), true)) << "written anew, and the same";
}

TEST_F(Cluster_Identity_Test, another_database_counts_only_with_the_data) {
    system("/home/omm/dn1", 8);
    EXPECT_EQ("", record_.difference(look(), false));
    EXPECT_EQ("the database in /home/omm/dn1 is another one, with the system identifier 8 in place "
              "of 7",
              record_.difference(look(), true));
}

TEST_F(Cluster_Identity_Test, what_cannot_be_seen_equals_anything) {
    std::filesystem::remove_all("/home/omm");
    Cluster_Identity const nothing = look();
    EXPECT_EQ("", nothing.name + nothing.topology + nothing.stamp);
    EXPECT_TRUE(nothing.systems.empty());
    EXPECT_EQ("", record_.difference(nothing, true));
    EXPECT_EQ("", nothing.difference(record_, true));
    EXPECT_FALSE(record_.complete(nothing));
    EXPECT_EQ("c1", record_.name);
}

TEST_F(Cluster_Identity_Test, a_record_keeps_what_it_has_and_takes_the_rest) {
    Cluster_Identity empty;
    EXPECT_TRUE(empty.complete(record_));
    EXPECT_EQ(record_.dump(), empty.dump());
    EXPECT_FALSE(empty.complete(record_));
    Cluster_Identity other;
    other.name = "c2";
    other.stamp = "s";
    other.systems = {{"/home/omm/dn1", "8"}, {"/home/omm/dn2", "9"}};
    EXPECT_TRUE(empty.complete(other));
    EXPECT_EQ("c1", empty.name);
    EXPECT_EQ("s", empty.stamp);
    EXPECT_EQ("7", empty.systems["/home/omm/dn1"]);
    EXPECT_EQ("9", empty.systems["/home/omm/dn2"]);
}

TEST_F(Cluster_Identity_Test, it_is_read_as_it_was_written) {
    Cluster_Identity read;
    EXPECT_TRUE(read.read(record_.dump()));
    EXPECT_EQ(record_.dump(), read.dump());
    for (char const* key : {"name", "topology", "stamp", "systems"}) {
        json_spirit::Object object = record_.dump();
        object.erase(key);
        EXPECT_FALSE(Cluster_Identity().read(object)) << key;
    }
}

TEST_F(Cluster_Identity_Test, files_that_only_root_can_read_say_nothing_to_its_user) {
    EXPECT_EQ(0, chmod("/home/omm/dn1/global/pg_control", 0600));
    EXPECT_EQ(0, chmod("/home/omm/profile", 0600));
    EXPECT_TRUE(look().systems.empty());
    EXPECT_EQ("", look().name);
}

} // namespace
