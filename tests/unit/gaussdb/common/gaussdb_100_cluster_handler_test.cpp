#include "gaussdb/common/gaussdb_100_cluster_handler.h"

#include "gaussdb/common/gaussdb_zsql_client.h"
#include "tests/support/cluster_xml.h"
#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>

namespace {

using testing::ElementsAre;

constexpr GaussDB_Version VERSION(GAUSSDB_100, 1, 0, 2);

class Handler_100_Test : public testing::Test {
protected:
    Handler_100_Test() {
        env_.set_env("PATH", std::getenv("PATH"));
        env_.set_env("GPHOME", "/home/omm/tool");
    }

    /** Makes handler_ of a cluster with this file. */
    bool init(std::string const& service_type, std::vector<Xml_Params> const& devices) {
        host_.write(conf_,
                    cluster_xml({{"clusterName", "c1"}, {"ServiceType", service_type}}, devices));
        handler_ = std::make_unique<GaussDB_100_Cluster_Handler>(env_, "nobody", VERSION);
        return handler_->init("c1");
    }
    /** The zsql that a client of handler_ starts. */
    Tool_Call zsql_call(bool with_password) {
        std::string const output = "out NAME\nout ----\nout db1\nout 1 rows fetched.\n";
        host_.tools.script("zsql", (with_password ? "line\n" : "") + output);
        GaussDB_Client_ptr const client =
            handler_->create_client("sys", with_password ? "secret" : "", "ignored");
        std::vector<std::string> rows;
        if (with_password)
            EXPECT_TRUE(client->query("select 1", rows, true));
        else
            client->get_version();
        return host_.tools.call("zsql", host_.tools.calls("zsql"));
    }

    Product_Directories host_;
    GaussDB_Env env_;
    std::string const conf_ = "/home/omm/tool/script/config/clusterconfig.xml";
    std::unique_ptr<GaussDB_100_Cluster_Handler> handler_;
};

TEST_F(Handler_100_Test, a_file_that_its_user_cannot_read_is_not_read_for_him) {
    host_.write("/home/secret.xml", cluster_xml({{"clusterName", "of root"}}, {}));
    ASSERT_EQ(0, chmod("/home/secret.xml", 0600));
    std::filesystem::create_directories("/home/omm/tool/script/config");
    std::filesystem::create_symlink("/home/secret.xml", conf_);
    GaussDB_100_Cluster_Handler handler(env_, "nobody", VERSION);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_EQ("", handler.info().name);
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML ");
}

TEST_F(Handler_100_Test, the_file_lies_below_gphome_and_nothing_is_generated) {
    ASSERT_TRUE(init("SingleService", {{{"name", "host1"}}}));
    EXPECT_EQ(conf_, handler_->conf());
    EXPECT_EQ("c1", handler_->info().name);
    EXPECT_FALSE(host_.exists("/var/opt/quilmot/zenbrak3"));
}

TEST_F(Handler_100_Test, init_is_done_once) {
    ASSERT_TRUE(init("SingleService", {{{"name", "host1"}}}));
    EXPECT_TRUE(handler_->init(nullptr));
    EXPECT_EQ(1u, handler_->nodes());
}

TEST_F(Handler_100_Test, after_a_failure_init_returns_true) {
    GaussDB_100_Cluster_Handler handler(env_, "nobody", VERSION);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML " + conf_ + "\n");
    EXPECT_FALSE(host_.exists(host_.SYSTEM_LINK));
    EXPECT_TRUE(handler.init("c1"));
}

TEST_F(Handler_100_Test, a_single_service_of_one_device_is_single) {
    ASSERT_TRUE(init("SingleService", {{{"name", "host9"}}}));
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_SINGLE, handler_->type());
}

TEST_F(Handler_100_Test, a_single_service_of_two_devices_is_a_pair) {
    ASSERT_TRUE(init("SingleService", {{{"name", "host1"}}, {{"name", "host2"}}}));
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_HA2NODE, handler_->type());
}

TEST_F(Handler_100_Test, a_single_service_without_devices_counts_as_a_pair) {
    ASSERT_TRUE(init("SingleService", {}));
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_HA2NODE, handler_->type());
}

TEST_F(Handler_100_Test, any_other_service_type_is_ha) {
    ASSERT_TRUE(init("singleservice", {{{"name", "host1"}}}));
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_HA, handler_->type());
    ASSERT_TRUE(init("", {{{"name", "host1"}}}));
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_HA, handler_->type());
}

TEST_F(Handler_100_Test, the_coordinators_first_directory_is_taken_whole) {
    ASSERT_TRUE(init("Distributed", {{{"name", "host1"},
                                      {"cooPortBase", "8000"},
                                      {"cooDir1", "/data/cn1,x"},
                                      {"cooDir2", "/data/cn2"},
                                      {"dataPortBase", "40000"},
                                      {"dataNode1", "/data/dn1"}}}));
    EXPECT_THAT(zsql_call(true).args, ElementsAre("zsql", "sys@127.0.0.1:8000", "-q", "-D",
                                                  "/data/cn1,x", "-c", "select 1"));
}

TEST_F(Handler_100_Test, a_data_nodes_directory_ends_before_the_first_comma) {
    ASSERT_TRUE(init("Distributed", {{{"name", "host1"},
                                      {"cooDir1", "/data/cn1"},
                                      {"dataPortBase", "40000"},
                                      {"dataNode1", "/data/dn1,host2,/data/dn1s"},
                                      {"dataNode2", "/data/dn2"}}}));
    Tool_Call const call = zsql_call(true);
    EXPECT_THAT(call.args, ElementsAre("zsql", "sys@127.0.0.1:40000", "-q", "-D", "/data/dn1", "-c",
                                       "select 1"));
    EXPECT_EQ(getpwnam("nobody")->pw_uid, call.uid);
}

TEST_F(Handler_100_Test, a_data_nodes_directory_without_a_comma_stays_whole) {
    ASSERT_TRUE(init("Distributed",
                     {{{"name", "host1"}, {"dataPortBase", "40000"}, {"dataNode1", "/data/dn1"}}}));
    EXPECT_EQ("/data/dn1", zsql_call(true).args.at(4));
}

TEST_F(Handler_100_Test, of_a_pair_the_first_device_counts_wherever_the_agent_runs) {
    ASSERT_TRUE(init("SingleService",
                     {{{"name", "host7"}, {"dataPortBase", "1888"}, {"dataNode1", "/data/first"}},
                      {{"name", "host1"}, {"dataPortBase", "1999"}, {"dataNode1", "/data/own"}}}));
    EXPECT_EQ("sys@127.0.0.1:1888", zsql_call(true).args.at(1));
}

TEST_F(Handler_100_Test, of_others_this_hosts_device_counts) {
    ASSERT_TRUE(init("Distributed", {{{"name", "host7"}, {"dataPortBase", "1888"}},
                                     {{"name", "host1"}, {"dataPortBase", "1999"}}}));
    EXPECT_EQ("sys@127.0.0.1:1999", zsql_call(true).args.at(1));
}

TEST_F(Handler_100_Test, a_host_that_is_not_among_the_devices_has_no_port) {
    ASSERT_TRUE(init("Distributed", {{{"name", "host7"}, {"dataPortBase", "1888"}}}));
    EXPECT_EQ("sys@127.0.0.1:0", zsql_call(true).args.at(1));
}

TEST_F(Handler_100_Test, a_single_instance_is_asked_as_sysdba_and_others_as_clsmgr) {
    Xml_Params const device = {
        {"name", "host1"}, {"dataPortBase", "1888"}, {"dataNode1", "/data/dn1"}};
    ASSERT_TRUE(init("SingleService", {device}));
    EXPECT_THAT(zsql_call(false).args, ElementsAre("zsql", "/", "as", "sysdba", "-D", "/data/dn1",
                                                   "-q", "-c", "select version"));
    ASSERT_TRUE(init("SingleService", {device, device}));
    EXPECT_EQ("clsmgr", zsql_call(false).args.at(3));
}

TEST_F(Handler_100_Test, the_systems_link_points_at_the_series_own_library) {
    ASSERT_TRUE(init("SingleService", {}));
    EXPECT_EQ("/opt/quilmot/zenbrak3/lib/libxbsa64i.so", host_.link_target(host_.SYSTEM_LINK));
}

TEST_F(Handler_100_Test, a_library_in_the_links_place_is_a_failure) {
    host_.write(host_.SYSTEM_LINK, "a library");
    EXPECT_FALSE(init("SingleService", {}));
    EXPECT_LOGGED(LM_ERROR, "Failed to link /opt/quilmot/zenbrak3/lib/libxbsa64i.so to "
                            "/usr/openv/lib/libxbsa64.so, errno=17, File exists\n");
}

TEST_F(Handler_100_Test, a_directory_that_cannot_be_made_is_a_failure) {
    Read_Only_Mount const guard("/usr/openv");
    EXPECT_FALSE(init("SingleService", {}));
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir /usr/openv/lib, errno=30, ");
}

TEST_F(Handler_100_Test, without_memory_there_is_no_client) {
    ASSERT_TRUE(init("SingleService", {}));
    Failing_New const guard(sizeof(GaussDB_Zsql_Client));
    EXPECT_EQ(nullptr, handler_->create_client("sys", "", ""));
    EXPECT_EQ(ENOMEM, errno);
}

} // namespace
