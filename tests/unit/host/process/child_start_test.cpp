#include "host/process/child_start.h"

#include "tests/support/child_options.h"
#include "tests/support/own_thread.h"
#include "tests/support/test_child_path.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <unistd.h>

namespace {

/** A plan that runs the test child with the verbs given. */
class Plan : public Child_Plan {
public:
    explicit Plan(std::vector<std::string> verbs, std::string program = ZENBRAK3_TEST_CHILD)
        : program_(std::move(program)), verbs_(std::move(verbs)) {
        arguments_.push_back(program_.data());
        for (std::string& verb : verbs_)
            arguments_.push_back(verb.data());
        arguments_.push_back(nullptr);
        candidates_ = {program_.c_str(), nullptr};
        candidates = candidates_.data();
        argv = arguments_.data();
        envp = environment_;
    }

private:
    std::string program_;
    std::vector<std::string> verbs_;
    std::vector<char*> arguments_;
    std::vector<char const*> candidates_;
    char* environment_[1] = {nullptr};
};

int exit_status_of(pid_t pid) {
    int status = -1;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status)) << status;
    return WEXITSTATUS(status);
}

/** Runs the plan with its stdout read to the end. */
std::string output_of(Child_Plan& plan) {
    int ends[2];
    EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
    plan.streams[1] = ends[1];
    pid_t const pid = start_child(plan);
    close(ends[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = read(ends[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(count));
    close(ends[0]);
    EXPECT_NE(-1, pid) << plan.failed_step << " " << plan.error;
    if (pid != -1) {
        EXPECT_EQ(0, exit_status_of(pid));
    }
    return text;
}

void expect_failure(Child_Plan& plan, Child_Step step, int error) {
    EXPECT_EQ(-1, start_child(plan));
    EXPECT_EQ(step, plan.failed_step);
    EXPECT_EQ(error, plan.error);
    expect_no_children();
}

TEST(start_child, runs_the_program) {
    Plan plan({"exit", "7"});
    pid_t const pid = start_child(plan);
    ASSERT_NE(-1, pid);
    EXPECT_EQ(CHILD_STARTED, plan.failed_step);
    EXPECT_EQ(7, exit_status_of(pid));
    expect_no_children();
}

TEST(start_child, tells_each_step_that_failed_and_leaves_no_child) {
    Plan missing({}, "/no/such/program");
    expect_failure(missing, CHILD_EXEC, ENOENT);
    EXPECT_EQ(nullptr, missing.failed_path);
    Plan denied({}, "/etc/passwd");
    expect_failure(denied, CHILD_EXEC, EACCES);
    EXPECT_STREQ("/etc/passwd", denied.failed_path);
    Plan nowhere({});
    nowhere.directory = "/no/such/directory";
    expect_failure(nowhere, CHILD_DIRECTORY, ENOENT);
    Plan groupless({});
    groupless.process_group = 1;
    expect_failure(groupless, CHILD_GROUP, EPERM);
    Plan streamless({});
    streamless.streams[1] = 999999;
    expect_failure(streamless, CHILD_STREAMS, EBADF);
}

TEST(start_child, a_plan_can_be_tried_again) {
    Plan plan({"exit", "3"});
    plan.directory = "/no/such/directory";
    expect_failure(plan, CHILD_DIRECTORY, ENOENT);
    plan.directory = "/";
    pid_t const pid = start_child(plan);
    ASSERT_NE(-1, pid);
    EXPECT_EQ(CHILD_STARTED, plan.failed_step);
    EXPECT_EQ(3, exit_status_of(pid));
}

TEST(start_child, a_script_without_an_interpreter_line_is_not_given_to_a_shell) {
    Temporary_Directory directory;
    std::string const script = directory.write("script", "exit 0\n");
    ASSERT_EQ(0, chmod(script.c_str(), 0755));
    Plan plan({}, script);
    expect_failure(plan, CHILD_EXEC, ENOEXEC);
    EXPECT_EQ(script, plan.failed_path);
}

TEST(start_child, arguments_beyond_what_the_kernel_takes_are_a_failure) {
    Plan plan(std::vector<std::string>(2, std::string(3 * 1024 * 1024, 'x')));
    expect_failure(plan, CHILD_EXEC, E2BIG);
}

TEST(start_child, goes_on_along_the_candidates_as_a_search_of_PATH_does) {
    Temporary_Directory directory;
    std::string const unreadable = directory.write("tool", "");
    Plan plan({"exit", "5"});
    std::string const below_file = unreadable + "/tool";
    char const* candidates[] = {"/no/such/tool", unreadable.c_str(), below_file.c_str(),
                                ZENBRAK3_TEST_CHILD, nullptr};
    plan.candidates = candidates;
    pid_t const pid = start_child(plan);
    ASSERT_NE(-1, pid);
    EXPECT_EQ(5, exit_status_of(pid));
    // one that may not be run counts more than one that is not there
    candidates[3] = "/no/such/tool/either";
    expect_failure(plan, CHILD_EXEC, EACCES);
    EXPECT_EQ(unreadable, plan.failed_path);
}

TEST(start_child, the_child_has_default_signals_whatever_the_parent_has) {
    struct sigaction const ignore = [] {
        struct sigaction action = {};
        action.sa_handler = SIG_IGN;
        return action;
    }();
    struct sigaction old_pipe;
    struct sigaction old_user;
    sigaction(SIGPIPE, &ignore, &old_pipe);
    sigaction(SIGUSR1, &ignore, &old_user);
    sigset_t blocked;
    sigset_t old_mask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGRTMIN + 3);
    pthread_sigmask(SIG_BLOCK, &blocked, &old_mask);

    Plan plan({"sigmask", "sigignored"});
    std::string const output = output_of(plan);

    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, &old_mask, &mask);
    EXPECT_EQ(1, sigismember(&mask, SIGTERM));
    EXPECT_EQ(0, sigismember(&mask, SIGUSR2));
    struct sigaction after;
    sigaction(SIGPIPE, &old_pipe, &after);
    EXPECT_EQ(SIG_IGN, after.sa_handler);
    sigaction(SIGUSR1, &old_user, nullptr);
    EXPECT_EQ("blocked\nignored\n", output);
}

TEST(start_child, closes_what_the_child_is_not_to_see) {
    int const open_one = open("/dev/null", O_RDONLY);
    ASSERT_GT(open_one, 2);
    int const high = fcntl(open_one, F_DUPFD, 500);
    ASSERT_EQ(500, high);
    Plan plan({"fds"});
    plan.close_others = true;
    EXPECT_EQ("fds 0 1 2\n", output_of(plan));
    plan.close_others = false;
    EXPECT_NE(std::string::npos, output_of(plan).find(" 500"));
    close(high);
    close(open_one);
}

TEST(start_child, closes_them_without_close_range_too) {
    std::vector<int> many;
    for (int i = 0; i < 300; ++i)
        many.push_back(open("/dev/null", O_RDONLY));
    on_own_thread([] {
        ASSERT_TRUE(deny_system_call(SYS_close_range, ENOSYS));
        Plan plan({"fds"});
        plan.close_others = true;
        EXPECT_EQ("fds 0 1 2\n", output_of(plan));
    });
    for (int const fd : many)
        close(fd);
}

TEST(start_child, a_child_that_would_see_too_much_is_not_started) {
    on_own_thread([] {
        ASSERT_TRUE(deny_system_call(SYS_getdents64, EIO));
        ASSERT_TRUE(deny_system_call(SYS_close_range, ENOSYS));
        Plan plan({"fds"});
        plan.close_others = true;
        expect_failure(plan, CHILD_DESCRIPTORS, EIO);
    });
}

TEST(start_child, a_process_that_cannot_be_made_is_a_failure) {
    on_own_thread([] {
        ASSERT_TRUE(deny_system_call(SYS_clone, EAGAIN));
        Plan plan({});
        expect_failure(plan, CHILD_MAKE, EAGAIN);
    });
}

TEST(start_child, streams_may_be_exchanged) {
    Plan plan({"out", "to stdout", "err", "to stderr"});
    int out[2];
    int err[2];
    ASSERT_EQ(0, pipe2(out, O_CLOEXEC));
    ASSERT_EQ(0, pipe2(err, O_CLOEXEC));
    // this thread's 1 and 2 are the pipes, and the child gets them crossed
    int const old_out = dup(1);
    int const old_err = dup(2);
    dup2(out[1], 1);
    dup2(err[1], 2);
    plan.streams[1] = 2;
    plan.streams[2] = 1;
    pid_t const pid = start_child(plan);
    dup2(old_out, 1);
    dup2(old_err, 2);
    for (int const fd : {old_out, old_err, out[1], err[1]})
        close(fd);
    EXPECT_EQ(0, exit_status_of(pid));
    char buffer[64] = {};
    EXPECT_EQ(10, read(out[0], buffer, sizeof buffer));
    EXPECT_STREQ("to stderr\n", buffer);
    EXPECT_EQ(10, read(err[0], buffer, sizeof buffer));
    EXPECT_STREQ("to stdout\n", buffer);
    close(out[0]);
    close(err[0]);
}

TEST(start_child, a_stream_that_the_parent_has_closed_is_devnull) {
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    int const stdout_copy = fcntl(1, F_DUPFD_CLOEXEC, 10);
    int const stdin_copy = fcntl(0, F_DUPFD_CLOEXEC, 10);
    close(0);
    close(1);
    Plan plan({"out", "lost", "stdin-kind", "fds", "exit", "0"});
    plan.streams[2] = ends[1];
    plan.close_others = true;
    pid_t const pid = start_child(plan);
    if (stdin_copy != -1)
        dup2(stdin_copy, 0);
    dup2(stdout_copy, 1);
    close(stdin_copy);
    close(stdout_copy);
    close(ends[0]);
    close(ends[1]);
    ASSERT_NE(-1, pid) << plan.failed_step << " " << plan.error;
    EXPECT_EQ(0, exit_status_of(pid));
}

TEST(start_child, other_threads_go_on_while_one_waits_for_its_childs_start) {
    // a FIFO as the program's interpreter would be too exotic; many starts at once do as well
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([i] {
            for (int run = 0; run < 25; ++run) {
                Plan plan({"exit", std::to_string(i * 25 + run)});
                pid_t const pid = start_child(plan);
                ASSERT_NE(-1, pid);
                EXPECT_EQ(i * 25 + run, exit_status_of(pid));
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    expect_no_children();
}

TEST(start_child, a_signal_meanwhile_is_handled_by_the_parent_alone) {
    static std::atomic<int> handled;
    static pid_t const parent = getpid();
    handled = 0;
    struct sigaction action = {};
    action.sa_handler = [](int) {
        if (syscall(SYS_getpid) == parent)
            ++handled;
        else
            handled += 1000000;
    };
    action.sa_flags = SA_RESTART;
    struct sigaction old;
    sigaction(SIGUSR1, &action, &old);
    std::atomic<bool> stop = false;
    std::thread sender([&] {
        while (!stop) {
            kill(parent, SIGUSR1);
            std::this_thread::yield();
        }
    });
    for (int run = 0; run < 100; ++run) {
        Plan plan({"exit", "0"});
        pid_t const pid = start_child(plan);
        ASSERT_NE(-1, pid);
        EXPECT_EQ(0, exit_status_of(pid));
    }
    stop = true;
    sender.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_GT(handled, 0);
    EXPECT_LT(handled, 1000000);
}

} // namespace
