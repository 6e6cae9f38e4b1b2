#include "gaussdb/common/gaussdb_non_intrusive_client.h"

#include "tests/support/database_tools.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

std::vector<std::string> rows_of(std::vector<std::string> const& lines) {
    std::vector<std::string> rows;
    Non_Intrusive_Query_Line_Handler handler(rows);
    for (std::string const& line : lines)
        EXPECT_EQ(0, handler.handle_stdout_line(line.data(), line.size()));
    return rows;
}

TEST(Non_Intrusive_Query_Line_Handler, trims_rows_and_drops_empty_ones) {
    EXPECT_THAT(rows_of({" a b ", "", "   ", "\tc\r"}), ElementsAre("a b", "c"));
}

TEST(Non_Intrusive_Query_Line_Handler, drops_the_login_banner) {
    EXPECT_THAT(rows_of({"", "Authorized users only", " Authorized users only ", "db"}),
                ElementsAre("db"));
}

TEST(Non_Intrusive_Query_Line_Handler, a_row_that_begins_the_banner_goes_with_it) {
    EXPECT_THAT(rows_of({"A", "B", "Author", "author", "Authorized users only."}),
                ElementsAre("B", "author", "Authorized users only."));
}

TEST(Non_Intrusive_Query_Line_Handler, takes_no_line_for_none) {
    std::vector<std::string> rows;
    EXPECT_EQ(0, Non_Intrusive_Query_Line_Handler(rows).handle_stdout_line(nullptr, 0));
    EXPECT_TRUE(rows.empty());
}

TEST(Non_Intrusive_Query_Line_Handler, a_long_row_of_blanks_costs_no_more_than_its_length) {
    std::string const row = "a" + std::string(1000000, ' ') + "b";
    EXPECT_THAT(rows_of({row}), ElementsAre(row));
}

class GaussDB_Non_Intrusive_Client_Test : public testing::Test {
protected:
    Database_Tools tools_;
    Scoped_Env libraries_{"LD_LIBRARY_PATH", "/agent/lib"};
    std::vector<std::string> rows_;
};

char const PROFILES[] =
    "test -f ~/gauss_env_file && source ~/gauss_env_file; source /etc/profile; test -f "
    "$BIGDATA_HOME/mppdb/.mppdbgs_profile && source $BIGDATA_HOME/mppdb/.mppdbgs_profile; ";

TEST_F(GaussDB_Non_Intrusive_Client_Test, runs_gsql_behind_ssh_in_the_nodes_environment) {
    tools_.script("ssh", "out Authorized users only\nout  1 ");
    GaussDB_Non_Intrusive_Client const client(8000, "10.0.0.1", "");
    EXPECT_TRUE(client.query("select 1", rows_, false));
    Tool_Call const call = tools_.call("ssh");
    EXPECT_THAT(call.args,
                ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1",
                            PROFILES + std::string("gsql -d postgres -p 8000 -t -c \"select 1\"")));
    EXPECT_EQ("", call.env.at("LD_LIBRARY_PATH"));
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    EXPECT_EQ(geteuid(), call.uid);
    EXPECT_THAT(rows_, ElementsAre("1"));
    EXPECT_LOGGED(LM_DEBUG, "ssh -o ConnectTimeout=4 10.0.0.1 '" + std::string(PROFILES) +
                                "gsql -d postgres -p 8000 -t -c \"select 1\"'\n");
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, has_setters_for_what_surrounds_the_command) {
    tools_.script("ssh", "");
    GaussDB_Non_Intrusive_Client client(8000, "10.0.0.1", "sales");
    client.source_cmd("source /x; ");
    client.ssh_opts("-p 2222 -o BatchMode=yes");
    EXPECT_TRUE(client.query("select 1", rows_, true));
    EXPECT_EQ("[ssh][-p][2222][-o][BatchMode=yes][10.0.0.1][source /x; gsql -d sales -p 8000 -t "
              "-c \"select 1\"]",
              tools_.call("ssh").text());
    client.source_cmd(nullptr);
    client.ssh_opts(nullptr);
    EXPECT_TRUE(client.query("select 1", rows_, true));
    EXPECT_EQ("[ssh][10.0.0.1][gsql -d sales -p 8000 -t -c \"select 1\"]",
              tools_.call("ssh", 2).text());
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, a_prepared_text_constant_reaches_the_remote_shell) {
    tools_.script("ssh", "");
    GaussDB_Non_Intrusive_Client client(8000, "10.0.0.1", "");
    client.source_cmd("");
    EXPECT_TRUE(client.query("select distinct(node_host) from pgxc_node where "
                             "node_host!='\"'localhost'\"'",
                             rows_, true));
    EXPECT_EQ("gsql -d postgres -p 8000 -t -c \"select distinct(node_host) from pgxc_node where "
              "node_host!='localhost'\"",
              tools_.call("ssh").args.back());
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, a_null_or_empty_statement_is_refused) {
    tools_.script("ssh", "");
    GaussDB_Non_Intrusive_Client const client(8000, "10.0.0.1", "");
    EXPECT_FALSE(client.query(nullptr, rows_, true));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_FALSE(client.query("", rows_, true));
    EXPECT_CHECK_LOGGED("cmd is NULL or \"\"");
    EXPECT_EQ(0u, tools_.calls("ssh"));
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, a_client_without_a_host_is_refused) {
    tools_.script("ssh", "");
    EXPECT_FALSE(GaussDB_Non_Intrusive_Client(8000, nullptr, "").query("select 1", rows_, true));
    EXPECT_CHECK_LOGGED("host_ is empty");
    EXPECT_EQ(0u, tools_.calls("ssh"));
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, a_host_that_is_an_option_is_refused) {
    tools_.script("ssh", "");
    GaussDB_Non_Intrusive_Client const client(8000, "-oProxyCommand=touch_me", "");
    EXPECT_FALSE(client.query("select 1", rows_, true));
    EXPECT_LOGGED(LM_ERROR, "Invalid address '-oProxyCommand=touch_me', nothing is run\n");
    EXPECT_EQ(0u, tools_.calls("ssh"));
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, a_statement_that_is_too_long_is_not_run_cut_short) {
    tools_.script("ssh", "");
    GaussDB_Non_Intrusive_Client const client(8000, "10.0.0.1", "");
    EXPECT_FALSE(client.query(std::string(1000, '1').c_str(), rows_, true));
    EXPECT_LOGGED(LM_ERROR, "Failed to set a command line of ");
    EXPECT_EQ(0u, tools_.calls("ssh"));
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, rows_of_a_failed_statement_stay) {
    tools_.script("ssh", "out row\nexit 255");
    EXPECT_FALSE(GaussDB_Non_Intrusive_Client(1, "h", "").query("select 1", rows_, true));
    EXPECT_THAT(rows_, ElementsAre("row"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 255");
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, a_logon_is_taken_for_granted) {
    tools_.script("ssh", "exit 1");
    EXPECT_TRUE(GaussDB_Non_Intrusive_Client(1, "no.such.host", "").test_logon());
    EXPECT_EQ(0u, tools_.calls("ssh"));
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, the_version_is_the_first_row_whole) {
    tools_.script("ssh", "out  PostgreSQL 9.2.4 (GaussDB 8.2.1 build x) \nout\n---\nout x\nexit "
                         "1\n---\nexit 0");
    GaussDB_Non_Intrusive_Client const client(1, "h", "");
    EXPECT_EQ("PostgreSQL 9.2.4 (GaussDB 8.2.1 build x)", client.get_version());
    EXPECT_THAT(tools_.call("ssh").args.back(), testing::EndsWith("-c \"select version()\""));
    EXPECT_EQ("", client.get_version());
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    EXPECT_EQ("", client.get_version());
}

TEST_F(GaussDB_Non_Intrusive_Client_Test, lists_the_databases) {
    tools_.script("ssh", "out  template1\nout  sales\nout");
    EXPECT_TRUE(GaussDB_Non_Intrusive_Client(1, "h", nullptr).list_database(rows_));
    EXPECT_THAT(rows_, ElementsAre("template1", "sales"));
    EXPECT_THAT(tools_.call("ssh").args.back(),
                testing::EndsWith("gsql -d postgres -p 1 -t -c \"select datname from "
                                  "pg_database\""));
}

} // namespace
