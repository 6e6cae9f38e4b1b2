#include "gaussdb/job/roach_executor.h"

#include "gaussdb/common/gaussdb_env.h"
#include "gaussdb/job/roach_progress_handler.h"
#include "host/job/job_event_handler.h"
#include "qmrt/file.h"
#include "tests/support/fake_jobs.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_env.h"
#include "tests/support/scripted_tools.h"
#include "tests/unit/host/job/test_job.h"

#include <fstream>
#include <gtest/gtest.h>
#include <pwd.h>
#include <regex>
#include <sys/stat.h>

namespace {

constexpr char USER[] = "daemon"; // an unprivileged user of every Debian system

/** Cluster directories, a profile and scripted interpreters; in a /home of the test's own. */
class Roach_Executor_Test : public testing::Test {
protected:
    void SetUp() override {
        chmod(files_.path().c_str(), 0755);
        files_.write("gp/script/x", "");
        files_.write("roach/x", "");
        mkdir("/home/daemon", 0755);
        profile(
            "export PATH=/x\nexport SSH_AUTH_SOCK=~/agent~.sock\nexport SSH_AUTH_SOCK=/second\n");
        env_.set_env("GPHOME", files_.path("gp"));
        env_.set_env("ROACH_HOME", files_.path("roach"));
        env_.set_env("GAUSSHOME", "/opt/gauss");
        for (char const* tool : {"python", "python3", "ssh"})
            tools_.script(tool, "exit 0");
    }
    void TearDown() override { rm_rf("/home/daemon"); }
    void profile(std::string const& text) { std::ofstream("/home/daemon/.profile") << text; }

    Roach_Executor executor(bool python3 = true) { return {USER, env_, python3, nullptr}; }
    /** The words of a tool's last call as one line, its port as PORT. */
    std::string line(std::string const& tool) {
        std::string text;
        for (std::string const& word : tools_.call(tool, tools_.calls(tool)).args)
            text += (text.empty() ? "" : " ") + word;
        return std::regex_replace(text, std::regex("(--master-port[= ])[1-9][0-9]*"), "$1PORT");
    }

    Temporary_Directory files_;
    Scripted_Tools tools_;
    Scoped_Env path_{"PATH", tools_.path().c_str()};
    Scoped_Env lc_all_{"LC_ALL", "de_DE"};
    Scoped_Env ld_library_path_{"LD_LIBRARY_PATH", "/agent/lib"};
    GaussDB_Env env_;
    std::string key_;
    std::string meta_ = "/meta";
};

TEST_F(Roach_Executor_Test, a_backup_of_the_200_series_with_nothing_optional) {
    EXPECT_TRUE(executor().backup_200("policy", "/meta", "", key_, nullptr, 0, 0, 0, 0));
    EXPECT_EQ("python3 GaussRoach.py -t backup --master-port=PORT --media-type NBU "
              "--media-destination policy --metadata-destination /meta --compression-type=0",
              line("python3"));
    EXPECT_EQ("", key_);
}

TEST_F(Roach_Executor_Test, a_backup_of_the_200_series_with_everything) {
    EXPECT_TRUE(
        executor(false).backup_200("policy", "/meta", "1_2", key_, nullptr, 1, 2, -3, 2147483647));
    EXPECT_EQ("python GaussRoach.py -t backup --master-port=PORT --media-type NBU "
              "--media-destination policy --metadata-destination /meta --compression-type=0 "
              "--prior-backup-key=1_2 --parallel-process=1 --max-memory-usage=2 --buffer-size=-3 "
              "--buffer-block-size=2147483647",
              line("python"));
}

TEST_F(Roach_Executor_Test, each_tuning_option_of_the_200_series_alone) {
    std::string const common =
        "python3 GaussRoach.py -t backup --master-port=PORT --media-type NBU "
        "--media-destination p --metadata-destination m "
        "--compression-type=0";
    EXPECT_TRUE(executor().backup_200("p", "m", "", key_, nullptr, 4, 0, 0, 0));
    EXPECT_EQ(common + " --parallel-process=4", line("python3"));
    EXPECT_TRUE(executor().backup_200("p", "m", "", key_, nullptr, 0, 4, 0, 0));
    EXPECT_EQ(common + " --max-memory-usage=4", line("python3"));
    EXPECT_TRUE(executor().backup_200("p", "m", "", key_, nullptr, 0, 0, 4, 0));
    EXPECT_EQ(common + " --buffer-size=4", line("python3"));
    EXPECT_TRUE(executor().backup_200("p", "m", "", key_, nullptr, 0, 0, 0, 4));
    EXPECT_EQ(common + " --buffer-block-size=4", line("python3"));
}

TEST_F(Roach_Executor_Test, a_full_backup_of_a_cluster_of_the_100_series) {
    EXPECT_TRUE(executor(false).backup_100("policy", "/media", meta_, "", key_, false, 0));
    EXPECT_EQ("python GaussRoach.py -t backup --media-type NBU --media-destination /media/policy "
              "--nbu-policy /media/policy --mode cluster --metadata-destination /meta "
              "--master-port PORT",
              line("python"));
    EXPECT_EQ("/meta", meta_);
}

TEST_F(Roach_Executor_Test, an_incremental_backup_of_a_single_instance_of_the_100_series) {
    EXPECT_TRUE(executor(false).backup_100("policy", "/media", meta_, "1_2", key_, true, 3));
    EXPECT_EQ("python GaussRoach.py -t backup --media-type NBU --media-destination /media/policy "
              "--nbu-policy /media/policy --mode single --prior-backup-key 1_2 "
              "--metadata-destination /meta/roach/1_2 --parallel-process 3",
              line("python"));
    EXPECT_EQ("/meta/roach/1_2", meta_);
}

TEST_F(Roach_Executor_Test, a_restore_of_the_200_series) {
    EXPECT_TRUE(executor().restore_200("policy", "/meta", "1_2", nullptr, false, 0, 0, 0, 0));
    EXPECT_EQ("python3 GaussRoach.py -t restore --master-port=PORT --media-type NBU "
              "--media-destination policy --metadata-destination /meta --clean --backup-key 1_2",
              line("python3"));
}

TEST_F(Roach_Executor_Test, a_restore_of_the_200_series_to_a_new_cluster_with_everything) {
    EXPECT_TRUE(executor().restore_200("policy", "/meta", "1_2", nullptr, true, 1, 2, 3, 4));
    EXPECT_EQ("python3 GaussRoach.py -t restore --master-port=PORT --media-type NBU "
              "--media-destination policy --metadata-destination /meta --clean --backup-key 1_2 "
              "--restore-new-cluster --restore-configs --parallel-process=1 --max-memory-usage=2 "
              "--buffer-size=3 --buffer-block-size=4",
              line("python3"));
}

TEST_F(Roach_Executor_Test, a_restore_of_a_cluster_of_the_100_series) {
    EXPECT_TRUE(executor(false).restore_100("policy", "/media", true, "/meta", "1_2", false, 4));
    EXPECT_EQ("python GaussRoach.py -t restore --media-type NBU --clean --media-destination "
              "/media/policy --nbu-policy /media/policy --metadata-destination /meta/roach/1_2 "
              "--backup-key 1_2 --mode cluster --restore-new-cluster --master-port PORT "
              "--parallel-process 4",
              line("python"));
}

TEST_F(Roach_Executor_Test, a_restore_of_a_single_instance_of_the_100_series) {
    EXPECT_TRUE(executor(false).restore_100("policy", "/media", false, "/meta", "1_2", true, 0));
    EXPECT_EQ("python GaussRoach.py -t restore --media-type NBU --clean --media-destination "
              "/media/policy --nbu-policy /media/policy --metadata-destination /meta/roach/1_2 "
              "--backup-key 1_2 --mode single",
              line("python"));
}

TEST_F(Roach_Executor_Test, start_in_its_four_forms) {
    EXPECT_TRUE(executor().start(GAUSSDB_200, nullptr));
    EXPECT_EQ("python3 GaussRoach.py -t start", line("python3"));
    EXPECT_TRUE(executor().start(GAUSSDB_200, "/new.xml"));
    EXPECT_EQ("python3 GaussRoach.py -t start --restore-new-cluster -X /new.xml", line("python3"));
    EXPECT_TRUE(executor().start(GAUSSDB_100, ""));
    EXPECT_EQ("python3 GaussRoach.py -t start --media-type NBU", line("python3"));
    EXPECT_EQ(files_.path("roach"), tools_.call("python3", 3).directory);
    EXPECT_TRUE(executor().start(GAUSSDB_100, "/new.xml"));
    EXPECT_EQ("python3 GaussRoach.py -t start --restore-new-cluster", line("python3"));
}

TEST_F(Roach_Executor_Test, stop_goes_the_200_way) {
    EXPECT_TRUE(executor(false).stop());
    EXPECT_EQ("python GaussRoach.py -t stop", line("python"));
    EXPECT_EQ(files_.path("gp/script"), tools_.call("python").directory);
}

TEST_F(Roach_Executor_Test, the_200_way_has_the_clusters_user_environment_and_ssh_agent) {
    EXPECT_TRUE(executor().stop());
    Tool_Call const call = tools_.call("python3");
    EXPECT_EQ(getpwnam(USER)->pw_uid, call.uid);
    EXPECT_EQ(getpwnam(USER)->pw_gid, call.gid);
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_EQ("/opt/gauss", call.env.at("GAUSSHOME"));
    EXPECT_EQ("/home/daemon/agent/home/daemon.sock", call.env.at("SSH_AUTH_SOCK"));
}

TEST_F(Roach_Executor_Test, the_100_way_needs_no_ssh_agent) {
    profile("");
    EXPECT_TRUE(executor().backup_100("policy", "/media", meta_, "", key_, true, 0));
    Tool_Call const call = tools_.call("python3");
    EXPECT_EQ(getpwnam(USER)->pw_uid, call.uid);
    EXPECT_EQ(files_.path("roach"), call.directory);
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_EQ(0u, call.env.count("SSH_AUTH_SOCK"));
}

TEST_F(Roach_Executor_Test, without_its_directory_the_tool_is_not_run_in_the_agents) {
    for (char const* directory : {"", "roach", "\"/roach\"", "../roach"}) {
        env_.set_env("GPHOME", directory);
        env_.set_env("ROACH_HOME", directory);
        EXPECT_FALSE(executor().stop());
        EXPECT_LOGGED(LM_ERROR, "Failed to start GaussRoach.py, GPHOME of the cluster is not an "
                                "absolute path: ");
        EXPECT_FALSE(executor().start(GAUSSDB_100, ""));
        EXPECT_LOGGED(LM_ERROR,
                      "Failed to start GaussRoach.py, ROACH_HOME of the cluster is not an "
                      "absolute path: ");
    }
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Roach_Executor_Test, a_profile_without_an_end_is_not_read) {
    remove("/home/daemon/.profile");
    ASSERT_EQ(0, symlink("/dev/zero", "/home/daemon/.profile"));
    EXPECT_FALSE(executor().stop());
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/daemon/.profile, errno=");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Roach_Executor_Test, without_a_profile_the_200_way_runs_nothing) {
    remove("/home/daemon/.profile");
    EXPECT_FALSE(executor().stop());
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/daemon/.profile, errno=2, ");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Roach_Executor_Test, without_a_line_for_the_ssh_agent_the_200_way_runs_nothing) {
    profile("export SSH_AUTH_SOCK_=x\n export SSH_AUTH_SOCK=indented\nexport SSH_AUTH_SOCK=\n");
    EXPECT_FALSE(executor().stop());
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Roach_Executor_Test, an_unknown_user_runs_nothing) {
    mkdir("/home/no-such-user", 0755);
    std::ofstream("/home/no-such-user/.profile") << "export SSH_AUTH_SOCK=/s\n";
    Roach_Executor roach("no-such-user", env_, true, nullptr);
    EXPECT_FALSE(roach.stop());
    EXPECT_LOGGED(LM_ERROR, "no-such-user");
    EXPECT_FALSE(roach.backup_100("policy", "/media", meta_, "", key_, true, 0));
    EXPECT_LOGGED(LM_ERROR, "no-such-user");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Roach_Executor_Test, what_the_tool_prints_gives_key_and_progress) {
    Fake_Jobs jobs;
    Test_Job* const job = new Test_Job(make_definition());
    Job_var const holder(job, false);
    Job_Event_Handler events(*job);
    Roach_Progress_Handler progress(2, &events, 1);
    tools_.script("python3", "out \\e[0mN1: 50.00%\nout Backup key: 20240101_120000\nexit 0");
    EXPECT_TRUE(executor().backup_200("policy", "/meta", "", key_, &progress, 0, 0, 0, 0));
    EXPECT_EQ("20240101_120000", key_);
    EXPECT_EQ(25, job->activity().progress);
}

TEST_F(Roach_Executor_Test, a_run_without_a_key_keeps_the_key) {
    key_ = "old";
    EXPECT_TRUE(executor().backup_200("policy", "/meta", "", key_, nullptr, 0, 0, 0, 0));
    EXPECT_EQ("old", key_);
}

TEST_F(Roach_Executor_Test, the_exit_status_decides_and_not_what_is_printed) {
    tools_.script("python3", "out \\e[0mRestore SUCCESSFUL\nerr no space\nexit 1");
    EXPECT_FALSE(executor().restore_200("policy", "/meta", "1_2", nullptr, false, 0, 0, 0, 0));
    EXPECT_LOGGED(LM_WARNING, "no space");
}

TEST_F(Roach_Executor_Test, a_tool_that_dies_on_a_signal_has_failed) {
    tools_.script("python3", "out Backup key: 1_2\nsignal 9");
    EXPECT_FALSE(executor().backup_200("policy", "/meta", "", key_, nullptr, 0, 0, 0, 0));
    EXPECT_LOGGED(LM_ERROR, "GaussRoach.py");
}

TEST_F(Roach_Executor_Test, a_line_longer_than_its_buffer_runs_nothing) {
    EXPECT_FALSE(executor().backup_200("policy", std::string(1000, 'm').c_str(), "", key_, nullptr,
                                       0, 0, 0, 0));
    EXPECT_LOGGED(LM_ERROR, "");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Roach_Executor_Test, a_remote_command_with_the_defaults) {
    EXPECT_TRUE(executor().execute_non_intrusive_cmd("10.0.0.1", "gs_ctl", nullptr, nullptr));
    Tool_Call const call = tools_.call("ssh");
    EXPECT_EQ(
        (std::vector<std::string>{
            "ssh", "-o", "ConnectTimeout=4", "10.0.0.1",
            "test -f ~/gauss_env_file && source ~/gauss_env_file; source /etc/profile; test -f "
            "$BIGDATA_HOME/mppdb/.mppdbgs_profile && source $BIGDATA_HOME/mppdb/.mppdbgs_profile; "
            "gs_ctl"}),
        call.args);
    EXPECT_EQ(geteuid(), call.uid);
    EXPECT_EQ("", call.env.at("LD_LIBRARY_PATH"));
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_EQ(0u, call.env.count("GAUSSHOME"));
}

TEST_F(Roach_Executor_Test, a_remote_command_with_own_prefix_and_options) {
    Roach_Executor roach = executor();
    roach.source_cmd("source x; ");
    roach.ssh_opts("-p 2222");
    roach.source_cmd("");
    roach.source_cmd(nullptr);
    roach.ssh_opts("");
    roach.ssh_opts(nullptr);
    tools_.script("ssh", "out backup key: 1_2\nexit 0");
    EXPECT_TRUE(roach.execute_non_intrusive_cmd("db1", "gs_ctl -x", nullptr, &key_));
    EXPECT_EQ((std::vector<std::string>{"ssh", "-p", "2222", "db1", "source x; gs_ctl -x"}),
              tools_.call("ssh").args);
    EXPECT_EQ("1_2", key_);
}

TEST_F(Roach_Executor_Test, a_remote_command_needs_address_and_command) {
    Roach_Executor roach = executor();
    for (char const* nothing : {static_cast<char const*>(nullptr), ""}) {
        EXPECT_FALSE(roach.execute_non_intrusive_cmd(nothing, "x", nullptr, nullptr));
        EXPECT_CHECK_LOGGED("address is NULL or \"\"");
        EXPECT_FALSE(roach.execute_non_intrusive_cmd("db1", nothing, nullptr, nullptr));
        EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    }
    EXPECT_EQ(0u, tools_.calls("ssh"));
}

TEST_F(Roach_Executor_Test, an_address_that_ssh_would_take_for_an_option_is_refused) {
    EXPECT_FALSE(executor().execute_non_intrusive_cmd("-oProxyCommand=x", "y", nullptr, nullptr));
    EXPECT_LOGGED(LM_ERROR, "-oProxyCommand=x");
    EXPECT_EQ(0u, tools_.calls("ssh"));
}

} // namespace
