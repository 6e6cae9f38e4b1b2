#include "gaussdb/common/gaussdb_process_options.h"

#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "tests/support/database_tools.h"
#include "tests/support/log_capture.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

class GaussDB_Process_Options_Test : public testing::Test {
protected:
    /** Runs the tool "probe" and returns its call. */
    Tool_Call run(GaussDB_Process_Options& opts, std::string const& script = "exit 0") {
        tools_.script("probe", script);
        EXPECT_TRUE(set_command_line(opts, "probe"));
        EXPECT_EQ(0, subprocess::call(opts));
        return tools_.call("probe");
    }

    Database_Tools tools_;
    Scoped_Env inherited_{"INHERITED", "kept"};
    Scoped_Env locale_{"LC_ALL", "de_DE.UTF-8"};
    Scoped_Env libraries_{"LD_LIBRARY_PATH", "/agent/lib"};
};

TEST_F(GaussDB_Process_Options_Test, a_local_tool_gets_the_clusters_environment_and_user) {
    tools_.env().set_env("GAUSSHOME", "/gauss/%s app");
    tools_.env().set_env("LD_LIBRARY_PATH", "/gauss/lib");
    tools_.env().set_env("LC_ALL", "zh_CN");
    GaussDB_Process_Options opts;
    EXPECT_TRUE(set_local_options(opts, tools_.env(), tools_.user()));
    Tool_Call const call = run(opts);
    EXPECT_EQ("/gauss/%s app", call.env.at("GAUSSHOME"));
    EXPECT_EQ("/gauss/lib", call.env.at("LD_LIBRARY_PATH"));
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_EQ("kept", call.env.at("INHERITED"));
    EXPECT_EQ(tools_.uid(), call.uid);
}

TEST_F(GaussDB_Process_Options_Test, nothing_runs_as_root_with_a_clusters_environment) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root's children run as root";
    tools_.script("probe", "exit 0");
    for (char const* user : {static_cast<char const*>(nullptr), "root"}) {
        GaussDB_Process_Options opts;
        EXPECT_TRUE(user ? set_local_options(opts, tools_.env(), user)
                         : set_local_options(opts, tools_.env()));
        ASSERT_TRUE(set_command_line(opts, "probe"));
        EXPECT_EQ(-1, subprocess::call(opts));
        EXPECT_LOGGED(LM_ERROR, "it would run as root in an environment that another user decides");
    }
    EXPECT_EQ(0u, tools_.calls("probe"));
}

TEST_F(GaussDB_Process_Options_Test, an_environment_that_does_not_fit_runs_nothing) {
    tools_.env().set_env("LARGE", std::string(20000, 'x'));
    tools_.script("probe", "exit 0");
    GaussDB_Process_Options opts;
    EXPECT_FALSE(set_local_options(opts, tools_.env(), tools_.user()));
    EXPECT_LOGGED(LM_ERROR, "Failed to set the environment variable LARGE, there is no room left");
    ASSERT_TRUE(set_command_line(opts, "probe"));
    EXPECT_EQ(-1, subprocess::call(opts));
    EXPECT_LOGGED(LM_ERROR, "its environment is not complete");
    EXPECT_EQ(0u, tools_.calls("probe"));
}

TEST_F(GaussDB_Process_Options_Test, an_unknown_user_runs_nothing) {
    GaussDB_Process_Options opts;
    EXPECT_FALSE(set_local_options(opts, tools_.env(), "no_such_user"));
    EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no_such_user, errno=");
    tools_.script("probe", "exit 0");
    ASSERT_TRUE(set_command_line(opts, "probe"));
    EXPECT_EQ(-1, subprocess::call(opts));
    EXPECT_LOGGED(LM_ERROR, "its user is not known");
    EXPECT_EQ(0u, tools_.calls("probe"));
}

TEST_F(GaussDB_Process_Options_Test, a_null_or_empty_user_runs_nothing) {
    GaussDB_Process_Options opts;
    EXPECT_FALSE(set_local_options(opts, tools_.env(), nullptr));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
    EXPECT_FALSE(set_local_options(opts, tools_.env(), ""));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
}

TEST_F(GaussDB_Process_Options_Test, ssh_gets_an_empty_library_path_and_the_agents_identity) {
    GaussDB_Process_Options opts;
    set_process_options(opts);
    Tool_Call const call = run(opts);
    EXPECT_EQ("", call.env.at("LD_LIBRARY_PATH"));
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_EQ("kept", call.env.at("INHERITED"));
    EXPECT_EQ(geteuid(), call.uid);
}

TEST_F(GaussDB_Process_Options_Test, no_descriptor_of_the_agent_is_inherited) {
    int const leaked = open("/dev/null", O_RDONLY);
    std::string const number = std::to_string(fcntl(leaked, F_DUPFD, 100));
    for (bool const is_local : {true, false}) {
        GaussDB_Process_Options opts;
        if (is_local)
            set_local_options(opts, tools_.env(), tools_.user());
        else
            set_process_options(opts);
        tools_.script("probe", "run test ! -e /proc/$PPID/fd/" + number + " && touch " +
                                   tools_.path("calls/closed") + (is_local ? "1" : "2"));
        EXPECT_TRUE(set_command_line(opts, "probe"));
        EXPECT_EQ(0, subprocess::call(opts));
    }
    EXPECT_TRUE(std::filesystem::exists(tools_.path("calls/closed1")));
    EXPECT_TRUE(std::filesystem::exists(tools_.path("calls/closed2")));
    close(std::stoi(number));
    close(leaked);
}

} // namespace
