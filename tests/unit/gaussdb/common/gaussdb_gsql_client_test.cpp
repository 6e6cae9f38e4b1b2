#include "gaussdb/common/gaussdb_gsql_client.h"

#include "tests/support/database_tools.h"
#include "tests/support/log_capture.h"
#include "tests/support/recorded_output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class GaussDB_Gsql_Client_Test : public testing::Test {
protected:
    GaussDB_Gsql_Client client(char const* password = "", char const* db = "",
                               char const* host = "", char const* user = "dba") {
        return GaussDB_Gsql_Client(tools_.env(), user, password, db, 25308, tools_.user(), host);
    }
    bool query(GaussDB_Client const& client, char const* cmd) {
        return client.query(cmd, rows_, false);
    }

    Database_Tools tools_;
    std::vector<std::string> rows_;
};

TEST_F(GaussDB_Gsql_Client_Test, runs_gsql_as_the_clusters_user_in_its_environment) {
    tools_.env().set_env("GAUSSHOME", "/app");
    tools_.script("gsql", "out  1 ");
    EXPECT_TRUE(query(client("", "sales"), "select 1"));
    Tool_Call const call = tools_.call("gsql");
    EXPECT_EQ("[gsql][-t][-c][select 1]", call.text());
    EXPECT_EQ("25308", call.env.at("PGPORT"));
    EXPECT_EQ("sales", call.env.at("PGDATABASE"));
    EXPECT_EQ("dba", call.env.at("PGUSER"));
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_EQ("/app", call.env.at("GAUSSHOME"));
    EXPECT_EQ(tools_.uid(), call.uid);
    EXPECT_THAT(rows_, ElementsAre("1"));
}

TEST_F(GaussDB_Gsql_Client_Test, logs_the_command_also_when_told_not_to) {
    tools_.script("gsql", "");
    EXPECT_TRUE(client().query("select 1", rows_, false));
    EXPECT_LOGGED(LM_DEBUG, "gsql -t -c \"select 1\"\n");
}

TEST_F(GaussDB_Gsql_Client_Test, without_a_database_it_is_postgres) {
    tools_.script("gsql", "");
    EXPECT_TRUE(query(client(), "select 1"));
    EXPECT_EQ("postgres", tools_.call("gsql").env.at("PGDATABASE"));
}

TEST_F(GaussDB_Gsql_Client_Test, without_an_account_no_name_is_given) {
    Scoped_Env const none("PGUSER", nullptr);
    tools_.script("gsql", "");
    EXPECT_TRUE(query(client("", "", "", ""), "select 1"));
    EXPECT_EQ(0u, tools_.call("gsql").env.count("PGUSER"));
}

TEST_F(GaussDB_Gsql_Client_Test, without_an_operating_system_user_the_agents_is_kept) {
    tools_.script("gsql", "");
    GaussDB_Gsql_Client const agents(tools_.env(), "dba", "", "", 1, "", "");
    if (geteuid() != 0) {
        EXPECT_TRUE(query(agents, "select 1"));
        EXPECT_EQ(geteuid(), tools_.call("gsql").uid);
    } else { // not with what the database's user wrote into a profile
        EXPECT_FALSE(query(agents, "select 1"));
        EXPECT_LOGGED(LM_ERROR, "it would run as root in an environment that another user");
        EXPECT_LOGGED(LM_ERROR, "Failed to spawn gsql process");
        EXPECT_EQ(0u, tools_.calls("gsql"));
    }
}

TEST_F(GaussDB_Gsql_Client_Test, a_host_goes_onto_the_command_line) {
    tools_.script("gsql", "");
    EXPECT_TRUE(query(client("", "", "10.0.0.1"), "select 1"));
    EXPECT_EQ("[gsql][-h][10.0.0.1][-t][-c][select 1]", tools_.call("gsql").text());
    EXPECT_LOGGED(LM_DEBUG, "gsql -h \"10.0.0.1\" -t -c \"select 1\"\n");
}

TEST_F(GaussDB_Gsql_Client_Test, a_host_that_is_an_option_is_refused) {
    tools_.script("gsql", "");
    EXPECT_FALSE(query(client("", "", "-h\" -f\"/etc/x"), "select 1"));
    EXPECT_LOGGED(LM_ERROR, "Invalid address '-h\" -f\"/etc/x', nothing is run\n");
    EXPECT_FALSE(query(client("", "", "h\" -f \"/etc/x"), "select 1"));
    EXPECT_LOGGED(LM_ERROR, "Invalid address 'h\" -f \"/etc/x', nothing is run\n");
    EXPECT_EQ(0u, tools_.calls("gsql"));
}

TEST_F(GaussDB_Gsql_Client_Test, a_prepared_text_constant_reaches_gsql_in_its_quotes) {
    tools_.script("gsql", "");
    EXPECT_TRUE(query(client(), "select distinct(node_host) from pgxc_node where "
                                "node_host!='\"'localhost'\"'"));
    EXPECT_EQ("select distinct(node_host) from pgxc_node where node_host!='localhost'",
              tools_.call("gsql").args.at(3));
}

TEST_F(GaussDB_Gsql_Client_Test, the_password_goes_to_stdin_and_nowhere_else) {
    tools_.script("gsql", "line\nrun cat /proc/$PPID/cmdline /proc/$PPID/environ >" +
                              tools_.path("calls/seen") + "\nout 1");
    EXPECT_TRUE(query(client("s3cret"), "select 1"));
    EXPECT_EQ("s3cret\n", tools_.call("gsql").input);
    std::ifstream file(tools_.path("calls/seen"));
    std::string const seen((std::istreambuf_iterator<char>(file)), {});
    EXPECT_NE(std::string::npos, seen.find("select 1"));
    EXPECT_NE(std::string::npos, seen.find("PGPORT=25308"));
    EXPECT_EQ(std::string::npos, seen.find("s3cret"));
    EXPECT_NOT_LOGGED("s3cret");
}

TEST_F(GaussDB_Gsql_Client_Test, an_empty_password_writes_nothing) {
    tools_.script("gsql", "read\nout 1");
    EXPECT_TRUE(query(client(""), "select 1"));
    EXPECT_EQ("", tools_.call("gsql").input);
}

TEST_F(GaussDB_Gsql_Client_Test, a_password_that_is_longer_than_a_pipe_is_given_whole) {
    std::string const password(300000, 'p');
    tools_.script("gsql", "line\nout 1");
    EXPECT_TRUE(query(client(password.c_str()), "select 1"));
    EXPECT_EQ(password + "\n", tools_.call("gsql").input);
}

TEST_F(GaussDB_Gsql_Client_Test, a_gsql_that_does_not_take_its_password_is_a_failure) {
    std::string const password(300000, 'p');
    tools_.script("gsql", "err gsql: no such server\nexit 0");
    EXPECT_FALSE(query(client(password.c_str()), "select 1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to write password to gsql, errno=32, Broken pipe\n");
    EXPECT_LOGGED(LM_INFO, "gsql: no such server\n");
    EXPECT_NOT_LOGGED("ppp");
}

TEST_F(GaussDB_Gsql_Client_Test, a_fast_gsql_that_needs_no_password_is_no_failure) {
    // some of these have ended before the password is written
    std::filesystem::create_symlink("/bin/true", tools_.path("gsql"));
    for (int run = 0; run < 200; ++run)
        ASSERT_TRUE(query(client("s3cret"), "select 1")) << run;
}

TEST_F(GaussDB_Gsql_Client_Test, a_fast_gsql_that_fails_is_a_failure) {
    std::filesystem::create_symlink("/bin/false", tools_.path("gsql"));
    for (int run = 0; run < 50; ++run)
        ASSERT_FALSE(query(client("s3cret"), "select 1")) << run;
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to write password to gsql");
    Log_Capture::instance().claim_all(LM_WARNING, "status 1");
}

TEST_F(GaussDB_Gsql_Client_Test, a_gsql_that_is_killed_before_it_took_its_password_is_a_failure) {
    std::string const password(300000, 'p');
    tools_.script("gsql", "signal 9");
    EXPECT_FALSE(query(client(password.c_str()), "select 1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to write password to gsql, errno=32, Broken pipe\n");
    EXPECT_LOGGED(LM_WARNING, "was ended by signal 9 (Killed)");
}

TEST_F(GaussDB_Gsql_Client_Test, a_missing_gsql_is_a_failure) {
    EXPECT_FALSE(query(client(), "select 1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to start gsql: ");
    EXPECT_LOGGED(LM_ERROR, "Failed to spawn gsql process\n");
}

TEST_F(GaussDB_Gsql_Client_Test, rows_are_trimmed_and_empty_lines_are_no_rows) {
    tools_.script("gsql", "out  postgres \nout\nout \ttemplate1\\r\nout    \nout a b");
    EXPECT_TRUE(query(client(), "select 1"));
    EXPECT_THAT(rows_, ElementsAre("postgres", "template1", "", "a b"));
}

TEST_F(GaussDB_Gsql_Client_Test, stderr_is_no_row) {
    tools_.script("gsql", "err NOTICE\nout row");
    EXPECT_TRUE(query(client(), "select 1"));
    EXPECT_THAT(rows_, ElementsAre("row"));
    EXPECT_LOGGED(LM_INFO, "NOTICE\n");
}

TEST_F(GaussDB_Gsql_Client_Test, rows_of_a_failed_statement_stay_behind_earlier_ones) {
    rows_ = {"earlier"};
    tools_.script("gsql", "out row\nexit 1");
    EXPECT_FALSE(query(client(), "select 1"));
    EXPECT_THAT(rows_, ElementsAre("earlier", "row"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
}

TEST_F(GaussDB_Gsql_Client_Test, an_unknown_user_is_never_the_agents) {
    tools_.script("gsql", "");
    GaussDB_Gsql_Client const stranger(tools_.env(), "dba", "", "", 1, "no_such_user", "");
    EXPECT_FALSE(query(stranger, "select 1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no_such_user");
    EXPECT_EQ(0u, tools_.calls("gsql"));
}

TEST_F(GaussDB_Gsql_Client_Test, a_statement_that_is_too_long_is_not_run_cut_short) {
    tools_.script("gsql", "");
    EXPECT_FALSE(query(client(), ("select " + std::string(2000, '1')).c_str()));
    EXPECT_LOGGED(LM_ERROR, "Failed to set a command line of 2020 bytes, the buffer is for 1022");
    EXPECT_EQ(0u, tools_.calls("gsql"));
}

TEST_F(GaussDB_Gsql_Client_Test, a_quote_without_its_end_is_not_run) {
    tools_.script("gsql", "");
    EXPECT_FALSE(query(client(), "select \"broken"));
    EXPECT_LOGGED(LM_ERROR, "Failed to start ");
    EXPECT_LOGGED(LM_ERROR, "Failed to spawn gsql process\n");
    EXPECT_EQ(0u, tools_.calls("gsql"));
}

TEST_F(GaussDB_Gsql_Client_Test, a_null_or_empty_statement_is_refused) {
    tools_.script("gsql", "");
    EXPECT_FALSE(query(client(), nullptr));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_FALSE(query(client(), ""));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_EQ(0u, tools_.calls("gsql"));
}

TEST_F(GaussDB_Gsql_Client_Test, lists_the_databases) {
    tools_.script("gsql", "out  template1\nout  sales");
    EXPECT_TRUE(client().list_database(rows_));
    EXPECT_THAT(rows_, ElementsAre("template1", "sales"));
    EXPECT_EQ("select datname from pg_database", tools_.call("gsql").args.at(3));
}

TEST_F(GaussDB_Gsql_Client_Test, tries_a_logon_by_a_command_of_the_client_itself) {
    tools_.script("gsql", "exit 0\n---\nexit 2");
    EXPECT_TRUE(client().test_logon());
    EXPECT_EQ("[gsql][-t][-c][\\q]", tools_.call("gsql").text());
    EXPECT_FALSE(client().test_logon());
    EXPECT_LOGGED(LM_WARNING, "exited with status 2");
}

TEST_F(GaussDB_Gsql_Client_Test, the_version_is_the_kernels_word) {
    tools_.prints("gsql",
                  " PostgreSQL 9.2.4 (GaussDB Kernel V500R002C00 build 12ab) compiled at\n");
    EXPECT_EQ("V500R002C00", client().get_version());
    EXPECT_EQ("select version()", tools_.call("gsql").args.at(3));
}

TEST_F(GaussDB_Gsql_Client_Test, the_version_is_empty_after_any_failure) {
    tools_.script("gsql", "out PostgreSQL 9.2.4 (GaussDB Kernel V500R002C00 \nexit 1\n---\nexit "
                          "0\n---\nout something else");
    EXPECT_EQ("", client().get_version());
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    EXPECT_EQ("", client().get_version());
    EXPECT_EQ("", client().get_version());
}

TEST_F(GaussDB_Gsql_Client_Test, the_version_is_looked_for_in_the_first_row_alone) {
    tools_.script("gsql", "out a\nout PostgreSQL 9.2.4 (GaussDB Kernel V500R002C00 build");
    EXPECT_EQ("", client().get_version());
}

/** What each recorded answer to "select version()" gives; only the kernel's form has the word. */
TEST_F(GaussDB_Gsql_Client_Test, of_the_recorded_answers_none_is_the_kernels) {
    size_t count = 0;
    for (Recorded_Output const& output : Recorded_Output::all("version")) {
        if (output.name.find("select-version") == std::string::npos)
            continue;
        tools_.prints("gsql", output.text);
        EXPECT_EQ("", client().get_version()) << output.name;
        ++count;
    }
    EXPECT_EQ(7u, count);
}

} // namespace
