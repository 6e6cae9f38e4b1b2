#include "host/process/password_file_entry.h"
#include "host/process/process_options.h"
#include "host/process/service_lister.h"
#include "host/process/subprocess.h"
#include "host/process/text_process_handler.h"
#include "qmrt/log.h"
#include "tests/support/child_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_tools.h"

#include <ace/Log_Record.h>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

namespace {

using testing::Contains;
using testing::ElementsAre;

/** Options as a tool of the database gets them. */
struct Tool_Options : ACE_Process_Options {
    explicit Tool_Options(Scripted_Tools const& tools)
        : ACE_Process_Options(true, 1024, 16384, 512, 128) {
        handle_inheritance(0);
        EXPECT_TRUE(set_process_env(*this, "LC_ALL", "C"));
        EXPECT_TRUE(set_process_env(*this, "PATH", (tools.path() + ":/usr/bin:/bin").c_str()));
    }
};

/** Asks an SQL client, which reads its password from stdin. */
class Query : public Text_Process_Handler {
public:
    Query() : Text_Process_Handler(TPHF_LOG_CMD) {}

    int execute(ACE_Process_Options& options, std::string password) {
        ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN | ACE_Process_Ex::REDIRECT_STDOUT |
                                   ACE_Process_Ex::REDIRECT_STDERR,
                               "gsql");
        if (spawn(&process, options) == -1)
            return -1;
        char line_break = '\n';
        iovec texts[] = {{password.data(), password.size()}, {&line_break, 1}};
        ssize_t const length = static_cast<ssize_t>(password.size() + 1);
        if (!password.empty() && write_stdin(texts, 2) != length) {
            int const error = errno;
            wait();
            errno = error;
            return -1;
        }
        return wait();
    }

    int handle_stdout_line(char const* line, size_t length) override {
        rows.emplace_back(line, length);
        return 0;
    }

    std::vector<std::string> rows;
};

TEST(process_runner, an_sql_client_of_another_user_gets_its_password_on_stdin_only) {
    Scripted_Tools tools;
    tools.script("gsql", "line\nerr connected\nout  postgres \nout  template1 ");
    Tool_Options options(tools);
    bool const is_root = geteuid() == 0;
    ASSERT_TRUE(!is_root || set_process_user(options, "nobody"));
    ASSERT_TRUE(set_process_env(options, "PGPORT", "25308"));
    ASSERT_TRUE(set_command_line(options, "gsql -t -c \"%s\"", "select datname from pg_database"));
    Query query;
    EXPECT_EQ(0, query.execute(options, "s3cret"));
    EXPECT_THAT(query.rows, ElementsAre(" postgres ", " template1 "));

    Tool_Call const call = tools.call("gsql");
    EXPECT_EQ("[gsql][-t][-c][select datname from pg_database]", call.text());
    EXPECT_EQ("s3cret\n", call.input);
    EXPECT_EQ("25308", call.env.at("PGPORT"));
    EXPECT_EQ("C", call.env.at("LC_ALL"));
    Password_File_Entry user;
    ASSERT_EQ(0, is_root ? user.get("nobody") : user.get_by_uid(geteuid()));
    EXPECT_EQ(user.uid(), call.uid);
    EXPECT_EQ(user.gid(), call.gid);
    if (is_root) {
        EXPECT_THAT(call.groups, testing::UnorderedElementsAreArray(user.groups()));
    }
    for (auto const& [name, value] : call.env)
        EXPECT_EQ(std::string::npos, value.find("s3cret")) << name;
    EXPECT_NOT_LOGGED("s3cret");
    EXPECT_LOGGED(LM_DEBUG, "gsql -t -c \"select datname from pg_database\"\n");
    EXPECT_LOGGED(LM_INFO, "connected\n");
    expect_no_children();
}

TEST(process_runner, an_sql_client_that_dies_before_it_took_its_password_is_a_failure) {
    Scripted_Tools tools;
    tools.script("gsql", "err no server\nsignal 6");
    Tool_Options options(tools);
    ASSERT_TRUE(set_command_line(options, "gsql"));
    Query query;
    // longer than a pipe, so that some of it must be left
    EXPECT_EQ(-1, query.execute(options, std::string(1000000, 'x')));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(Child_End::SIGNALLED, query.end().kind);
    EXPECT_EQ("no server", query.last_error_lines());
    EXPECT_LOGGED(LM_ERROR, "was ended by signal 6 (Aborted)");
    expect_no_children();
}

TEST(process_runner, a_remote_command_is_one_word_of_ssh) {
    Scripted_Tools tools;
    tools.prints("ssh", "Authorized users only\nomm\n");
    Tool_Options options(tools);
    ASSERT_TRUE(set_process_env(options, "LD_LIBRARY_PATH", ""));
    ASSERT_TRUE(
        set_command_line(options, "ssh %s %s '%sgsql -t -c \"%s\"'", "-o ConnectTimeout=4",
                         "10.0.0.1", "test -f ~/gauss_env_file && source ~/gauss_env_file; ",
                         "select node_host from pgxc_node where node_host!='\"'localhost'\"'"));
    std::string output;
    EXPECT_EQ(0, subprocess::spawn_output(options, output, true));
    EXPECT_EQ("Authorized users only\nomm\n", output);
    Tool_Call const call = tools.call("ssh");
    EXPECT_THAT(call.args,
                ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1",
                            "test -f ~/gauss_env_file && source ~/gauss_env_file; gsql -t -c "
                            "\"select node_host from pgxc_node where node_host!='localhost'\""));
    EXPECT_EQ("", call.env.at("LD_LIBRARY_PATH"));
}

TEST(process_runner, a_tool_runs_in_its_directory_and_writes_to_the_jobs_log) {
    struct Job_Log : ACE_Log_Msg_Callback {
        void log(ACE_Log_Record& record) override { lines.emplace_back(record.msg_data()); }
        std::vector<std::string> lines;
    };
    auto const job_log = std::make_shared<Job_Log>();
    Scripted_Tools tools;
    tools.script("python3", "out Backup key: 20240408_155812\nerr bad medium\nexit 1");
    Tool_Options options(tools);
    options.working_directory("/usr");
    ASSERT_TRUE(set_command_line(options, "python3 GaussRoach.py -t backup"));
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR,
                           "GaussRoach.py", job_log);
    Text_Process_Handler handler(Text_Process_Handler::TPHF_LOG_NONE, 60);
    EXPECT_EQ(1, handler.call(&process, options));
    EXPECT_EQ("/usr", tools.call("python3").directory);
    EXPECT_THAT(job_log->lines, Contains("Backup key: 20240408_155812\n"));
    EXPECT_THAT(job_log->lines, Contains("bad medium\n"));
    EXPECT_THAT(
        job_log->lines.back(),
        testing::HasSubstr("exited with status 1, the last lines of its stderr:\nbad medium"));
    EXPECT_EQ("bad medium", handler.last_error_lines());
    EXPECT_LOGGED(LM_WARNING, "GaussRoach.py (pid ");
}

TEST(process_runner, a_running_tool_is_found_by_its_command_line) {
    Scripted_Tools tools;
    tools.script("zengine", "out up\nwait");
    Tool_Options options(tools);
    ASSERT_TRUE(set_command_line(options, "%s nomount -D /data/", tools.path("zengine").c_str()));
    struct Starter : Text_Process_Handler {
        int handle_stdout_line(char const*, size_t) override {
            EXPECT_EQ(0, Service_Lister::list_service(mark.c_str(), found, false, "C"));
            tools->go("zengine");
            return 0;
        }
        std::string mark;
        Scripted_Tools* tools;
        std::vector<Service_Info> found;
    } handler;
    handler.mark = tools.path("zengine");
    handler.tools = &tools;
    EXPECT_EQ(0, handler.call(ACE_Process_Ex::REDIRECT_STDOUT, options));
    ASSERT_EQ(1u, handler.found.size());
    EXPECT_EQ(tools.path("zengine") + " nomount -D /data/", handler.found[0].cmd);
}

/** One of many runs that a busy agent has at once. */
void run_one(int number) {
    std::string const name = "run-" + std::to_string(number);
    switch (number % 4) {
    case 0: {
        Child_Options options("out " + name);
        std::string output;
        EXPECT_EQ(0, subprocess::spawn_output(options, output, true));
        EXPECT_EQ(name + "\n", output);
        break;
    }
    case 1: {
        ACE_Process_Options options;
        EXPECT_TRUE(set_command_line(options, "/no/such/program"));
        EXPECT_EQ(-1, subprocess::call(options));
        break;
    }
    case 2: {
        Child_Options options("flood out 2000 exit 3");
        Query query;
        EXPECT_EQ(3, query.execute(options, name));
        EXPECT_EQ(2000u, query.rows.size());
        break;
    }
    default: {
        Child_Options options("cat");
        Text_Process_Handler handler;
        EXPECT_NE(-1, handler.spawn(7, options));
        handler.terminate();
    }
    }
}

TEST(process_runner, many_runs_at_once_leave_nothing_behind) {
    int const before = dup(0);
    close(before);
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([i] {
            for (int run = 0; run < 24; ++run)
                run_one(i * 24 + run);
        });
    for (std::thread& thread : threads)
        thread.join();
    int const after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
    expect_no_children();
    Log_Capture& log = Log_Capture::instance();
    EXPECT_EQ(36u, log.claim_all(LM_ERROR, "Failed to start /no/such/program"));
    EXPECT_EQ(36u, log.claim_all(LM_WARNING, "exited with status 3\n"));
    // it may see the end of its input first
    EXPECT_LE(log.claim_all(LM_WARNING, "was ended by signal 15 (Terminated)\n"), 36u);
}

} // namespace
