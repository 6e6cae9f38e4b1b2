#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "host/process/service_lister.h"
#include "json_spirit/access.h"
#include "qmrt/file.h"
#include "tests/support/log_capture.h"
#include "tests/support/postgres_server.h"
#include "tests/support/product_directories.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <list>
#include <sched.h>

namespace {

constexpr char GAUSSDB[] = "/home/omm/app/bin/gaussdb";

// stands for the database's own reader of its binary file; here that holds the coordinator's port
constexpr char READER[] = R"(
class Instance(object):
    def __init__(self, port):
        self.instanceType, self.port, self.datadir, self.listenIps = 0, port, "/cn", ["127.0.0.1"]
class Node(object):
    def __init__(self, port):
        self.name, self.backIps, self.sshIps = "host1", ["127.0.0.1"], ["127.0.0.1"]
        self.coordinators = [Instance(port)]
class dbClusterInfo(object):
    def initFromStaticConfig(self, user, path):
        self.dbNodes = [Node(int(open(path).read()))]
)";

/** A real server that runs as "gaussdb", of a cluster called "c1" of the 200 series. */
class Real_Server_Test : public testing::Test {
protected:
    Real_Server_Test() {
        host_.tools.prints("gs_check", "gs_check (GaussDB 8.1.3 build 39137c2d) compiled at 2022");
        std::filesystem::create_directories("/home/omm/app/bin");
        std::filesystem::create_directories("/home/omm/app/lib");
        start_server();
        // the link to the product's library is made there as the cluster's user
        EXPECT_EQ(0, chown_r("/home/omm/app", server_->os_user().c_str()));
        host_.write("/home/omm/app/bin/cluster_static_config", std::to_string(server_->port()));
        host_.write("/home/omm/tool/script/gspylib/__init__.py", "");
        host_.write("/home/omm/tool/script/gspylib/common/__init__.py", "");
        host_.write("/home/omm/tool/script/gspylib/common/DbClusterInfo.py", READER);
        host_.write("/opt/quilmot/zenbrak3/bin/probe_gaussdb_config", host_.read(PROBE_SCRIPT));
        host_.write("/home/omm/profile",
                    "export GS_CLUSTER_NAME=c1\nexport GAUSSHOME=/home/omm/app\nexport PGHOST=" +
                        server_->directory() + "\nexport PATH=" + server_->directory() +
                        ":$PATH\n");
    }

    void start_server() {
        Scoped_Env const name("GS_CLUSTER_NAME", "c1");
        Scoped_Env const profile("MPPDB_ENV_SEPARATE_PATH", "/home/omm/profile");
        Scoped_Env const gphome("GPHOME", "/home/omm/tool");
        server_ = std::make_unique<Postgres_Server>(GAUSSDB);
    }
    /** Opens a session of the database "gaussdb" that stays until the test is over. */
    void open_session() {
        sessions_.emplace_back(
            std::vector<std::string>{server_->directory() + "/gsql", "-h", server_->directory(),
                                     "-p", std::to_string(server_->port()), "-U", "postgres", "-d",
                                     "gaussdb", "-c", "select pg_sleep(1000)"},
            "", "/dev/null", SIGKILL);
    }
    static size_t processes(char const* pattern) {
        std::vector<Service_Info> services;
        EXPECT_EQ(0, Service_Lister::list_service(pattern, services, true, "C"));
        return services.size();
    }

    Product_Directories host_;
    std::unique_ptr<Postgres_Server> server_;
    std::list<Server_Child> sessions_;
    GaussDB_Cluster_Manager manager_;
};

TEST_F(Real_Server_Test, is_found_with_its_user_and_answers_its_clients) {
    json_spirit::Array instances;
    ASSERT_TRUE(manager_.get_instances(instances));
    ASSERT_EQ(1u, instances.size()) << Log_Capture::instance().dump();
    json_spirit::Object const& record = instances[0].get_obj();
    EXPECT_EQ("c1", json_spirit::object_get_str(record, "instance"));
    EXPECT_EQ("host1", json_spirit::object_get_str(record, "nodes"));
    EXPECT_EQ("/home/omm/app", json_spirit::object_get_str(record, "app_path"));
    EXPECT_EQ(server_->os_user(), json_spirit::object_get_str(record, "user"));

    GaussDB_Cluster_Handler_var const cluster = manager_.get_cluster("c1");
    EXPECT_TRUE(cluster->test_logon("postgres", ""));
    server_->run("create database one_more");
    std::vector<std::string> databases;
    EXPECT_TRUE(cluster->list_database("postgres", "", databases));
    EXPECT_THAT(databases, testing::Contains("one_more"));
}

TEST_F(Real_Server_Test, thirty_sessions_lead_to_one_handler_and_one_question) {
    server_->run("create database gaussdb");
    for (int number = 0; number < 30; ++number)
        open_session();
    // a server process of each session has the database's name in its title
    while (processes("postgres: postgres gaussdb .*SELECT") < 30)
        sched_yield();
    EXPECT_LE(31u, processes("(?!gaussdb:|\\./secbox).*\\bgaussdb\\b.*"));
    for (int round = 0; round < 2; ++round) {
        json_spirit::Array instances;
        ASSERT_TRUE(manager_.get_instances(instances));
        EXPECT_EQ(1u, instances.size());
    }
    EXPECT_EQ(1u, host_.tools.calls("gs_check"));
}

TEST_F(Real_Server_Test, comes_back_offline_when_it_is_stopped_and_its_directory_gone) {
    json_spirit::Array instances;
    ASSERT_TRUE(manager_.get_instances(instances));
    server_.reset();
    std::filesystem::remove("/home/omm/app/bin/cluster_static_config");
    std::filesystem::remove("/home/omm/profile");

    GaussDB_Cluster_Manager after_restart;
    EXPECT_FALSE(after_restart.list_cluster());
    EXPECT_TRUE(after_restart.update_offline_instance("c1", "postgres", GAUSSDB_200, "8.1.3"));
    GaussDB_Cluster_Handler_var const cluster = after_restart.get_cluster("c1");
    ASSERT_FALSE(cluster.null());
    EXPECT_EQ(manager_.get_cluster("c1")->env().get_env(), cluster->env().get_env());
    EXPECT_EQ("host1", cluster->info().nodes) << "by the saved copy of its configuration";
    EXPECT_TRUE(cluster->is_first_device());
    EXPECT_FALSE(cluster->test_logon("postgres", ""));
    Log_Capture::instance().claim_all(LM_WARNING, "");
    Log_Capture::instance().claim_all(LM_ERROR, "");
}

} // namespace
