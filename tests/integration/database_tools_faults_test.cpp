#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_config_reader.h"
#include "gaussdb/common/gaussdb_gsql_client.h"
#include "gaussdb/common/gaussdb_non_intrusive_client.h"
#include "gaussdb/common/gaussdb_zsql_client.h"
#include "tests/support/database_tools.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_interpreters.h"
#include "tests/support/zombies.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>

/** What can go wrong with a tool, tried with every function that runs one. */
namespace {

/** How a function judges its tool. */
enum Judges {
    BY_OUTPUT, ///< the wanted line is enough
    BY_EXIT    ///< the tool has to end with 0
};

/** A function that runs a tool. */
struct Call {
    char const* name;
    char const* tool;
    Judges judges;
    std::string wanted; ///< what the tool has to print
    bool is_as_user;    ///< runs as the cluster's user, who has to be known
    std::function<bool(Database_Tools&, char const* user)> run;
};

std::string const BIG(1 << 20, 'x');

std::vector<Call> all_calls() {
    return {
        {"get_cluster_status", "gs_om", BY_OUTPUT, "cluster_state : Normal", true,
         [](Database_Tools& tools, char const* user) {
             std::string status;
             bool balanced = false;
             return get_cluster_status(user, tools.env(), status, balanced) && status == "Normal";
         }},
        {"get_cluster_version", "gs_check", BY_OUTPUT, "gs_check (GaussDB 8.1.1 build 1", true,
         [](Database_Tools& tools, char const* user) {
             GaussDB_Version version(GAUSSDB_UNKNOWN, 0, 0, 0);
             return get_cluster_version(user, tools.env(), version) && version == GAUSSDB_A_811;
         }},
        {"is_gaussdb_t", "zengine", BY_EXIT, "GaussDB_T_1.0.2 Release", true,
         [](Database_Tools& tools, char const* user) {
             std::filesystem::create_directories(tools.path("bin"));
             std::error_code ignored;
             std::filesystem::create_symlink(tools.path("calls"), tools.path("bin/calls"), ignored);
             for (char const* const name : {"zengine", "zengine.script", "zengine.go"})
                 if (std::filesystem::exists(tools.path(name)))
                     std::filesystem::rename(tools.path(name),
                                             tools.path(std::string("bin/") + name));
             tools.env().set_env("GSDB_HOME", tools.path());
             std::string version;
             return is_gaussdb_t(user, tools.env(), &version) && !version.empty();
         }},
        {"execute_ssh_command", "ssh", BY_EXIT, "omm", false,
         [](Database_Tools&, char const*) {
             std::string result;
             return execute_ssh_command("h", "", "whoami", result) && result == "omm";
         }},
        {"execute_scp_command", "scp", BY_EXIT, "", false,
         [](Database_Tools&, char const*) { return execute_scp_command("h", "", "/a", "/b"); }},
        {"non_intrusive_get_port", "ssh", BY_OUTPUT, "port=8000", false,
         [](Database_Tools&, char const*) { return non_intrusive_get_port("ssh h x") == 8000; }},
        {"non_intrusive_get_cluster_status", "ssh", BY_OUTPUT, "cluster_state : Normal", false,
         [](Database_Tools&, char const*) {
             std::string status;
             bool balanced = false;
             return non_intrusive_get_cluster_status("ssh h x", status, balanced) &&
                    status == "Normal";
         }},
        {"non_intrusive_get_node_count", "ssh", BY_EXIT, "nodeCount:3", false,
         [](Database_Tools&, char const*) {
             int count = 0;
             return non_intrusive_get_node_count("h", count, "", "") && count == 3;
         }},
        {"non_intrusive_get_cluster_version", "ssh", BY_OUTPUT, "gs_check (GaussDB 8.1.1 build 1",
         false,
         [](Database_Tools&, char const*) {
             GaussDB_Version version(GAUSSDB_UNKNOWN, 0, 0, 0);
             return non_intrusive_get_cluster_version("h", version, "", "") &&
                    version == GAUSSDB_A_811;
         }},
        {"gsql_query", "gsql", BY_EXIT, "row", true,
         [](Database_Tools& tools, char const* user) {
             std::vector<std::string> rows;
             return GaussDB_Gsql_Client(tools.env(), "dba", "", "", 1, user, "")
                        .query("select 1", rows, true) &&
                    rows.back() == "row";
         }},
        {"zsql_query", "zsql", BY_EXIT, "---\\nrow", true,
         [](Database_Tools& tools, char const* user) {
             std::vector<std::string> rows;
             return GaussDB_Zsql_Client(tools.env(), "sys", "", "/d", 1, true, user)
                        .query("select 1", rows, true) &&
                    rows.back() == "row";
         }},
        {"non_intrusive_query", "ssh", BY_EXIT, "row", false,
         [](Database_Tools&, char const*) {
             std::vector<std::string> rows;
             return GaussDB_Non_Intrusive_Client(1, "h", "").query("select 1", rows, true) &&
                    rows.back() == "row";
         }},
        {"generate_gaussdb_config", "python3", BY_EXIT, "<ROOT/>", true,
         [](Database_Tools& tools, char const* user) {
             Scripted_Interpreters const interpreters(tools);
             tools.env().set_env("GPHOME", "/gp");
             std::ofstream(tools.path("calls/written")) << "old";
             bool const done = generate_gaussdb_config(
                 tools.env(), user, tools.path("calls/written").c_str(), "/c", true);
             EXPECT_EQ(done, std::filesystem::exists(tools.path("calls/written")));
             return done;
         }},
    };
}

/** Ends a tool when it has said that it runs, as somebody who is tired of waiting does. */
class Operator {
public:
    explicit Operator(std::string const& file)
        : thread_([file] {
              while (!std::filesystem::exists(file))
                  std::this_thread::sleep_for(std::chrono::milliseconds(1));
              pid_t pid = 0;
              std::ifstream(file) >> pid;
              ASSERT_GT(pid, 1);
              kill(pid, SIGKILL);
          }) {}
    ~Operator() { thread_.join(); }
    /** The steps by which a tool says it. */
    static std::string steps(std::string const& file) {
        return "run echo $PPID >" + file + ".new; mv " + file + ".new " + file + "\nwait";
    }

private:
    std::thread thread_;
};

class Tool_Fault : public testing::TestWithParam<Call> {
protected:
    bool run() { return GetParam().run(tools_, tools_.user()); }
    void script(std::string const& text) { tools_.script(GetParam().tool, text); }
    std::string print_wanted() const {
        return GetParam().wanted.empty() ? "" : "out " + GetParam().wanted + "\n";
    }
    /** Whether a tool that printed the wanted line and then failed has done. */
    bool failed_tool_is_enough() const { return GetParam().judges == BY_OUTPUT; }

    void TearDown() override {
        EXPECT_THAT(zombies_in_proc(), testing::IsEmpty());
        EXPECT_THAT(children_in_proc(), testing::IsEmpty());
        claim_follow_ups();
    }
    /** What the function itself adds to the line that a test claims. */
    void claim_follow_ups() {
        Log_Capture& log = Log_Capture::instance();
        for (char const* const text :
             {"Failed to execute command '", "Failed to run cmd 'zsql sys@127.0.0.1:1 -q -D /d -c ",
              "Failed to spawn gsql process\n", "Failed to generate GaussDB xml config\n"})
            EXPECT_LE(log.claim_all(LM_ERROR, text), 1u);
        log.claim_all(LM_ERROR, "Unrecognized GaussDB version\n");
        log.claim_all(LM_WARNING, "Failed to give ");
    }

    Database_Tools tools_;
};

INSTANTIATE_TEST_SUITE_P(Of, Tool_Fault, testing::ValuesIn(all_calls()),
                         [](auto const& tried) { return std::string(tried.param.name); });

TEST_P(Tool_Fault, a_tool_that_does_its_work_is_a_success) {
    script(print_wanted());
    EXPECT_TRUE(run());
}

TEST_P(Tool_Fault, a_missing_tool_is_a_failure) {
    Scoped_Env const path("PATH", tools_.path().c_str());
    tools_.env().set_env("PATH", tools_.path());
    EXPECT_FALSE(run());
    EXPECT_LOGGED(LM_ERROR, "Failed to start ");
}

TEST_P(Tool_Fault, a_tool_that_exits_with_another_status_behind_the_wanted_line) {
    script(print_wanted() + "err out of memory\nexit 9");
    EXPECT_EQ(failed_tool_is_enough(), run());
    EXPECT_LOGGED(LM_WARNING, "exited with status 9, the last lines of its stderr:\n");
}

TEST_P(Tool_Fault, a_tool_that_dies_on_a_signal) {
    script(print_wanted() + "signal 11");
    EXPECT_EQ(failed_tool_is_enough(), run());
    EXPECT_LOGGED(LM_ERROR, "was ended by signal 11 (Segmentation fault)");
}

TEST_P(Tool_Fault, a_tool_that_dies_on_a_signal_before_the_wanted_line_is_a_failure) {
    script("signal 11");
    EXPECT_FALSE(run());
    EXPECT_LOGGED(LM_ERROR, "was ended by signal 11 (Segmentation fault)");
}

TEST_P(Tool_Fault, a_tool_that_hangs_is_ended_by_hand) {
    std::string const file = tools_.path("calls/pid");
    script(print_wanted() + Operator::steps(file));
    {
        Operator const at_work(file);
        EXPECT_EQ(failed_tool_is_enough(), run());
    }
    EXPECT_LOGGED(LM_ERROR, "was ended by signal 9 (Killed)");
}

TEST_P(Tool_Fault, a_megabyte_without_a_line_break_does_no_harm) {
    script("repeat 16384 " + BIG.substr(0, 64) + "\nout\n" + print_wanted());
    EXPECT_TRUE(run());
}

TEST_P(Tool_Fault, a_line_of_digits_and_blanks_up_to_the_limit_does_no_harm) {
    std::string const line = "gs_check (GaussDB Kernel cluster_state : port= - 11111111 22222222 ";
    script("repeat 15000 " + line + "\nout\n" + print_wanted());
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(run());
    // a pattern that goes back over all of it again and again takes minutes
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    // one may give such a line up, which is told, but no other one
    Log_Capture::instance().claim_all(LM_WARNING, "Failed to match a line, it is passed over");
}

TEST_P(Tool_Fault, nuls_in_the_output_do_no_harm) {
    script("out \\0\\0\\0\nout a\\0b\n" + print_wanted() + "err \\0");
    EXPECT_TRUE(run());
}

TEST_P(Tool_Fault, a_tool_that_closes_its_output_and_goes_on_is_waited_for) {
    script(print_wanted() + "close\nrun touch " + tools_.path("calls/went_on"));
    EXPECT_TRUE(run());
    EXPECT_TRUE(std::filesystem::exists(tools_.path("calls/went_on")));
}

TEST_P(Tool_Fault, a_tool_for_an_unknown_user_never_runs_as_the_agent) {
    script(print_wanted());
    bool const done = GetParam().run(tools_, "no_such_user");
    if (GetParam().is_as_user) {
        EXPECT_FALSE(done);
        EXPECT_EQ(0u, tools_.calls(GetParam().tool));
        EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no_such_user, errno=");
    } else {
        // those that run as the agent by their nature
        EXPECT_EQ(1u, tools_.calls(GetParam().tool));
        EXPECT_EQ(geteuid(), tools_.call(GetParam().tool).uid);
    }
}

TEST(Password_Fault, a_client_that_hangs_before_it_took_its_password_is_ended_by_hand) {
    Database_Tools tools;
    std::string const file = tools.path("calls/pid");
    tools.script("gsql", Operator::steps(file));
    std::vector<std::string> rows;
    {
        Operator const at_work(file);
        // longer than a pipe holds
        GaussDB_Gsql_Client const client(tools.env(), "dba", std::string(300000, 'p').c_str(), "",
                                         1, tools.user(), "");
        EXPECT_FALSE(client.query("select 1", rows, true));
    }
    EXPECT_LOGGED(LM_ERROR, "Failed to write password to gsql, errno=32, Broken pipe\n");
    EXPECT_LOGGED(LM_WARNING, "was ended by signal 9 (Killed)");
    EXPECT_THAT(children_in_proc(), testing::IsEmpty());
}

} // namespace
