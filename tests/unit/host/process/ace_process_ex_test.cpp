#include "host/process/ace_process_ex.h"

#include "tests/support/child_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/test_child_path.h"

#include <ace/Log_Record.h>

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

using testing::HasSubstr;
using testing::Not;

std::string read_all(int fd) {
    std::string text;
    char buffer[65536];
    for (ssize_t count; (count = read(fd, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(count));
    return text;
}

/** Runs a child whose output fits a pipe; gives stdout. */
std::string output_of(ACE_Process_Options& options) {
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDOUT, "the child");
    EXPECT_NE(-1, process.spawn(options));
    if (!process.running())
        return "not started";
    std::string const text = read_all(process.stdout_handle());
    EXPECT_TRUE(process.wait());
    EXPECT_TRUE(process.end().success()) << process.end().describe();
    expect_no_children();
    return text;
}

std::string output_of(std::string const& verbs) {
    Child_Options options(verbs);
    return output_of(options);
}

/** Passes when the options start no child and the log says why. */
void expect_refused(ACE_Process_Options& options, int error, std::string const& reason) {
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDOUT, "the child");
    EXPECT_EQ(-1, process.spawn(options));
    EXPECT_EQ(error, errno);
    EXPECT_FALSE(process.running());
    EXPECT_EQ(-1, process.getpid());
    EXPECT_EQ(ACE_INVALID_HANDLE, process.stdout_handle());
    EXPECT_EQ(Child_End::NOT_STARTED, process.end().kind);
    EXPECT_THAT(process.end().reason, HasSubstr(reason));
    EXPECT_LOGGED(LM_ERROR, "Failed to start the child: " + process.end().reason + "\n");
    expect_no_children();
}

Child_End end_of(std::string const& verbs) {
    Child_Options options(verbs);
    ACE_Process_Ex process(0, "the child");
    EXPECT_NE(-1, process.spawn(options));
    EXPECT_TRUE(process.wait());
    EXPECT_FALSE(process.running());
    expect_no_children();
    return process.end();
}

// What ACE's own spawning gets wrong in silence.

TEST(ACE_Process_Ex, a_text_longer_than_the_command_line_buffer_is_not_run_cut_short) {
    ACE_Process_Options options(true, 64);
    std::string const line = "/bin/echo " + std::string(100, 'x') + " the-end";
    ASSERT_EQ(0, options.command_line("%s", line.c_str()));
    expect_refused(options, E2BIG, "fills its buffer of 64 bytes, so its end may be lost");
}

TEST(ACE_Process_Ex, more_than_127_arguments_all_arrive) {
    std::string verbs = "args";
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        verbs += " " + std::to_string(i);
        expected += "[" + std::to_string(i) + "]\n";
    }
    Child_Options options(verbs, 16384);
    EXPECT_EQ(expected, output_of(options));
}

TEST(ACE_Process_Ex, arguments_that_are_empty_or_hold_blanks_and_quotes_arrive_as_they_are) {
    EXPECT_EQ("[]\n[a b]\n[it's]\n[\"x\"]\n[a='b']\n[]\n[\\d]\n",
              output_of(R"(args '' "a b" "it's" '"x"' "a='"'b'"'" "" '\d')"));
}

TEST(ACE_Process_Ex, a_variable_arrives_as_its_name_and_its_value) {
    Child_Options options("env NAME");
    ASSERT_TRUE(set_process_env(options, "NAME", "100%s of \"it\""));
    EXPECT_EQ("NAME=100%s of \"it\"\n", output_of(options));
}

TEST(ACE_Process_Ex, an_unknown_user_whose_setting_nobody_looked_at_starts_nothing) {
    Child_Options options("ids");
    set_process_user(options, "no-such-user");
    EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no-such-user");
    expect_refused(options, EINVAL, "its user is not known");
}

TEST(ACE_Process_Ex, a_refused_change_of_user_starts_nothing) {
    if (geteuid() != 0)
        GTEST_SKIP() << "giving up root's rights on a thread needs root";
    on_own_thread([] {
        ASSERT_TRUE(become(65534, 65534));
        Child_Options options("ids");
        ASSERT_TRUE(set_process_user(options, "root"));
        expect_refused(
            options, EPERM,
            "cannot change to user root (uid 0, gid 0), errno=1, Operation not permitted");
    });
}

TEST(ACE_Process_Ex, a_refused_change_of_directory_starts_nothing) {
    Child_Options options("cwd");
    options.working_directory("/no/such/directory");
    expect_refused(options, ENOENT,
                   "cannot change to the directory /no/such/directory, errno=2, No such file");
}

TEST(ACE_Process_Ex, a_directory_that_the_user_may_not_enter_starts_nothing) {
    if (geteuid() != 0)
        GTEST_SKIP() << "running as another user needs root";
    Temporary_Directory directory;
    ACE_Process_Options options;
    ASSERT_TRUE(set_command_line(options, "pwd"));
    ASSERT_TRUE(set_process_user(options, "nobody"));
    options.working_directory(directory.path().c_str());
    expect_refused(options, EACCES, "cannot change to the directory " + directory.path());
}

TEST(ACE_Process_Ex, a_program_that_is_not_found_is_no_child_that_exits_with_2) {
    ACE_Process_Options options;
    options.setenv("PATH", "%s", "/usr/bin:/no/such/directory");
    ASSERT_TRUE(set_command_line(options, "no-such-program -x"));
    expect_refused(options, ENOENT,
                   "program no-such-program is not found on the PATH "
                   "\"/usr/bin:/no/such/directory\", errno=2, No such file or directory");
    ASSERT_TRUE(set_command_line(options, "/no/such/program"));
    expect_refused(options, ENOENT, "program /no/such/program is not found, errno=2");
}

TEST(ACE_Process_Ex, a_child_killed_by_a_signal_has_not_returned_0) {
    Child_End const end = end_of("signal 9");
    EXPECT_EQ(Child_End::SIGNALLED, end.kind);
    EXPECT_EQ(9, end.code);
    EXPECT_EQ(-1, end.status());
    EXPECT_EQ("was ended by signal 9 (Killed)", end.describe());
}

TEST(ACE_Process_Ex, handle_inheritance_0_closes_all_descriptors_whatever_the_limit) {
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    rlimit const highest = {limit.rlim_max, limit.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &highest));
    int const low = open("/dev/null", O_RDONLY);
    int const high = fcntl(low, F_DUPFD, limit.rlim_max - 1);
    EXPECT_NE(-1, high);
    EXPECT_EQ("fds 0 1 2\n", output_of("fds"));
    close(high);
    close(low);
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(ACE_Process_Ex, a_wait_with_a_limit_leaves_the_process_its_SIGCHLD_handler) {
    static std::atomic<int> handled;
    handled = 0;
    struct sigaction ours = {};
    ours.sa_handler = [](int) { ++handled; };
    struct sigaction old;
    sigaction(SIGCHLD, &ours, &old);

    Temporary_Directory directory;
    std::string const fifo = directory.path("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    Child_Options options("await " + fifo);
    ACE_Process_Ex process(0, "the child");
    ASSERT_NE(-1, process.spawn(options));
    ACE_Time_Value const soon(0, 1000);
    EXPECT_FALSE(process.wait(&soon));
    struct sigaction now;
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(ours.sa_handler, now.sa_handler);
    close(open(fifo.c_str(), O_WRONLY));
    EXPECT_TRUE(process.wait());
    EXPECT_EQ(1, handled);
    sigaction(SIGCHLD, &old, nullptr);
}

TEST(ACE_Process_Ex, a_variable_that_cannot_be_set_leaves_no_second_copy_of_this_process) {
    Child_Options options("env");
    char no_variable[] = "";
    char* entries[] = {no_variable, nullptr};
    ASSERT_EQ(0, options.setenv(entries));
    expect_refused(options, EINVAL, "is no setting of an environment variable");
}

// How a child ends.

TEST(ACE_Process_Ex, the_exit_status_is_recorded) {
    for (int const status : {0, 1, 2, 127, 255}) {
        Child_End const end = end_of("exit " + std::to_string(status));
        EXPECT_EQ(Child_End::EXITED, end.kind);
        EXPECT_EQ(status, end.status());
    }
}

TEST(ACE_Process_Ex, a_crash_is_recorded) {
    Child_End const end = end_of("signal 11");
    EXPECT_EQ(Child_End::SIGNALLED, end.kind);
    EXPECT_EQ(11, end.code);
}

TEST(ACE_Process_Ex, a_second_wait_has_nothing_to_wait_for) {
    Child_Options options("exit 3");
    ACE_Process_Ex process(0, "the child");
    ASSERT_NE(-1, process.spawn(options));
    EXPECT_TRUE(process.wait());
    EXPECT_TRUE(process.wait());
    ACE_Time_Value const time(1);
    EXPECT_TRUE(process.wait(&time));
    EXPECT_EQ(3, process.end().status());
    EXPECT_EQ(-1, process.kill(SIGTERM));
    EXPECT_EQ(ESRCH, errno);
}

TEST(ACE_Process_Ex, other_children_of_the_process_are_not_touched) {
    pid_t const other = fork();
    if (other == 0)
        _exit(42);
    // it has ended and waits to be collected
    siginfo_t info = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(other), &info, WEXITED | WNOWAIT));
    Child_Options options("exit 1");
    ACE_Process_Ex process(0, "the child");
    ASSERT_NE(-1, process.spawn(options));
    ACE_Time_Value const time(60);
    EXPECT_TRUE(process.wait(&time));
    EXPECT_EQ(1, process.end().status());
    int status = 0;
    EXPECT_EQ(other, waitpid(other, &status, WNOHANG));
    EXPECT_EQ(42, WEXITSTATUS(status));
}

TEST(ACE_Process_Ex, an_end_that_the_process_threw_away_is_no_success) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction old;
    sigaction(SIGCHLD, &ignore, &old);
    Child_Options options("exit 0");
    ACE_Process_Ex process(0, "the child");
    EXPECT_NE(-1, process.spawn(options));
    EXPECT_TRUE(process.wait());
    sigaction(SIGCHLD, &old, nullptr);
    EXPECT_EQ(Child_End::LOST, process.end().kind);
    EXPECT_EQ(-1, process.end().status());
}

TEST(ACE_Process_Ex, a_wait_with_a_limit_sees_the_end_and_does_nothing_to_the_child) {
    Temporary_Directory directory;
    std::string const fifo = directory.path("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    Child_Options options("await " + fifo + " exit 4");
    ACE_Process_Ex process(0, "the child");
    ASSERT_NE(-1, process.spawn(options));
    EXPECT_FALSE(process.wait(&ACE_Time_Value::zero));
    EXPECT_TRUE(process.running());
    EXPECT_EQ(Child_End::RUNNING, process.end().kind);
    close(open(fifo.c_str(), O_WRONLY));
    ACE_Time_Value const long_enough(60);
    EXPECT_TRUE(process.wait(&long_enough));
    EXPECT_EQ(4, process.end().status());
}

TEST(ACE_Process_Ex, waits_without_pidfd_too) {
    on_own_thread([] {
        ASSERT_TRUE(deny_system_call(SYS_pidfd_open, ENOSYS));
        Child_Options options("exit 4");
        ACE_Process_Ex process(0, "the child");
        ASSERT_NE(-1, process.spawn(options));
        EXPECT_EQ(-1, process.end_handle());
        ACE_Time_Value const long_enough(60);
        EXPECT_TRUE(process.wait(&long_enough));
        EXPECT_EQ(4, process.end().status());

        Child_Options endless("cat");
        ACE_Process_Ex reader(ACE_Process_Ex::REDIRECT_STDIN, "the reader");
        ASSERT_NE(-1, reader.spawn(endless));
        ACE_Time_Value const short_time(0, 15000);
        EXPECT_FALSE(reader.wait(&short_time));
        EXPECT_EQ(0, reader.kill(SIGTERM));
        EXPECT_TRUE(reader.wait());
        EXPECT_EQ(SIGTERM, reader.end().code);
    });
}

TEST(ACE_Process_Ex, tells_the_end_by_a_descriptor) {
    Child_Options options("exit 0");
    ACE_Process_Ex process(0, "the child");
    ASSERT_NE(-1, process.spawn(options));
    ASSERT_NE(-1, process.end_handle());
    pollfd entry = {process.end_handle(), POLLIN, 0};
    EXPECT_EQ(1, poll(&entry, 1, 60000));
    EXPECT_TRUE(process.running());
    EXPECT_TRUE(process.wait(&ACE_Time_Value::zero));
    EXPECT_EQ(-1, process.end_handle());
}

TEST(ACE_Process_Ex, a_child_that_runs_when_its_object_goes_is_ended) {
    {
        Child_Options options("cat");
        ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN, "the child");
        ASSERT_NE(-1, process.spawn(options));
    }
    EXPECT_LOGGED(LM_WARNING, "the child (pid ");
    expect_no_children();
}

TEST(ACE_Process_Ex, a_child_that_does_not_mind_SIGTERM_is_killed) {
    Child_Options options("ignore 15 out ready cat");
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN | ACE_Process_Ex::REDIRECT_STDOUT, "");
    ASSERT_NE(-1, process.spawn(options));
    char byte;
    ASSERT_EQ(1, read(process.stdout_handle(), &byte, 1));
    // a cat that went on reading would end by itself, so hold its stdin
    int const held = fcntl(process.stdin_handle(), F_DUPFD_CLOEXEC, 3);
    process.end_now(ACE_Time_Value(0, 1000));
    close(held);
    EXPECT_EQ(SIGKILL, process.end().code);
    expect_no_children();
}

TEST(ACE_Process_Ex, one_object_runs_one_child_at_a_time) {
    Child_Options options("cat");
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN, "the child");
    pid_t const pid = process.spawn(options);
    ASSERT_NE(-1, pid);
    EXPECT_EQ(-1, process.spawn(options));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_LOGGED(LM_ERROR, "the child (pid " + std::to_string(pid) + ") is running still");
    EXPECT_EQ(pid, process.getpid());
    process.close_stdin();
    EXPECT_TRUE(process.wait());
    EXPECT_TRUE(process.end().success());
    // and then another
    Child_Options other("exit 9");
    ASSERT_NE(-1, process.spawn(other));
    EXPECT_TRUE(process.wait());
    EXPECT_EQ(9, process.end().status());
}

TEST(ACE_Process_Ex, a_failed_start_forgets_the_child_before) {
    Child_Options options("exit 3");
    ACE_Process_Ex process(0, "the child");
    ASSERT_NE(-1, process.spawn(options));
    EXPECT_TRUE(process.wait());
    options.working_directory("/no/such/directory");
    EXPECT_EQ(-1, process.spawn(options));
    EXPECT_LOGGED(LM_ERROR, "/no/such/directory");
    EXPECT_EQ(Child_End::NOT_STARTED, process.end().kind);
    EXPECT_EQ(-1, process.getpid());
}

// What the child gets.

TEST(ACE_Process_Ex, the_program_is_found_on_the_path_that_the_child_will_have) {
    Temporary_Directory directory;
    std::string const tool = directory.write("zenbrak3-tool", "#!/bin/sh\necho found\n");
    ASSERT_EQ(0, chmod(tool.c_str(), 0755));
    ACE_Process_Options options;
    ASSERT_TRUE(set_command_line(options, "zenbrak3-tool"));
    {
        // on the parent's alone it is not found
        Scoped_Env const path("PATH", directory.path().c_str());
        options.setenv("PATH", "%s", "/usr/bin");
        expect_refused(options, ENOENT, "zenbrak3-tool is not found on the PATH \"/usr/bin\"");
    }
    options.setenv("PATH", "%s", ("/usr/bin:" + directory.path()).c_str());
    EXPECT_EQ("found\n", output_of(options));
}

TEST(ACE_Process_Ex, a_relative_program_is_found_in_the_childs_directory) {
    Temporary_Directory directory;
    std::string const tool = directory.write("script/tool", "#!/bin/sh\necho here\n");
    ASSERT_EQ(0, chmod(tool.c_str(), 0755));
    ACE_Process_Options options;
    options.working_directory(directory.path().c_str());
    ASSERT_TRUE(set_command_line(options, "script/tool"));
    EXPECT_EQ("here\n", output_of(options));
}

TEST(ACE_Process_Ex, a_file_that_may_not_be_run_says_so) {
    Temporary_Directory directory;
    std::string const file = directory.write("tool", "#!/bin/sh\n");
    ACE_Process_Options options;
    options.setenv("PATH", "%s", ("/no/such:" + directory.path() + ":/usr/bin").c_str());
    ASSERT_TRUE(set_command_line(options, "tool"));
    expect_refused(options, EACCES, "cannot run " + file + ", errno=13, Permission denied");
}

TEST(ACE_Process_Ex, a_script_whose_interpreter_is_missing_says_so) {
    Temporary_Directory directory;
    std::string const script = directory.write("tool", "#!/no/such/python\n");
    ASSERT_EQ(0, chmod(script.c_str(), 0755));
    ACE_Process_Options options;
    ASSERT_TRUE(set_command_line(options, "%s", script.c_str()));
    expect_refused(options, ENOENT,
                   "cannot run " + script + ", what it needs to be run is missing, errno=2");
}

TEST(ACE_Process_Ex, no_shell_looks_at_the_line) {
    Temporary_Directory directory;
    EXPECT_EQ("[$HOME]\n[;]\n[touch]\n[`id`]\n[>]\n[x]\n",
              output_of("args $HOME ; touch `id` > x"));
}

TEST(ACE_Process_Ex, the_working_directory_is_the_childs) {
    Child_Options options("cwd");
    options.working_directory("/usr");
    EXPECT_EQ("/usr\n", output_of(options));
}

TEST(ACE_Process_Ex, the_environment_is_the_childs) {
    Scoped_Env const inherited("ZENBRAK3_INHERITED", "yes");
    Child_Options options("env ZENBRAK3_INHERITED env LC_ALL env LD_LIBRARY_PATH");
    options.setenv("LC_ALL", "%s", "C");
    options.setenv("LD_LIBRARY_PATH=");
    EXPECT_EQ("ZENBRAK3_INHERITED=yes\nLC_ALL=C\nLD_LIBRARY_PATH=\n", output_of(options));
    EXPECT_EQ(nullptr, std::getenv("LD_LIBRARY_PATH"));
}

TEST(ACE_Process_Ex, without_inheritance_the_environment_is_the_options_alone) {
    Child_Options options("env");
    options.inherit_environment(false);
    options.setenv("ONLY=this");
    EXPECT_EQ("ONLY=this\n", output_of(options));
}

TEST(ACE_Process_Ex, stdin_is_devnull_when_it_is_not_redirected) {
    EXPECT_EQ("/dev/null\n", output_of("cat stdin-kind"));
}

TEST(ACE_Process_Ex, the_child_does_not_inherit_ignored_signals) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction old;
    sigaction(SIGPIPE, &ignore, &old);
    EXPECT_EQ("ignored\nblocked\n", output_of("sigignored sigmask"));
    sigaction(SIGPIPE, &old, nullptr);
}

TEST(ACE_Process_Ex, with_handle_inheritance_the_child_sees_what_is_not_close_on_exec) {
    int const open_one = open("/dev/null", O_RDONLY);
    int const seen = fcntl(open_one, F_DUPFD, 700);
    int const unseen = fcntl(open_one, F_DUPFD_CLOEXEC, 800);
    Child_Options options("fds");
    options.handle_inheritance(1);
    std::string const fds = output_of(options);
    EXPECT_THAT(fds, HasSubstr(" 700"));
    EXPECT_THAT(fds, Not(HasSubstr(" 800")));
    for (int const fd : {open_one, seen, unseen})
        close(fd);
}

TEST(ACE_Process_Ex, the_handles_of_set_handles_are_the_childs_streams) {
    Temporary_Directory directory;
    std::string const in = directory.write("in", "from a file");
    int const input = open(in.c_str(), O_RDONLY | O_CLOEXEC);
    int const output = open(directory.path("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    Child_Options options("cat err oops fds");
    ASSERT_EQ(0, options.set_handles(input, output, output));
    ACE_Process_Ex process(0, "the child");
    ASSERT_NE(-1, process.spawn(options));
    EXPECT_TRUE(process.wait());
    options.release_handles();
    close(input);
    close(output);
    EXPECT_EQ("from a fileoops\nfds 0 1 2\n", directory.read("out"));
}

TEST(ACE_Process_Ex, a_pipe_comes_before_a_handle_of_set_handles) {
    int const devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
    Child_Options options("out here");
    ASSERT_EQ(0, options.set_handles(devnull, devnull, devnull));
    EXPECT_EQ("here\n", output_of(options));
    options.release_handles();
    close(devnull);
}

TEST(ACE_Process_Ex, a_process_group_of_its_own_is_signalled_whole) {
    Temporary_Directory directory;
    std::string const fifo = directory.path("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    Child_Options options("leave " + fifo + " left pgrp cat");
    options.setgroup(0);
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN | ACE_Process_Ex::REDIRECT_STDOUT, "");
    ASSERT_NE(-1, process.spawn(options));
    char buffer[10] = {};
    ASSERT_EQ(10, read(process.stdout_handle(), buffer, 10));
    EXPECT_EQ("own group\n", std::string(buffer, 10));
    EXPECT_EQ(0, process.kill(SIGTERM));
    EXPECT_TRUE(process.wait());
    // the pipe ends, so the process left behind has gone with the child
    EXPECT_EQ("", read_all(process.stdout_handle()));
}

TEST(ACE_Process_Ex, by_default_the_child_is_in_the_group_of_this_process) {
    EXPECT_EQ("group of another\n", output_of("pgrp"));
}

// Users.

TEST(ACE_Process_Ex, the_child_is_the_user_with_its_supplementary_groups) {
    if (geteuid() != 0)
        GTEST_SKIP() << "running as another user needs root";
    Temporary_Directory directory;
    on_own_thread([&] {
        ASSERT_TRUE(cover_file("/etc/passwd",
                               directory.write("passwd", "omm:x:5001:5002::/home/omm:/bin/sh\n")));
        ASSERT_TRUE(cover_file(
            "/etc/group",
            directory.write("group", "dbgrp:x:5002:\nwheel:x:5003:omm\nother:x:5004:root\n")));
        Child_Options options("ids");
        ASSERT_TRUE(set_process_user(options, "omm"));
        EXPECT_EQ("uid 5001 5001 5001 gid 5002 5002 5002 groups 5002 5003\n", output_of(options));
    });
    // and this process is who it was
    EXPECT_EQ(0u, getuid());
    EXPECT_EQ(0u, geteuid());
}

TEST(ACE_Process_Ex, the_users_rights_count_for_the_program_too) {
    if (geteuid() != 0)
        GTEST_SKIP() << "running as another user needs root";
    Temporary_Directory directory; // for its owner only
    std::string const tool = directory.write("tool", "#!/bin/sh\n");
    ASSERT_EQ(0, chmod(tool.c_str(), 0755));
    ACE_Process_Options options;
    ASSERT_TRUE(set_command_line(options, "%s", tool.c_str()));
    ASSERT_TRUE(set_process_user(options, "nobody"));
    expect_refused(options, EACCES, "cannot run " + tool + ", errno=13");
}

TEST(ACE_Process_Ex, an_agent_that_is_the_user_already_needs_no_right_to_change) {
    if (geteuid() != 0)
        GTEST_SKIP() << "giving up root's rights on a thread needs root";
    on_own_thread([] {
        // the groups that it was given differ from the user database's, and stay
        gid_t const groups[] = {65534, 4711};
        ASSERT_EQ(0, syscall(SYS_setgroups, 2, groups));
        ASSERT_EQ(0, syscall(SYS_setresgid, 65534, 65534, 65534));
        ASSERT_EQ(0, syscall(SYS_setresuid, 65534, 65534, 65534));
        Child_Options options("ids");
        ASSERT_TRUE(set_process_user(options, "nobody"));
        EXPECT_EQ("uid 65534 65534 65534 gid 65534 65534 65534 groups 4711 65534\n",
                  output_of(options));
    });
}

TEST(ACE_Process_Ex, a_group_that_may_not_be_taken_on_is_a_failure_for_the_own_user_too) {
    if (geteuid() != 0)
        GTEST_SKIP() << "giving up root's rights on a thread needs root";
    on_own_thread([] {
        ASSERT_TRUE(become(65534, 65534));
        Child_Options options("ids");
        ASSERT_TRUE(set_process_user(options, "nobody"));
        options.setrgid(0);
        options.setegid(0);
        expect_refused(options, EPERM, "cannot change to user nobody (uid 65534, gid 0)");
    });
}

TEST(ACE_Process_Ex, a_change_that_the_kernel_refuses_for_the_groups_alone_is_a_failure) {
    if (geteuid() != 0)
        GTEST_SKIP() << "running as another user needs root";
    on_own_thread([] {
        ASSERT_TRUE(deny_system_call(SYS_setgroups, EPERM));
        Child_Options options("ids");
        ASSERT_TRUE(set_process_user(options, "nobody"));
        expect_refused(options, EPERM, "cannot change to user nobody");
    });
}

// Pipes.

TEST(ACE_Process_Ex, each_stream_has_its_pipe) {
    Child_Options options("cat err problem");
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN | ACE_Process_Ex::REDIRECT_STDOUT |
                               ACE_Process_Ex::REDIRECT_STDERR,
                           "the child");
    ASSERT_NE(-1, process.spawn(options));
    iovec texts[] = {{const_cast<char*>("secret"), 6}, {const_cast<char*>("\n"), 1}};
    EXPECT_EQ(7, process.write_stdin(texts, 2));
    process.close_stdin();
    EXPECT_EQ("secret\n", read_all(process.stdout_handle()));
    EXPECT_EQ("problem\n", read_all(process.stderr_handle()));
    EXPECT_TRUE(process.wait());
}

TEST(ACE_Process_Ex, both_streams_into_one_pipe_keep_their_order) {
    Child_Options options("out 1 err 2 out 3 err 4");
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDOUT_STDERR, "the child");
    ASSERT_NE(-1, process.spawn(options));
    EXPECT_EQ(ACE_INVALID_HANDLE, process.stderr_handle());
    EXPECT_EQ("1\n2\n3\n4\n", read_all(process.stdout_handle()));
    EXPECT_TRUE(process.wait());
}

TEST(ACE_Process_Ex, streams_that_are_not_redirected_have_no_handle) {
    Child_Options options("exit 0");
    ACE_Process_Ex process(0, "the child");
    ASSERT_NE(-1, process.spawn(options));
    EXPECT_EQ(ACE_INVALID_HANDLE, process.stdin_handle());
    EXPECT_EQ(ACE_INVALID_HANDLE, process.stdout_handle());
    EXPECT_EQ(ACE_INVALID_HANDLE, process.stderr_handle());
    iovec text = {const_cast<char*>("x"), 1};
    EXPECT_EQ(-1, process.write_stdin(&text, 1));
    EXPECT_EQ(EBADF, errno);
    EXPECT_TRUE(process.wait());
}

TEST(ACE_Process_Ex, writing_to_a_dead_child_is_EPIPE_and_no_signal) {
    Child_Options options("exit 0");
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN, "the child");
    ASSERT_NE(-1, process.spawn(options));
    EXPECT_TRUE(process.wait());
    // with the default action this process would end here
    struct sigaction deadly = {};
    deadly.sa_handler = SIG_DFL;
    struct sigaction old;
    sigaction(SIGPIPE, &deadly, &old);
    iovec text = {const_cast<char*>("secret\n"), 7};
    EXPECT_EQ(-1, process.write_stdin(&text, 1));
    EXPECT_EQ(EPIPE, errno);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(0, sigismember(&pending, SIGPIPE));
    sigaction(SIGPIPE, &old, nullptr);
}

TEST(ACE_Process_Ex, a_SIGPIPE_that_was_pending_before_stays_pending) {
    on_own_thread([] {
        sigset_t sigpipe;
        sigemptyset(&sigpipe);
        sigaddset(&sigpipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
        pthread_kill(pthread_self(), SIGPIPE);
        Child_Options options("exit 0");
        ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN, "the child");
        ASSERT_NE(-1, process.spawn(options));
        EXPECT_TRUE(process.wait());
        iovec text = {const_cast<char*>("x"), 1};
        EXPECT_EQ(-1, process.write_stdin(&text, 1));
        timespec const now = {};
        EXPECT_EQ(SIGPIPE, sigtimedwait(&sigpipe, nullptr, &now));
    });
}

TEST(ACE_Process_Ex, a_full_pipe_is_EAGAIN) {
    Temporary_Directory directory;
    std::string const fifo = directory.path("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    Child_Options waiting("await " + fifo);
    ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDIN, "the child");
    ASSERT_NE(-1, process.spawn(waiting));
    std::string big(1024 * 1024, 'x');
    iovec text = {big.data(), big.size()};
    EXPECT_GT(process.write_stdin(&text, 1), 0);
    EXPECT_EQ(-1, process.write_stdin(&text, 1));
    EXPECT_EQ(EAGAIN, errno);
    close(open(fifo.c_str(), O_WRONLY));
    EXPECT_TRUE(process.wait());
}

TEST(ACE_Process_Ex, pipes_that_cannot_be_made_are_a_failure) {
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    int const next = dup(0);
    close(next);
    rlimit const tight = {static_cast<rlim_t>(next) + 1, limit.rlim_max};
    Child_Options options("exit 0");
    setrlimit(RLIMIT_NOFILE, &tight);
    expect_refused(options, EMFILE, "its pipes cannot be made, Too many open files");
    setrlimit(RLIMIT_NOFILE, &limit);
    int const after = dup(0);
    EXPECT_EQ(next, after);
    close(after);
}

TEST(ACE_Process_Ex, a_run_leaves_no_descriptor_open) {
    int const before = dup(0);
    close(before);
    for (int run = 0; run < 3; ++run) {
        Child_Options options("exit 0");
        ACE_Process_Ex process(7, "the child");
        ASSERT_NE(-1, process.spawn(options));
        EXPECT_TRUE(process.wait());
        options.working_directory("/no/such");
        EXPECT_EQ(-1, process.spawn(options));
        EXPECT_LOGGED(LM_ERROR, "/no/such");
    }
    int const after = dup(0);
    close(after);
    EXPECT_EQ(before, after);
}

TEST(ACE_Process_Ex, works_in_a_process_that_has_closed_its_standard_streams) {
    int copies[3];
    for (int fd = 0; fd < 3; ++fd) {
        copies[fd] = fcntl(fd, F_DUPFD_CLOEXEC, 10);
        close(fd);
    }
    std::string text;
    std::string errors;
    bool ended;
    {
        Child_Options options("cat fds err problem");
        ACE_Process_Ex process(7, "the child");
        process.spawn(options);
        iovec input = {const_cast<char*>("in "), 3};
        process.write_stdin(&input, 1);
        process.close_stdin();
        text = read_all(process.stdout_handle());
        errors = read_all(process.stderr_handle());
        ended = process.wait() && process.end().success();
    }
    for (int fd = 0; fd < 3; ++fd)
        if (copies[fd] != -1) {
            dup2(copies[fd], fd);
            close(copies[fd]);
        }
    EXPECT_TRUE(ended);
    EXPECT_EQ("in fds 0 1 2\n", text);
    EXPECT_EQ("problem\n", errors);
}

// Names and logs.

TEST(ACE_Process_Ex, without_a_label_the_program_names_the_child) {
    Child_Options options("exit 0");
    for (char const* const label : {static_cast<char const*>(nullptr), ""}) {
        ACE_Process_Ex process(0, label);
        ASSERT_NE(-1, process.spawn(options));
        EXPECT_STREQ(ZENBRAK3_TEST_CHILD, process.label());
        EXPECT_TRUE(process.wait());
    }
    ACE_Process_Ex named(0, "GaussRoach.py");
    EXPECT_STREQ("GaussRoach.py", named.label());
    ACE_Process_Options nothing;
    ACE_Process_Ex nameless(0, nullptr);
    EXPECT_EQ(-1, nameless.spawn(nothing));
    EXPECT_LOGGED(LM_ERROR, "Failed to start a program: the command line is empty");
}

TEST(ACE_Process_Ex, a_failed_start_is_told_to_the_callback) {
    struct Callback : ACE_Log_Msg_Callback {
        void log(ACE_Log_Record& record) override { text += record.msg_data(); }
        std::string text;
    };
    auto const callback = std::make_shared<Callback>();
    ACE_Process_Options options;
    ACE_Process_Ex process(0, "tool", callback);
    EXPECT_EQ(-1, process.spawn(options));
    EXPECT_LOGGED(LM_ERROR, "the command line is empty");
    EXPECT_EQ("Failed to start tool: the command line is empty\n", callback->text);
    EXPECT_EQ(nullptr, ACE_LOG_MSG->msg_callback());
}

TEST(ACE_Process_Ex, a_huge_path_does_not_make_the_reason_endless) {
    ACE_Process_Options options(true, 1024, 65536);
    ASSERT_TRUE(set_command_line(options, "no-such-program"));
    // one part of it is longer than any path may be
    std::string const path = "/" + std::string(40000, 'x');
    ASSERT_TRUE(set_process_env(options, "PATH", (path + ":/usr").c_str()));
    ACE_Process_Ex process(0, "tool");
    EXPECT_EQ(-1, process.spawn(options));
    EXPECT_LOGGED(LM_ERROR, "program no-such-program is not found on the PATH \"/xxx");
    EXPECT_LT(process.end().reason.size(), 1300u);
    EXPECT_THAT(process.end().reason, HasSubstr("...\", errno=2"));
    ASSERT_TRUE(set_process_env(options, "PATH", (path.substr(0, 5000) + ":/usr/bin").c_str()));
    ASSERT_TRUE(set_command_line(options, "true"));
    EXPECT_EQ("", output_of(options));
}

// Threads.

TEST(ACE_Process_Ex, many_threads_start_children_that_see_nothing_of_each_other) {
    // with inheritance, so that whatever is not close-on-exec would be seen
    Child_Options usual("fds");
    usual.handle_inheritance(1);
    std::string const usual_fds = output_of(usual);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([i, &usual_fds] {
            for (int run = 0; run < 20; ++run) {
                std::string const name = std::to_string(i) + "-" + std::to_string(run);
                Child_Options options("fds env WHO cat");
                options.handle_inheritance(1);
                ASSERT_TRUE(set_process_env(options, "WHO", name.c_str()));
                ACE_Process_Ex process(7, "the child");
                ASSERT_NE(-1, process.spawn(options));
                iovec text = {const_cast<char*>(name.data()), name.size()};
                EXPECT_EQ(static_cast<ssize_t>(name.size()), process.write_stdin(&text, 1));
                process.close_stdin();
                EXPECT_EQ(usual_fds + "WHO=" + name + "\n" + name,
                          read_all(process.stdout_handle()));
                EXPECT_TRUE(process.wait());
                EXPECT_TRUE(process.end().success());
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    expect_no_children();
}

} // namespace
