#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_env.h"
#include "gaussdb/common/gaussdb_gsql_client.h"
#include "gaussdb/common/gaussdb_non_intrusive_client.h"
#include "tests/support/log_capture.h"
#include "tests/support/postgres_server.h"
#include "tests/support/scoped_env.h"
#include "tests/support/ssh_server.h"
#include "tests/support/zombies.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

/** The SQL clients and the ssh commands against a real PostgreSQL and a real sshd. */
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

/** Asks for the machines of a cluster, with a text constant as the module writes it. */
char const COUNT_HOSTS[] = "select count(distinct(node_host)) from pgxc_node where "
                           "node_host!='\"'localhost'\"'";
char const LIST_HOSTS[] =
    "select distinct(node_host) from pgxc_node where node_host!='\"'localhost'\"'";

class Database_Clients : public testing::Test {
protected:
    static void SetUpTestSuite() {
        // with a terminal, psql asks there for its password and not on stdin
        if (int const terminal = open("/dev/tty", O_RDWR | O_CLOEXEC); terminal != -1) {
            ioctl(terminal, TIOCNOTTY);
            close(terminal);
        }
        server_ = new Postgres_Server;
        server_->run("create role clerk login password 's3cret word'");
        server_->run("create database sales");
        server_->run("create table pgxc_node (node_name text, node_host text)");
        server_->run("insert into pgxc_node values ('cn1', '10.0.0.1'), ('dn1', '10.0.0.1'), "
                     "('dn2', '10.0.0.2'), ('local', 'localhost')");
        server_->run("create table odd (value text)");
        server_->run("insert into odd values ('Authorized users only'), ('A'), ('  kept  '), "
                     "(''), ('back\\slash'), ('name''s \"quoted\" \\ $HOME `id`')");
        search_path_ = server_->directory() + ":/usr/bin:/bin";
        // read by what the module puts before every remote command, behind the machine's profile
        profiles_ = new Temporary_Directory;
        profiles_->write("mppdb/.mppdbgs_profile", "export PATH=" + server_->directory() +
                                                       ":$PATH\nexport PGUSER=postgres\n"
                                                       "export PGHOST=" +
                                                       server_->directory() + "\n");
        ssh_ = new Ssh_Server({{"BIGDATA_HOME", profiles_->path()}}, "Authorized users only\n");
    }
    static void TearDownTestSuite() {
        delete ssh_;
        delete profiles_;
        delete server_;
    }

    Database_Clients() {
        env_.set_env("PATH", search_path_);
        env_.set_env("PGHOST", server_->directory());
    }
    void TearDown() override { EXPECT_THAT(zombies_in_proc(), IsEmpty()); }

    GaussDB_Gsql_Client local(char const* user = "postgres", char const* password = "",
                              char const* db = "", char const* host = "") {
        return GaussDB_Gsql_Client(env_, user, password, db, server_->port(),
                                   server_->os_user().c_str(), host);
    }
    /** The client of the node, which the test's sshd plays. */
    struct Remote : GaussDB_Non_Intrusive_Client {
        explicit Remote(char const* db)
            : GaussDB_Non_Intrusive_Client(server_->port(), ssh_->address().c_str(), db) {
            ssh_opts(ssh_->opts().c_str());
        }
    };
    Remote remote(char const* db = "") { return Remote(db); }
    bool query(GaussDB_Client const& client, char const* cmd) {
        return client.query(cmd, rows_, true);
    }

    inline static Postgres_Server* server_;
    inline static Ssh_Server* ssh_;
    inline static Temporary_Directory* profiles_;
    inline static std::string search_path_;
    GaussDB_Env env_;
    std::vector<std::string> rows_;
    std::string result_;
};

TEST_F(Database_Clients, a_text_constant_comes_right_through_the_local_client) {
    EXPECT_TRUE(query(local(), COUNT_HOSTS));
    EXPECT_THAT(rows_, ElementsAre("2"));
    rows_.clear();
    EXPECT_TRUE(query(local(), LIST_HOSTS));
    EXPECT_THAT(rows_, testing::UnorderedElementsAre("10.0.0.1", "10.0.0.2"));
}

TEST_F(Database_Clients, the_same_constant_comes_right_through_ssh) {
    EXPECT_TRUE(query(remote(), COUNT_HOSTS));
    EXPECT_THAT(rows_, ElementsAre("2"));
    rows_.clear();
    EXPECT_TRUE(query(remote(), LIST_HOSTS));
    EXPECT_THAT(rows_, testing::UnorderedElementsAre("10.0.0.1", "10.0.0.2"));
}

TEST_F(Database_Clients, databases_are_listed_locally_and_through_ssh) {
    EXPECT_TRUE(local().list_database(rows_));
    EXPECT_THAT(rows_,
                testing::UnorderedElementsAre("postgres", "template0", "template1", "sales"));
    rows_.clear();
    EXPECT_TRUE(remote("sales").list_database(rows_));
    EXPECT_THAT(rows_,
                testing::UnorderedElementsAre("postgres", "template0", "template1", "sales"));
}

TEST_F(Database_Clients, the_database_is_the_one_asked_for) {
    EXPECT_TRUE(query(local("postgres", "", "sales"), "select current_database()"));
    EXPECT_TRUE(query(remote("sales"), "select current_database()"));
    EXPECT_TRUE(query(local(), "select current_database()"));
    EXPECT_TRUE(query(remote(), "select current_database()"));
    EXPECT_THAT(rows_, ElementsAre("sales", "sales", "postgres", "postgres"));
}

TEST_F(Database_Clients, a_password_is_taken_from_stdin_over_the_socket_and_over_the_network) {
    EXPECT_TRUE(query(local("clerk", "s3cret word"), "select current_user"));
    EXPECT_TRUE(query(local("clerk", "s3cret word", "", "127.0.0.1"), "select current_user"));
    EXPECT_THAT(rows_, ElementsAre("clerk", "clerk"));
    EXPECT_TRUE(local("clerk", "s3cret word").test_logon());
    EXPECT_NOT_LOGGED("s3cret");
}

TEST_F(Database_Clients, a_wrong_password_is_no_logon) {
    EXPECT_FALSE(local("clerk", "wrong").test_logon());
    EXPECT_LOGGED(LM_WARNING, "password authentication failed for user \"clerk\"");
    EXPECT_FALSE(local("clerk", "").test_logon());
    EXPECT_LOGGED(LM_WARNING, "exited with status 2");
}

TEST_F(Database_Clients, a_logon_is_more_than_a_start_of_the_client) {
    EXPECT_TRUE(local().test_logon());
    EXPECT_FALSE(local("postgres", "", "no_such_database").test_logon());
    EXPECT_LOGGED(LM_WARNING, "database \"no_such_database\" does not exist");
}

TEST_F(Database_Clients, a_faulty_statement_fails_locally_and_through_ssh) {
    EXPECT_FALSE(query(local(), "select no_such_column"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1, the last lines of its stderr:\nERROR:");
    EXPECT_FALSE(query(remote(), "select no_such_column"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    EXPECT_THAT(rows_, IsEmpty());
}

TEST_F(Database_Clients, odd_rows_come_as_they_are_locally) {
    EXPECT_TRUE(query(local(), "select value from odd"));
    EXPECT_THAT(rows_, ElementsAre("Authorized users only", "A", "kept", "", "back\\slash",
                                   "name's \"quoted\" \\ $HOME `id`"));
}

TEST_F(Database_Clients, odd_rows_come_through_ssh_without_those_that_begin_the_banner) {
    EXPECT_TRUE(query(remote(), "select value from odd"));
    EXPECT_THAT(rows_, ElementsAre("kept", "back\\slash", "name's \"quoted\" \\ $HOME `id`"));
    EXPECT_LOGGED(LM_INFO, "Authorized users only\n");
}

TEST_F(Database_Clients, many_rows_come_whole) {
    EXPECT_TRUE(query(local(), "select generate_series(1, 20000)"));
    EXPECT_TRUE(query(remote(), "select generate_series(1, 20000)"));
    ASSERT_THAT(rows_, SizeIs(40000));
    EXPECT_EQ("20000", rows_[19999]);
    EXPECT_EQ("20000", rows_.back());
}

TEST_F(Database_Clients, a_version_of_another_product_is_none_locally_and_a_row_through_ssh) {
    EXPECT_EQ("", local().get_version());
    EXPECT_THAT(remote().get_version(), HasSubstr("PostgreSQL 1"));
}

TEST_F(Database_Clients, a_server_that_is_not_there_is_a_failure) {
    GaussDB_Gsql_Client const nowhere(env_, "postgres", "", "", Server_Child::free_port(),
                                      server_->os_user().c_str(), "");
    EXPECT_FALSE(query(nowhere, "select 1"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 2");
}

TEST_F(Database_Clients, a_session_that_the_server_ends_is_a_failure) {
    EXPECT_FALSE(query(local(), "select pg_terminate_backend(pg_backend_pid())"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 2");
    EXPECT_FALSE(query(remote(), "select pg_terminate_backend(pg_backend_pid())"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 2");
    EXPECT_TRUE(query(local(), "select 1"));
}

TEST_F(Database_Clients, a_remote_command_runs_as_the_user_of_the_logon) {
    EXPECT_TRUE(get_roach_agent_user(ssh_->address(), ssh_->opts(), result_));
    EXPECT_EQ(ssh_->user(), result_);
}

TEST_F(Database_Clients, the_exit_status_of_a_remote_command_is_seen) {
    EXPECT_TRUE(
        execute_ssh_command(ssh_->address(), ssh_->opts(), "echo a; echo b; echo", result_));
    EXPECT_EQ("b", result_);
    EXPECT_FALSE(execute_ssh_command(ssh_->address(), ssh_->opts(), "echo a; exit 3", result_));
    EXPECT_EQ("a", result_);
    EXPECT_LOGGED(LM_WARNING, "exited with status 3");
}

TEST_F(Database_Clients, a_remote_command_reads_nothing_of_ours) {
    EXPECT_TRUE(execute_ssh_command(ssh_->address(), ssh_->opts(), "cat; echo end", result_));
    EXPECT_EQ("end", result_);
}

TEST_F(Database_Clients, a_remote_gs_check_is_found_by_what_is_sourced_before) {
    Temporary_Directory files;
    files.write("gs_check", "#!/bin/sh\necho 'gs_check (GaussDB Kernel 505.1.0 build 1)'\n");
    files.write("cm_ctl", "#!/bin/sh\necho \"nodeCount:${#2}\"\n");
    for (char const* const tool : {"gs_check", "cm_ctl"})
        std::filesystem::permissions(files.path(tool), std::filesystem::perms(0755));
    std::string const source = "PATH=" + files.path() + ":$PATH; ";
    GaussDB_Version version(GAUSSDB_UNKNOWN, 0, 0, 0);
    EXPECT_TRUE(non_intrusive_get_cluster_version(ssh_->address().c_str(), version, source.c_str(),
                                                  ssh_->opts().c_str()));
    EXPECT_EQ(GaussDB_Version(GAUSSDB_FOR_OPENGAUSS, 505, 1, 0), version);
    int count = 0;
    EXPECT_TRUE(non_intrusive_get_node_count(ssh_->address().c_str(), count, source.c_str(),
                                             ssh_->opts().c_str()));
    EXPECT_EQ(2, count);
}

TEST_F(Database_Clients, a_file_is_copied_to_the_node) {
    Temporary_Directory files;
    std::string const content("a\0b\n\xff", 5);
    std::string const source = files.write("source", content);
    EXPECT_TRUE(execute_scp_command(ssh_->address(), ssh_->opts(), source, files.path("copy")));
    EXPECT_EQ(content, files.read("copy"));
}

TEST_F(Database_Clients, a_copy_into_no_directory_or_of_no_file_fails) {
    Temporary_Directory files;
    std::string const source = files.write("source", "x");
    EXPECT_FALSE(
        execute_scp_command(ssh_->address(), ssh_->opts(), source, files.path("no/such/copy")));
    EXPECT_LOGGED(LM_WARNING, "No such file or directory");
    EXPECT_FALSE(
        execute_scp_command(ssh_->address(), ssh_->opts(), files.path("none"), files.path("b")));
    EXPECT_LOGGED(LM_WARNING, "No such file or directory");
}

TEST_F(Database_Clients, an_address_that_is_an_option_of_ssh_runs_nothing) {
    Temporary_Directory files;
    std::string const address = "-oProxyCommand=touch${IFS}" + files.path("injected");
    EXPECT_FALSE(execute_ssh_command(address, ssh_->opts(), "true", result_));
    EXPECT_LOGGED(LM_ERROR, "Invalid address '" + address + "', nothing is run\n");
    EXPECT_FALSE(execute_scp_command(address, ssh_->opts(), files.write("a", ""), "/b"));
    EXPECT_LOGGED(LM_ERROR, "Invalid address '" + address + "', nothing is run\n");
    EXPECT_FALSE(files.exists("injected"));
}

TEST_F(Database_Clients, a_host_with_another_key_is_not_trusted) {
    Ssh_Server const other;
    std::string const port = " -p " + std::to_string(other.port());
    EXPECT_FALSE(execute_ssh_command(other.address(), ssh_->opts() + port, "true", result_));
    EXPECT_LOGGED(LM_WARNING, "Host key verification failed");
}

TEST_F(Database_Clients, a_connection_that_breaks_is_a_failure) {
    // the session's own sshd goes while the command runs
    EXPECT_FALSE(execute_ssh_command(ssh_->address(), ssh_->opts(), "kill -9 $PPID", result_));
    EXPECT_EQ("", result_);
    EXPECT_LOGGED(LM_WARNING, "exited with status 255");
    EXPECT_TRUE(execute_ssh_command(ssh_->address(), ssh_->opts(), "echo again", result_));
    EXPECT_EQ("again", result_);
}

} // namespace
