#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "tests/support/database_tools.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/** The commands of gaussdb_cmd_handler as their tools see them. */
namespace {

using testing::ElementsAre;

class GaussDB_Commands : public testing::Test {
protected:
    Database_Tools tools_;
    Scoped_Env libraries_{"LD_LIBRARY_PATH", "/agent/lib"};
    std::string text_;
    bool balanced_ = false;
    GaussDB_Version version_{GAUSSDB_UNKNOWN, 0, 0, 0};
    int count_ = 0;

    void expect_remote(Tool_Call const& call) {
        EXPECT_EQ("", call.env.at("LD_LIBRARY_PATH"));
        EXPECT_EQ("C", call.env.at("LC_ALL"));
        EXPECT_EQ(geteuid(), call.uid);
    }
};

TEST_F(GaussDB_Commands, the_state_is_asked_for_as_the_clusters_user) {
    tools_.script("gs_om", "out cluster_state   : Normal\nout balanced        : Yes");
    EXPECT_TRUE(get_cluster_status(tools_.user(), tools_.env(), text_, balanced_));
    EXPECT_EQ("Normal", text_);
    EXPECT_TRUE(balanced_);
    EXPECT_EQ("[gs_om][-t][status]", tools_.call("gs_om").text());
    EXPECT_EQ(tools_.uid(), tools_.call("gs_om").uid);
    EXPECT_EQ("C", tools_.call("gs_om").env.at("LC_ALL"));
    EXPECT_EQ("/", tools_.call("gs_om").directory) << "not where the agent was started";
    EXPECT_LOGGED(LM_DEBUG, "gs_om -t status\n");
}

TEST_F(GaussDB_Commands, a_state_that_is_not_told_is_left_alone) {
    tools_.script("gs_om", "out nothing");
    balanced_ = true;
    EXPECT_FALSE(get_cluster_status(tools_.user(), tools_.env(), text_, balanced_));
    EXPECT_TRUE(balanced_);
    text_ = "Earlier";
    EXPECT_TRUE(get_cluster_status(tools_.user(), tools_.env(), text_, balanced_));
    EXPECT_EQ("Earlier", text_);
}

TEST_F(GaussDB_Commands, a_state_counts_also_when_the_tool_fails_behind_it) {
    tools_.script("gs_om", "out cluster_state : Normal\nexit 1");
    EXPECT_TRUE(get_cluster_status(tools_.user(), tools_.env(), text_, balanced_));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
}

TEST_F(GaussDB_Commands, a_state_on_stderr_is_none) {
    tools_.script("gs_om", "err cluster_state : Normal");
    EXPECT_FALSE(get_cluster_status(tools_.user(), tools_.env(), text_, balanced_));
    EXPECT_LOGGED(LM_INFO, "cluster_state : Normal\n");
}

TEST_F(GaussDB_Commands, an_unknown_user_asks_for_no_state) {
    tools_.script("gs_om", "out cluster_state : Normal");
    text_ = "Earlier";
    EXPECT_FALSE(get_cluster_status("no_such_user", tools_.env(), text_, balanced_));
    EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no_such_user");
    EXPECT_FALSE(get_cluster_status(nullptr, tools_.env(), text_, balanced_));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
    EXPECT_EQ(0u, tools_.calls("gs_om"));
}

TEST_F(GaussDB_Commands, the_version_is_asked_for_as_the_clusters_user) {
    tools_.script("gs_check", "out gs_check (GaussDB 8.1.1 build 1234) compiled at\nexit 3");
    EXPECT_TRUE(get_cluster_version(tools_.user(), tools_.env(), version_));
    EXPECT_EQ(GaussDB_Version(GAUSSDB_200, 8, 1, 1), version_);
    EXPECT_EQ("[gs_check][-V]", tools_.call("gs_check").text());
    EXPECT_EQ(tools_.uid(), tools_.call("gs_check").uid);
    EXPECT_LOGGED(LM_WARNING, "exited with status 3");
}

TEST_F(GaussDB_Commands, a_version_that_is_not_known_is_a_failure) {
    tools_.script("gs_check", "out gs_check (openGauss OM 2.0.0 build 7ef5c80a) compiled at");
    EXPECT_FALSE(get_cluster_version(tools_.user(), tools_.env(), version_));
    EXPECT_LOGGED(LM_ERROR, "Unrecognized GaussDB version\n");
}

TEST_F(GaussDB_Commands, an_unknown_user_asks_for_no_version) {
    tools_.script("gs_check", "out gs_check (GaussDB 8.1.1 build 1");
    EXPECT_FALSE(get_cluster_version("no_such_user", tools_.env(), version_));
    EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no_such_user");
    EXPECT_EQ(0u, tools_.calls("gs_check"));
}

class Is_GaussDB_T : public GaussDB_Commands {
protected:
    Is_GaussDB_T() {
        std::filesystem::create_directory(tools_.path("bin"));
        std::filesystem::create_directory_symlink(tools_.path("calls"), tools_.path("bin/calls"));
        tools_.env().set_env("GSDB_HOME", tools_.path());
    }
    bool ask(std::string const& script, std::string* version) {
        tools_.script("bin/zengine", script);
        return is_gaussdb_t(tools_.user(), tools_.env(), version);
    }
};

TEST_F(Is_GaussDB_T, the_version_is_the_first_word) {
    EXPECT_TRUE(ask("out GaussDB_T_1.0.2.B303 Release cfa19bd", &text_));
    EXPECT_EQ("GaussDB_T_1.0.2.B303", text_);
    Tool_Call const call = tools_.call("zengine");
    EXPECT_EQ("[" + tools_.path("bin/zengine") + "][-v]", call.text());
    EXPECT_EQ(tools_.uid(), call.uid);
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_LOGGED(LM_DEBUG, tools_.path("bin/zengine") + " -v\n");
}

TEST_F(Is_GaussDB_T, without_a_blank_the_version_is_all_of_the_output) {
    EXPECT_TRUE(ask("out GaussDB_T_1.0.2.B303", &text_));
    EXPECT_EQ("GaussDB_T_1.0.2.B303\n", text_);
}

TEST_F(Is_GaussDB_T, the_word_may_stand_anywhere_and_the_version_is_still_the_first) {
    EXPECT_TRUE(ask("out Version is GaussDB_T_1.0.2", &text_));
    EXPECT_EQ("Version", text_);
}

TEST_F(Is_GaussDB_T, stderr_belongs_to_the_output) {
    EXPECT_TRUE(ask("err GaussDB_T_1.0.2 Release", nullptr));
}

TEST_F(Is_GaussDB_T, other_products_are_not) {
    text_ = "before";
    EXPECT_FALSE(ask("out GaussDB-100-V300R001C00SPC200B157 Release 4167676\nout "
                     "GaussDB_100_1.0.1.SPC2.B003 Release 3ae9d6c\nout "
                     "Zenith-Gauss100-OLTP-V300R001C00B300 Release",
                     &text_));
    EXPECT_EQ("before", text_);
}

TEST_F(Is_GaussDB_T, a_failure_is_told_with_the_output) {
    EXPECT_FALSE(ask("out GaussDB_T_1.0.2 Release\nerr no library\nexit 127", &text_));
    EXPECT_LOGGED(LM_WARNING, "exited with status 127");
    EXPECT_LOGGED(LM_ERROR, "Failed to execute command '" + tools_.path("bin/zengine") +
                                " -v': GaussDB_T_1.0.2 Release\nno library\n");
    EXPECT_EQ("", text_);
}

TEST_F(Is_GaussDB_T, a_missing_program_is_a_failure) {
    EXPECT_FALSE(is_gaussdb_t(tools_.user(), tools_.env(), nullptr));
    EXPECT_LOGGED(LM_ERROR, "Failed to start ");
    EXPECT_LOGGED(LM_ERROR, "Failed to execute command '" + tools_.path("bin/zengine") + " -v': ");
}

TEST_F(Is_GaussDB_T, a_user_is_wanted_and_known) {
    EXPECT_FALSE(is_gaussdb_t(nullptr, tools_.env(), nullptr));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
    EXPECT_FALSE(is_gaussdb_t("", tools_.env(), nullptr));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
    tools_.script("bin/zengine", "out GaussDB_T_1 x");
    EXPECT_FALSE(is_gaussdb_t("no_such_user", tools_.env(), nullptr));
    EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no_such_user");
    EXPECT_EQ(0u, tools_.calls("zengine"));
}

TEST_F(Is_GaussDB_T, a_home_that_is_too_long_runs_nothing) {
    tools_.env().set_env("GSDB_HOME", "/" + std::string(1100, 'h'));
    EXPECT_FALSE(is_gaussdb_t(tools_.user(), tools_.env(), nullptr));
    EXPECT_LOGGED(LM_ERROR, "Failed to set a command line of ");
}

TEST_F(GaussDB_Commands, a_file_is_copied_by_scp) {
    tools_.script("scp", "exit 0");
    EXPECT_TRUE(execute_scp_command("omm@10.0.0.1", "-P 22 -q", "/a/b", "/c/d"));
    EXPECT_EQ("[scp][-P][22][-q][/a/b][omm@10.0.0.1:/c/d]", tools_.call("scp").text());
    expect_remote(tools_.call("scp"));
    EXPECT_LOGGED(LM_DEBUG, "scp -P 22 -q /a/b omm@10.0.0.1:/c/d\n");
}

TEST_F(GaussDB_Commands, a_copy_that_fails_is_a_failure) {
    tools_.script("scp", "exit 1");
    EXPECT_FALSE(execute_scp_command("h", "", "/a", "/b"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
}

TEST_F(GaussDB_Commands, scp_gets_no_option_by_way_of_an_address_or_a_file) {
    tools_.script("scp", "exit 0");
    EXPECT_FALSE(execute_scp_command("-oProxyCommand=x", "", "/a", "/b"));
    EXPECT_LOGGED(LM_ERROR, "Invalid address '-oProxyCommand=x', nothing is run\n");
    EXPECT_FALSE(execute_scp_command("h", "", "-oProxyCommand=x", "/b"));
    EXPECT_LOGGED(LM_ERROR, "Invalid file to copy '-oProxyCommand=x', nothing is run\n");
    EXPECT_FALSE(execute_scp_command("", "", "/a", "/b"));
    EXPECT_LOGGED(LM_ERROR, "Invalid address '', nothing is run\n");
    EXPECT_EQ(0u, tools_.calls("scp"));
}

TEST_F(GaussDB_Commands, a_remote_command_is_one_word_for_ssh) {
    tools_.script("ssh", "out Last login: Mon\nout first\nout last\nout");
    text_ = "before";
    EXPECT_TRUE(execute_ssh_command("10.0.0.1", "-o ConnectTimeout=4", "ls -l \"/a b\"", text_));
    EXPECT_EQ("last", text_);
    EXPECT_EQ("[ssh][-o][ConnectTimeout=4][10.0.0.1][ls -l \"/a b\"]", tools_.call("ssh").text());
    expect_remote(tools_.call("ssh"));
    EXPECT_LOGGED(LM_DEBUG, "ssh -o ConnectTimeout=4 10.0.0.1 'ls -l \"/a b\"'\n");
}

TEST_F(GaussDB_Commands, a_single_quote_in_a_remote_command_ends_the_quoting) {
    tools_.script("ssh", "");
    EXPECT_TRUE(execute_ssh_command("a", "", "ssh b 'rm -rf /x'", text_));
    // ssh joins its words again, so the far end sees the same command
    EXPECT_EQ("[ssh][a][ssh b rm][-rf][/x]", tools_.call("ssh").text());
}

TEST_F(GaussDB_Commands, the_result_of_a_remote_command_is_cleared_before) {
    tools_.script("ssh", "exit 255");
    text_ = "before";
    EXPECT_FALSE(execute_ssh_command("h", "", "true", text_));
    EXPECT_EQ("", text_);
    EXPECT_LOGGED(LM_WARNING, "exited with status 255");
    text_ = "before";
    EXPECT_FALSE(execute_ssh_command("-x", "", "true", text_));
    EXPECT_EQ("", text_);
    EXPECT_LOGGED(LM_ERROR, "Invalid address '-x', nothing is run\n");
    EXPECT_EQ(1u, tools_.calls("ssh"));
}

TEST_F(GaussDB_Commands, the_remote_user_is_found_behind_a_banner) {
    tools_.script("ssh", "out Last login: Mon\nout omm");
    EXPECT_TRUE(get_roach_agent_user("h", "-q", text_));
    EXPECT_EQ("omm", text_);
    EXPECT_EQ("[ssh][-q][h][whoami]", tools_.call("ssh").text());
}

TEST_F(GaussDB_Commands, a_port_is_asked_for_by_the_given_command) {
    tools_.script("ssh", "out     port='8000'\nexit 1");
    EXPECT_EQ(8000, non_intrusive_get_port("ssh h 'gs_guc check -I all -c port'"));
    EXPECT_EQ("[ssh][h][gs_guc check -I all -c port]", tools_.call("ssh").text());
    expect_remote(tools_.call("ssh"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
}

TEST_F(GaussDB_Commands, a_percent_in_the_given_command_is_no_format) {
    tools_.script("ssh", "out cluster_state : Normal");
    EXPECT_EQ(0, non_intrusive_get_port("ssh h%s '%n'"));
    EXPECT_TRUE(non_intrusive_get_cluster_status("ssh h%s '%n'", text_, balanced_));
    EXPECT_EQ("[ssh][h%s][%n]", tools_.call("ssh", 1).text());
    EXPECT_EQ("[ssh][h%s][%n]", tools_.call("ssh", 2).text());
}

TEST_F(GaussDB_Commands, without_a_command_nothing_is_asked) {
    EXPECT_EQ(0, non_intrusive_get_port(nullptr));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_EQ(0, non_intrusive_get_port(""));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    text_ = "before";
    balanced_ = true;
    EXPECT_FALSE(non_intrusive_get_cluster_status(nullptr, text_, balanced_));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_FALSE(non_intrusive_get_cluster_status("", text_, balanced_));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_EQ("before", text_);
    EXPECT_TRUE(balanced_);
}

TEST_F(GaussDB_Commands, a_remote_state_starts_from_nothing) {
    tools_.script("ssh", "out nothing");
    text_ = "before";
    balanced_ = true;
    EXPECT_FALSE(non_intrusive_get_cluster_status("ssh h gs_om", text_, balanced_));
    EXPECT_EQ("", text_);
    EXPECT_FALSE(balanced_);
    expect_remote(tools_.call("ssh"));
}

TEST_F(GaussDB_Commands, a_remote_state_counts_also_when_the_tool_fails_behind_it) {
    tools_.script("ssh", "out cluster_state : Degraded\nout balanced : Yes\nexit 1");
    EXPECT_TRUE(non_intrusive_get_cluster_status("ssh h gs_om", text_, balanced_));
    EXPECT_EQ("Degraded", text_);
    EXPECT_TRUE(balanced_);
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
}

TEST_F(GaussDB_Commands, the_count_of_nodes_is_asked_for_with_defaults) {
    tools_.script("ssh", "out nodeCount:3");
    EXPECT_TRUE(non_intrusive_get_node_count("10.0.0.1", count_, nullptr, ""));
    EXPECT_EQ(3, count_);
    EXPECT_THAT(tools_.call("ssh").args,
                ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1",
                            "test -f ~/gauss_env_file && source ~/gauss_env_file; cm_ctl view -N"));
    expect_remote(tools_.call("ssh"));
}

TEST_F(GaussDB_Commands, the_count_of_nodes_is_asked_for_with_the_callers_own) {
    tools_.script("ssh", "out nodeCount:3");
    EXPECT_TRUE(non_intrusive_get_node_count("h", count_, "source /x; ", "-p 22"));
    EXPECT_EQ("[ssh][-p][22][h][source /x; cm_ctl view -N]", tools_.call("ssh").text());
    EXPECT_LOGGED(LM_DEBUG, "ssh -p 22 h 'source /x; cm_ctl view -N'\n");
}

TEST_F(GaussDB_Commands, a_count_that_is_not_told_is_left_alone_and_no_failure) {
    tools_.script("ssh", "out nodeCount:3 \n---\nout nodeCount:3\nexit 1");
    EXPECT_TRUE(non_intrusive_get_node_count("h", count_, "", nullptr));
    EXPECT_EQ(0, count_);
    EXPECT_FALSE(non_intrusive_get_node_count("h", count_, "", nullptr));
    EXPECT_EQ(3, count_);
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
}

TEST_F(GaussDB_Commands, the_remote_version_is_asked_for_with_defaults) {
    tools_.script("ssh", "out gs_check (GaussDB Kernel 505.1.0 build\nexit 1");
    EXPECT_TRUE(non_intrusive_get_cluster_version("10.0.0.1", version_, "", nullptr));
    EXPECT_EQ(GaussDB_Version(GAUSSDB_FOR_OPENGAUSS, 505, 1, 0), version_);
    EXPECT_THAT(
        tools_.call("ssh").args,
        ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1",
                    "test -f ~/gauss_env_file && source ~/gauss_env_file; source /etc/profile; "
                    "test -f $BIGDATA_HOME/mppdb/.mppdbgs_profile && source "
                    "$BIGDATA_HOME/mppdb/.mppdbgs_profile; gs_check -V"));
    expect_remote(tools_.call("ssh"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
}

TEST_F(GaussDB_Commands, the_remote_version_is_asked_for_with_the_callers_own) {
    tools_.script("ssh", "out gs_check (GaussDB 8.2.1 build 1");
    EXPECT_TRUE(non_intrusive_get_cluster_version("h", version_, "source /x; ", "-p 22"));
    EXPECT_EQ(GaussDB_Version(GAUSSDB_200, 8, 2, 1), version_);
    EXPECT_EQ("[ssh][-p][22][h][source /x; gs_check -V]", tools_.call("ssh").text());
}

TEST_F(GaussDB_Commands, a_node_without_an_address_is_not_asked) {
    EXPECT_FALSE(non_intrusive_get_node_count(nullptr, count_, "", ""));
    EXPECT_CHECK_LOGGED("address is NULL or \"\"");
    EXPECT_FALSE(non_intrusive_get_node_count("", count_, "", ""));
    EXPECT_CHECK_LOGGED("address is NULL or \"\"");
    EXPECT_FALSE(non_intrusive_get_cluster_version(nullptr, version_, "", ""));
    EXPECT_CHECK_LOGGED("address is NULL or \"\"");
    EXPECT_FALSE(non_intrusive_get_cluster_version("", version_, "", ""));
    EXPECT_CHECK_LOGGED("address is NULL or \"\"");
}

TEST_F(GaussDB_Commands, a_nodes_address_that_is_an_option_is_refused) {
    tools_.script("ssh", "out nodeCount:3\nout gs_check (GaussDB 8.2.1 build 1");
    EXPECT_FALSE(non_intrusive_get_node_count("-oProxyCommand=x", count_, "", ""));
    EXPECT_LOGGED(LM_ERROR, "Invalid address '-oProxyCommand=x', nothing is run\n");
    EXPECT_FALSE(non_intrusive_get_cluster_version("h -oProxyCommand=x", version_, "", ""));
    EXPECT_LOGGED(LM_ERROR, "Invalid address 'h -oProxyCommand=x', nothing is run\n");
    EXPECT_EQ(0u, tools_.calls("ssh"));
    EXPECT_EQ(0, count_);
}

TEST_F(GaussDB_Commands, a_remote_command_that_is_too_long_is_not_run_cut_short) {
    tools_.script("ssh", "");
    tools_.script("scp", "");
    std::string const lengthy(1024, 'x');
    EXPECT_FALSE(execute_ssh_command("h", "", lengthy, text_));
    EXPECT_FALSE(execute_scp_command("h", "", lengthy, "/b"));
    EXPECT_EQ(0, non_intrusive_get_port(("ssh h " + lengthy).c_str()));
    EXPECT_FALSE(non_intrusive_get_cluster_status(("ssh h " + lengthy).c_str(), text_, balanced_));
    EXPECT_FALSE(non_intrusive_get_node_count("h", count_, lengthy.c_str(), ""));
    EXPECT_FALSE(non_intrusive_get_cluster_version("h", version_, lengthy.c_str(), ""));
    EXPECT_EQ(6u, Log_Capture::instance().claim_all(LM_ERROR, "Failed to set a command line of "));
    EXPECT_EQ(0u, tools_.calls("ssh"));
    EXPECT_EQ(0u, tools_.calls("scp"));
}

} // namespace
