#include "gaussdb/common/gaussdb_zsql_client.h"

#include "tests/support/database_tools.h"
#include "tests/support/log_capture.h"
#include "tests/support/recorded_output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/** What the handler makes of a text. */
struct Reading {
    explicit Reading(std::vector<std::string> const& lines) {
        Zsql_Query_Line_Handler handler(rows, "", &error, Text_Process_Handler::TPHF_LOG_NONE);
        for (std::string const& line : lines)
            EXPECT_EQ(0, handler.handle_stdout_line(line.c_str(), line.size()));
    }
    std::vector<std::string> rows;
    std::string error;
};

TEST(Zsql_Query_Line_Handler, rows_are_between_the_rule_and_the_closing_line) {
    EXPECT_THAT(Reading({"NAME", "----", "db1", "1 rows fetched."}).rows, ElementsAre("db1"));
}

TEST(Zsql_Query_Line_Handler, prompts_before_the_rule_are_passed_over) {
    EXPECT_THAT(Reading({"SQL> ", "NAME", "---- ---", " db1 x ", "", "1 rows fetched."}).rows,
                ElementsAre("db1 x"));
}

TEST(Zsql_Query_Line_Handler, without_a_rule_there_are_no_rows) {
    EXPECT_THAT(Reading({"connected.", "Succeed.", "1 rows affected."}).rows, IsEmpty());
}

TEST(Zsql_Query_Line_Handler, an_error_before_the_rule_is_no_row) {
    Reading const reading({"GS-00001: failed"});
    EXPECT_THAT(reading.rows, IsEmpty());
    EXPECT_EQ("GS-00001: failed", reading.error);
}

TEST(Zsql_Query_Line_Handler, an_error_behind_the_rule_is_both) {
    Reading const reading({"----", "GAUSS-00002: a", "GS-3: b", " GS-4: not at the beginning"});
    EXPECT_THAT(reading.rows,
                ElementsAre("GAUSS-00002: a", "GS-3: b", "GS-4: not at the beginning"));
    EXPECT_EQ("GAUSS-00002: aGS-3: b", reading.error);
}

TEST(Zsql_Query_Line_Handler, works_without_a_place_for_errors) {
    std::vector<std::string> rows;
    Zsql_Query_Line_Handler handler(rows, "", nullptr, Text_Process_Handler::TPHF_LOG_NONE);
    EXPECT_EQ(0, handler.handle_stdout_line("GS-1: x", 7));
    EXPECT_EQ(0, handler.handle_stdout_line(nullptr, 0));
    EXPECT_THAT(rows, IsEmpty());
}

TEST(Zsql_Query_Line_Handler, only_one_form_of_the_closing_line_is_known) {
    EXPECT_THAT(Reading({"--", "1 row fetched.", "12 rows fetched!", "x 1 rows fetched."}).rows,
                ElementsAre("1 row fetched.", "x 1 rows fetched."));
}

TEST(Zsql_Query_Line_Handler, a_second_rule_is_a_row) {
    EXPECT_THAT(Reading({"--", "a", "--", "b"}).rows, ElementsAre("a", "--", "b"));
}

TEST(Zsql_Query_Line_Handler, a_line_of_blanks_alone_passes_for_a_rule) {
    EXPECT_THAT(Reading({"  ", "NAME", "---", "a"}).rows, ElementsAre("NAME", "---", "a"));
}

TEST(Zsql_Query_Line_Handler, a_line_of_blanks_behind_the_rule_is_an_empty_row) {
    EXPECT_THAT(Reading({"---", "  "}).rows, ElementsAre(""));
}

struct Recorded_Rows {
    char const* name;
    std::vector<std::string> rows;
};

/** The rows of each recorded output, whole. */
TEST(Zsql_Query_Line_Handler, reads_every_recorded_output) {
    std::vector<Recorded_Rows> const recorded = {
        {"cantian-one-row-no-blank-line", {"1            Bob"}},
        {"cantian-six-rows",
         {"3            33", "3            33", "3            332", "1            11",
          "1            11", "1            11"}},
        {"cantian-three-rows", {"1            11", "3            33", "3            332"}},
        {"ograc-backup-times-five-rows",
         {"2023-10-17 20:00:51.624220       2023-10-17 20:01:32.582088       134217728",
          "2023-10-17 20:29:06.516188       2023-10-17 20:31:46.508040       134217728",
          "2023-10-18 10:47:02.172953       2023-10-18 10:50:22.724287       134217728",
          "2023-10-18 14:27:50.749253       2023-10-18 14:30:18.068850       134217728",
          "2023-10-18 14:35:46.053201       2023-10-18 14:37:33.633707       134217728"}},
        {"ograc-dv_database-with-login-noise",
         {"dbstor                           OPEN                 READ WRITE"}},
        {"ograc-one-row-no-blank-line", {"LOCAL_TXN            0            0            0.00000"}},
        {"ograc-regress-three-rows-utf8",
         {"3            小明", "6            小李", "8            小红"}},
        // what an interactive client prints behind the count passes for a row
        {"ograc-regress-zero-rows", {"SQL> drop table t_delete05;"}},
    };
    for (Recorded_Rows const& expected : recorded)
        EXPECT_EQ(
            expected.rows,
            Reading(Recorded_Output::load(std::string("zsql/") + expected.name + ".txt").lines())
                .rows)
            << expected.name;
    EXPECT_EQ(recorded.size() + 1, Recorded_Output::all("zsql").size());
}

TEST(Zsql_Query_Line_Handler, the_recorded_plan_has_its_rules_and_a_prompt_as_rows) {
    std::vector<std::string> const rows =
        Reading(Recorded_Output::load("zsql/ograc-regress-explain-eleven-rows.txt").lines()).rows;
    ASSERT_EQ(12u, rows.size());
    EXPECT_EQ(std::string(115, '-'), rows.front());
    EXPECT_EQ("1 - access: SNAME = NAME", rows[10]);
    EXPECT_EQ("SQL>", rows.back());
}

class GaussDB_Zsql_Client_Test : public testing::Test {
protected:
    GaussDB_Zsql_Client client(char const* password = "", bool is_single = true) {
        return GaussDB_Zsql_Client(tools_.env(), "sys", password, "/data", 1888, is_single,
                                   tools_.user());
    }

    Database_Tools tools_;
    std::vector<std::string> rows_;
};

char const ONE_ROW[] = "out NAME\nout ----\nout  db1 \nout 1 rows fetched.\n";

TEST_F(GaussDB_Zsql_Client_Test, a_query_goes_by_the_account_to_the_local_host) {
    tools_.script("zsql", ONE_ROW);
    EXPECT_TRUE(client().query("select name from dv_database", rows_, true));
    Tool_Call const call = tools_.call("zsql");
    EXPECT_EQ("[zsql][sys@127.0.0.1:1888][-q][-D][/data][-c][select name from dv_database]",
              call.text());
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_EQ(tools_.uid(), call.uid);
    EXPECT_THAT(rows_, ElementsAre("db1"));
    EXPECT_LOGGED(LM_DEBUG,
                  "zsql sys@127.0.0.1:1888 -q -D /data -c \"select name from dv_database\"\n");
}

TEST_F(GaussDB_Zsql_Client_Test, a_query_is_not_logged_when_told_so) {
    tools_.script("zsql", ONE_ROW);
    EXPECT_TRUE(client().query("select 1", rows_, false));
    EXPECT_NOT_LOGGED("select 1");
}

TEST_F(GaussDB_Zsql_Client_Test, the_password_goes_to_stdin_and_nowhere_else) {
    tools_.script("zsql", "line\nrun cat /proc/$PPID/cmdline /proc/$PPID/environ >" +
                              tools_.path("calls/seen") + "\n" + ONE_ROW);
    EXPECT_TRUE(client("s3cret").query("select 1", rows_, true));
    EXPECT_EQ("s3cret\n", tools_.call("zsql").input);
    std::ifstream file(tools_.path("calls/seen"));
    std::string const seen((std::istreambuf_iterator<char>(file)), {});
    EXPECT_NE(std::string::npos, seen.find("sys@127.0.0.1:1888"));
    EXPECT_EQ(std::string::npos, seen.find("s3cret"));
    EXPECT_NOT_LOGGED("s3cret");
}

TEST_F(GaussDB_Zsql_Client_Test, without_a_password_the_operating_system_user_counts) {
    tools_.script("zsql", std::string("read\n") + ONE_ROW);
    EXPECT_TRUE(client("s3cret").query_without_password("select 1", rows_));
    EXPECT_EQ("[zsql][/][as][sysdba][-D][/data][-q][-c][select 1]", tools_.call("zsql").text());
    EXPECT_EQ("", tools_.call("zsql").input);
    EXPECT_LOGGED(LM_DEBUG, "zsql / as sysdba -D /data -q -c \"select 1\"\n");
}

TEST_F(GaussDB_Zsql_Client_Test, a_clusters_administrator_has_another_name) {
    tools_.script("zsql", ONE_ROW);
    EXPECT_TRUE(client("", false).query_without_password("select 1", rows_));
    EXPECT_EQ("clsmgr", tools_.call("zsql").args.at(3));
}

TEST_F(GaussDB_Zsql_Client_Test, a_failure_tells_the_servers_error) {
    tools_.script("zsql", "out GS-00335: login failed\nexit 1");
    EXPECT_FALSE(client().query("select 1", rows_, false));
    EXPECT_THAT(rows_, IsEmpty());
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd 'zsql sys@127.0.0.1:1888 -q -D /data -c \"select "
                            "1\"', GS-00335: login failed\n");
}

TEST_F(GaussDB_Zsql_Client_Test, an_error_with_exit_status_0_is_a_success_without_rows) {
    tools_.script("zsql", "out GS-00001: failed\nexit 0");
    EXPECT_TRUE(client().query("select 1", rows_, true));
    EXPECT_THAT(rows_, IsEmpty());
}

TEST_F(GaussDB_Zsql_Client_Test, a_missing_zsql_is_told_with_the_shared_message) {
    EXPECT_FALSE(client().query("select 1", rows_, true));
    EXPECT_LOGGED(LM_ERROR, "Failed to start zsql: ");
    EXPECT_LOGGED(LM_ERROR, "Failed to spawn gsql process\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd 'zsql sys@");
}

TEST_F(GaussDB_Zsql_Client_Test, a_zsql_that_does_not_take_its_password_is_a_failure) {
    tools_.script("zsql", "exit 0");
    EXPECT_FALSE(client(std::string(300000, 'p').c_str()).query("select 1", rows_, true));
    EXPECT_LOGGED(LM_ERROR, "Failed to write password to gsql, errno=32, Broken pipe\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd 'zsql sys@");
}

TEST_F(GaussDB_Zsql_Client_Test, an_unknown_user_is_never_the_agents) {
    tools_.script("zsql", ONE_ROW);
    GaussDB_Zsql_Client const stranger(tools_.env(), "sys", "", "/data", 1, true, "no_such_user");
    EXPECT_FALSE(stranger.query("select 1", rows_, true));
    EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no_such_user");
    EXPECT_EQ(0u, tools_.calls("zsql"));
}

TEST_F(GaussDB_Zsql_Client_Test, a_statement_that_is_too_long_is_not_run_cut_short) {
    tools_.script("zsql", ONE_ROW);
    std::string const statement = "select " + std::string(2000, '1');
    EXPECT_FALSE(client().query(statement.c_str(), rows_, true));
    EXPECT_LOGGED(LM_ERROR, "Failed to set a command line of ");
    EXPECT_FALSE(client().query_without_password(statement.c_str(), rows_));
    EXPECT_LOGGED(LM_ERROR, "Failed to set a command line of ");
    EXPECT_EQ(0u, tools_.calls("zsql"));
}

TEST_F(GaussDB_Zsql_Client_Test, a_null_or_empty_statement_is_refused) {
    EXPECT_FALSE(client().query(nullptr, rows_, true));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_FALSE(client().query_without_password("", rows_));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_FALSE(client().query_i(nullptr, rows_, "", true));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
}

TEST_F(GaussDB_Zsql_Client_Test, lists_the_databases_by_the_account) {
    tools_.script("zsql", ONE_ROW);
    EXPECT_TRUE(client().list_database(rows_));
    EXPECT_THAT(rows_, ElementsAre("db1"));
    EXPECT_EQ(1u, tools_.calls("zsql"));
    EXPECT_EQ("select name from dv_database", tools_.call("zsql").args.back());
}

TEST_F(GaussDB_Zsql_Client_Test, lists_the_databases_without_the_account_when_it_fails) {
    tools_.script("zsql", std::string("out ---\nout half\nexit 1\n---\n") + ONE_ROW);
    EXPECT_TRUE(client().list_database(rows_));
    // what came before the failure stays
    EXPECT_THAT(rows_, ElementsAre("half", "db1"));
    EXPECT_EQ("/", tools_.call("zsql", 2).args.at(1));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd ");
}

TEST_F(GaussDB_Zsql_Client_Test, lists_the_databases_without_the_account_when_it_sees_none) {
    tools_.script("zsql", std::string("out 0 rows fetched.\n---\n") + ONE_ROW);
    EXPECT_TRUE(client().list_database(rows_));
    EXPECT_THAT(rows_, ElementsAre("db1"));
    EXPECT_EQ(2u, tools_.calls("zsql"));
}

TEST_F(GaussDB_Zsql_Client_Test, lists_no_databases_when_both_ways_fail) {
    tools_.script("zsql", "exit 1");
    EXPECT_FALSE(client().list_database(rows_));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "exited with status 1"));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, "Failed to run cmd "));
}

TEST_F(GaussDB_Zsql_Client_Test, the_version_is_the_first_row) {
    tools_.script("zsql", "out VERSION\nout -----\nout GaussDB_T_1.0.2.B303 Release\nout x\n");
    EXPECT_EQ("GaussDB_T_1.0.2.B303 Release", client().get_version());
    EXPECT_EQ("[zsql][/][as][sysdba][-D][/data][-q][-c][select version]",
              tools_.call("zsql").text());
}

TEST_F(GaussDB_Zsql_Client_Test, the_version_is_empty_after_any_failure) {
    tools_.script("zsql", "exit 0\n---\nout ---\nout x\nexit 1");
    EXPECT_EQ("", client().get_version());
    EXPECT_EQ("", client().get_version());
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd ");
}

TEST_F(GaussDB_Zsql_Client_Test, tries_a_logon_by_the_account) {
    tools_.script("zsql", "exit 0\n---\nexit 1");
    EXPECT_TRUE(client().test_logon());
    EXPECT_EQ("[zsql][sys@127.0.0.1:1888][-q][-D][/data][-c][select instance_name from "
              "dv_instance]",
              tools_.call("zsql").text());
    EXPECT_FALSE(client().test_logon());
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    EXPECT_LOGGED(LM_ERROR, "Failed to run cmd ");
}

} // namespace
