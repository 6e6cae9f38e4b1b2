#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/job/roach_executor.h"
#include "gaussdb/job/roach_meta_parser.h"
#include "gaussdb/job/roach_progress_handler.h"
#include "host/process/subprocess.h"
#include "json_spirit/access.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_env.h"

#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

/** Runs a command of the sandbox's cluster; the test ends when it fails. */
std::string sandbox(std::string const& words) {
    std::string const command = SANDBOX "/cluster " + words;
    std::string output;
    FILE* const pipe = popen(command.c_str(), "r");
    if (!pipe)
        throw std::runtime_error(command);
    char buffer[4096];
    while (size_t const count = fread(buffer, 1, sizeof(buffer), pipe))
        output.append(buffer, count);
    if (pclose(pipe) != 0)
        throw std::runtime_error(command + ": " + output);
    return output;
}

/** The sandbox's cluster as the module sees it; the program runs on a machine that has one. */
class Sandbox_Cluster_Test : public testing::Test {
protected:
    Sandbox_Cluster_Test() {
        fs::create_directories("/opt/quilmot/zenbrak3/bin");
        fs::copy_file(PROBE_SCRIPT, "/opt/quilmot/zenbrak3/bin/probe_gaussdb_config",
                      fs::copy_options::overwrite_existing);
        for (char const* directory : {"/home/omm/store", "/home/omm/meta"}) {
            fs::remove_all(directory);
            fs::create_directory(directory);
            fs::permissions(directory, fs::perms::owner_all);
        }
        EXPECT_EQ(0, std::system("chown omm /home/omm/store /home/omm/meta"));
        sandbox("start");
        json_spirit::Array instances;
        if (manager_.get_instances(instances) && instances.size() == 1)
            record_ = instances[0].get_obj();
        cluster_ = manager_.get_cluster("c1");
    }
    void SetUp() override { ASSERT_FALSE(cluster_.null()) << Log_Capture::instance().dump(); }

    GaussDB_Cluster_Manager manager_;
    json_spirit::Object record_;
    GaussDB_Cluster_Handler_var cluster_;
    Scoped_Env store_{"SANDBOX_OBJECT_DIRECTORY", "/home/omm/store"};
};

TEST_F(Sandbox_Cluster_Test, is_found_as_a_cluster_of_the_200_series) {
    char host[256];
    ASSERT_EQ(0, gethostname(host, sizeof(host)));
    EXPECT_EQ(host, json_spirit::object_get_str(record_, "nodes"));
    EXPECT_EQ("/home/omm/app", json_spirit::object_get_str(record_, "app_path"));
    EXPECT_EQ("omm", json_spirit::object_get_str(record_, "user"));
    EXPECT_EQ(GAUSSDB_200, cluster_->get_gaussdb_version().model_);
    EXPECT_EQ("8.1.1", cluster_->get_gaussdb_version().dump());
    EXPECT_TRUE(cluster_->is_first_device());
    ASSERT_EQ(1u, cluster_->nodes());
    EXPECT_EQ(2, cluster_->info().devices[0].data_nodes.num);
    EXPECT_TRUE(fs::is_symlink("/home/omm/app/lib/libsimsearch/libxbsa64.so"));
}

TEST_F(Sandbox_Cluster_Test, serves_the_modules_clients) {
    EXPECT_TRUE(cluster_->test_logon("backup", "Backup@123"));
    EXPECT_FALSE(cluster_->test_logon("backup", "wrong"));
    Log_Capture::instance().claim_all(LM_WARNING, "gsql (pid ");
    std::vector<std::string> databases;
    EXPECT_TRUE(cluster_->list_database("backup", "Backup@123", databases));
    EXPECT_THAT(databases, testing::Contains("postgres"));
}

TEST_F(Sandbox_Cluster_Test, tells_the_module_its_state) {
    std::string status;
    bool balanced = false;
    EXPECT_TRUE(cluster_->get_status(status, balanced));
    EXPECT_EQ("Normal", status);
    EXPECT_TRUE(balanced);
    sandbox("switch");
    sandbox("kill 2");
    EXPECT_TRUE(cluster_->get_status(status, balanced));
    sandbox("switch-back");
    EXPECT_EQ("Degraded", status);
    EXPECT_FALSE(balanced);
}

TEST_F(Sandbox_Cluster_Test, is_backed_up_and_restored_by_the_modules_command_lines) {
    sandbox("fill 8");
    std::string const before = sandbox("checksums");
    Roach_Executor roach(cluster_->user().c_str(), cluster_->env(), true, nullptr);
    Roach_Progress_Handler progress(1, nullptr, 1);
    std::string full;
    ASSERT_TRUE(roach.backup_200("p1", "/home/omm/meta", "", full, &progress, 2, 64, 16, 8192));
    Roach_Meta_Parser parser("/home/omm/meta", GAUSSDB_200);
    EXPECT_TRUE(parser.has_backup_key(full));
    ACE_INT64 size = 0;
    EXPECT_TRUE(parser.parse(full, size));
    EXPECT_LT(16 << 20, size);
    EXPECT_TRUE(fs::exists("/home/omm/meta/bak_cluster_static_config.common"));
    EXPECT_TRUE(fs::exists("/home/omm/meta/roach/" + full));

    sandbox("change 5");
    std::string const changed = sandbox("checksums");
    EXPECT_NE(before, changed);
    std::string incremental;
    ASSERT_TRUE(roach.backup_200("p1", "/home/omm/meta", full, incremental, &progress, 0, 0, 0, 0));
    sandbox("destroy-data");
    ASSERT_TRUE(
        roach.restore_200("p1", "/home/omm/meta", incremental, &progress, false, 2, 0, 0, 0));
    ASSERT_TRUE(roach.start(GAUSSDB_200, nullptr));
    EXPECT_EQ(changed, sandbox("checksums"));
    EXPECT_TRUE(roach.stop());

    // as a new cluster, started by its description
    ASSERT_TRUE(roach.restore_200("p1", "/home/omm/meta", full, &progress, true, 0, 0, 0, 0));
    ASSERT_TRUE(roach.start(GAUSSDB_200, cluster_->conf().c_str()));
    EXPECT_EQ(before, sandbox("checksums"));
}

TEST_F(Sandbox_Cluster_Test, a_failed_backup_is_told_as_such) {
    Roach_Executor roach(cluster_->user().c_str(), cluster_->env(), true, nullptr);
    std::string key;
    EXPECT_FALSE(
        roach.backup_200("p1", "/home/omm/meta", "20200101_000000", key, nullptr, 0, 0, 0, 0));
    EXPECT_EQ("", key);
    EXPECT_LOGGED(LM_WARNING, "The metadata of the prior backup 20200101_000000 are missing");
}

} // namespace
