#include "host/process/tool_limits.h"

#include "host/process/cancellation.h"
#include "host/process/child_registry.h"
#include "host/process/subprocess.h"
#include "host/process/text_process_handler.h"
#include "tests/support/child_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/temporary_directory.h"

#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

constexpr unsigned BOTH = ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR;

class Tool_Limits_Test : public testing::Test {
protected:
    Tool_Limits_Test() { limit(1, 1000000); }
    ~Tool_Limits_Test() override { Tool_Limits::set(Tool_Limits()); }

    static void limit(int64_t seconds, uint64_t bytes) {
        Tool_Limits limits;
        limits.seconds = seconds;
        limits.output_bytes = bytes;
        Tool_Limits::set(limits);
    }

    /** The process that has told its id in @a file. */
    pid_t told_pid(std::string const& file) {
        for (int i = 0; i < 3000; ++i) {
            std::string text;
            if (read_line(directory_.path(file), text, true))
                return std::stoi(text);
            std::this_thread::sleep_for(10ms);
        }
        ADD_FAILURE() << "no process has told its id in " << file;
        return -1;
    }

    /** A zombie that nobody waits for has ended. */
    static bool has_ended(pid_t pid) {
        std::string stat;
        return !read_line("/proc/" + std::to_string(pid) + "/stat", stat, true) ||
               stat.find(") Z ") != std::string::npos;
    }
    /** True when the process ends in time. */
    static bool ends(pid_t pid) {
        for (int i = 0; i < 1000 && !has_ended(pid); ++i)
            std::this_thread::sleep_for(10ms);
        return has_ended(pid);
    }

    std::string in(std::string const& file) const { return directory_.path(file); }

    /** Runs the child as a question that has to be given up. */
    static void expect_stopped(Text_Process_Handler& handler, std::string const& verbs,
                               std::string const& reason, ACE_Log_Priority priority = LM_ERROR) {
        Child_Options options(verbs);
        auto const begin = std::chrono::steady_clock::now();
        EXPECT_EQ(-1, handler.call(BOTH, options));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
        EXPECT_EQ(Child_End::STOPPED, handler.end().kind);
        EXPECT_THAT(handler.end().reason, HasSubstr(reason));
        EXPECT_LOGGED(priority, ") was ended, " + reason);
        expect_no_children();
    }

    Temporary_Directory directory_;
};

/** Takes what comes and keeps nothing. */
struct Sink : Text_Process_Handler {
    int handle_stdout_line(char const*, size_t length) override {
        longest = std::max(longest, length);
        return 0;
    }
    int handle_stderr_line(char const*, size_t) override { return 0; }
    size_t longest = 0;
};

// Time.

TEST_F(Tool_Limits_Test, a_tool_that_never_answers_is_ended_and_the_log_names_the_limit) {
    Sink handler;
    expect_stopped(handler, "stay", "it has not answered within 1 seconds (limits.tool_timeout)");
}

TEST_F(Tool_Limits_Test, one_that_minds_no_signal_is_killed_with_all_that_it_has_started) {
    Sink handler;
    std::thread runner([&] {
        expect_stopped(handler,
                       "ignore 15 session " + in("session") + " daemon " + in("daemon") +
                           " daemon " + in("other") + " flood out 100 stay",
                       "it has not answered within 1 seconds");
    });
    pid_t const session = told_pid("session");
    pid_t const daemon = told_pid("daemon");
    runner.join();
    EXPECT_TRUE(ends(session)) << "a child in a session of its own lives";
    EXPECT_TRUE(ends(daemon)) << "an orphan that holds the pipes lives";
    EXPECT_TRUE(ends(told_pid("other")));
}

TEST_F(Tool_Limits_Test, one_that_ends_well_when_it_is_told_to_has_failed_all_the_same) {
    Sink handler;
    expect_stopped(handler, "on-term 0 stay", "it has not answered within 1 seconds");
}

TEST_F(Tool_Limits_Test, one_that_has_closed_its_streams_is_held_to_its_time) {
    Sink handler;
    expect_stopped(handler, "close out close err stay", "it has not answered within 1 seconds");
}

TEST_F(Tool_Limits_Test, without_pidfd_the_limit_is_the_same) {
    on_own_thread([&] {
        ASSERT_TRUE(deny_system_call(SYS_pidfd_open, ENOSYS));
        Sink handler;
        expect_stopped(handler, "close out close err stay", "it has not answered within 1 seconds");
    });
}

TEST_F(Tool_Limits_Test, one_that_cannot_be_killed_is_let_go) {
    pid_t left = -1;
    on_own_thread([&] {
        ASSERT_TRUE(deny_system_call(SYS_pidfd_send_signal, EPERM));
        ASSERT_TRUE(deny_system_call(SYS_kill, EPERM));
        Sink handler;
        Child_Options options("stay");
        left = handler.spawn(BOTH, options);
        EXPECT_EQ(-1, handler.wait());
        EXPECT_EQ(Child_End::STOPPED, handler.end().kind);
    });
    EXPECT_LOGGED(LM_ERROR, "does not end, not even by SIGKILL, and is left alone");
    EXPECT_LOGGED(LM_ERROR, ") was ended, it has not answered within 1 seconds");
    ASSERT_EQ(0, ::kill(left, SIGKILL));
    siginfo_t info;
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(left), &info, WEXITED | WNOWAIT));
    Child_Options next("out next");
    Sink handler;
    EXPECT_EQ(0, handler.call(BOTH, next));
    expect_no_children(); // the next start has waited for it
}

TEST_F(Tool_Limits_Test, an_answer_counts_although_an_orphan_holds_the_pipes_and_that_is_killed) {
    Sink handler;
    Child_Options options("daemon " + in("daemon") + " out answer");
    EXPECT_EQ(0, handler.call(BOTH, options));
    EXPECT_LOGGED(LM_WARNING, "but another process holds its output open");
    EXPECT_TRUE(ends(told_pid("daemon")));
    EXPECT_EQ(6u, handler.longest);
}

TEST_F(Tool_Limits_Test, a_run_without_limits_takes_its_time) {
    Sink handler;
    handler.unlimited();
    Child_Options options("blob out 3000000 await " + in("fifo"));
    ASSERT_EQ(0, mkfifo(in("fifo").c_str(), 0600));
    ASSERT_NE(-1, handler.spawn(BOTH, options));
    ACE_Time_Value const more_than_the_limit(1, 200000);
    EXPECT_EQ(-1, handler.wait(&more_than_the_limit));
    EXPECT_EQ(Child_End::TIMED_OUT, handler.end().kind);
    close(open(in("fifo").c_str(), O_WRONLY));
    EXPECT_EQ(0, handler.wait());
    EXPECT_EQ(3000000u, handler.longest);
}

// Output.

TEST_F(Tool_Limits_Test, one_that_prints_for_ever_is_ended) {
    limit(60, 1000000);
    for (std::string const stream : {"out", "err"}) {
        Sink handler;
        expect_stopped(handler, "flood " + stream + " 1000000000",
                       "it has printed more than 1000000 bytes (limits.tool_output)");
    }
}

TEST_F(Tool_Limits_Test, an_orphan_that_prints_for_ever_is_ended_too) {
    limit(60, 1000000);
    Sink handler;
    expect_stopped(handler, "leave-flood out own", "it has printed more than 1000000 bytes");
}

TEST_F(Tool_Limits_Test, a_line_without_end_ends_the_tool) {
    limit(60, 1000000000);
    Sink handler;
    expect_stopped(handler, "blob out 1000000000", "it has printed a line of more than 1048576");
    EXPECT_EQ(Tool_Limits::LINE_BYTES, handler.longest);
}

TEST_F(Tool_Limits_Test, what_keeps_to_the_limits_is_whole) {
    limit(60, 2 * Tool_Limits::LINE_BYTES);
    Sink handler;
    Child_Options options("blob out " + std::to_string(Tool_Limits::LINE_BYTES));
    EXPECT_EQ(0, handler.call(BOTH, options));
    EXPECT_EQ(Tool_Limits::LINE_BYTES, handler.longest);
}

TEST_F(Tool_Limits_Test, a_script_has_none) {
    limit(60, 1000);
    Child_Options options("flood out 100");
    EXPECT_EQ(0, subprocess::call_unlimited(options, {}));
    Child_Options same("flood out 100");
    EXPECT_EQ(-1, subprocess::call(same, {}));
    EXPECT_LOGGED(LM_ERROR, "it has printed more than 1000 bytes");
}

// The caller.

TEST_F(Tool_Limits_Test, a_caller_that_leaves_takes_its_question_along) {
    limit(60, 1000000);
    auto const caller = std::make_shared<Cancellation>();
    std::thread runner([&] {
        Cancellation_Scope const scope(caller);
        Sink handler;
        expect_stopped(handler, "session " + in("session") + " stay",
                       "nobody waits for its answer any more", LM_WARNING);
    });
    pid_t const session = told_pid("session");
    caller->cancel();
    runner.join();
    EXPECT_TRUE(ends(session));
}

TEST_F(Tool_Limits_Test, nothing_is_started_for_a_caller_that_has_left) {
    auto const caller = std::make_shared<Cancellation>();
    caller->cancel();
    Cancellation_Scope const scope(caller);
    Sink handler;
    Child_Options options("daemon " + in("daemon"));
    EXPECT_EQ(-1, handler.call(BOTH, options));
    EXPECT_EQ(ECANCELED, errno);
    EXPECT_EQ(Child_End::NOT_STARTED, handler.end().kind);
    EXPECT_LOGGED(LM_WARNING, "No tool is started");
    EXPECT_NE(0, access(in("daemon").c_str(), F_OK));
}

TEST_F(Tool_Limits_Test, a_run_without_limits_is_ended_whole_when_it_is_cancelled) {
    auto const run = std::make_shared<Cancellation>("the run was cancelled");
    std::thread runner([&] {
        Cancellation::current(run);
        Sink handler;
        handler.unlimited();
        expect_stopped(handler, "session " + in("session") + " daemon " + in("daemon") + " stay",
                       "the run was cancelled", LM_WARNING);
    });
    pid_t const session = told_pid("session");
    pid_t const daemon = told_pid("daemon");
    run->cancel();
    runner.join();
    EXPECT_TRUE(has_ended(session)) << "a child in a session of its own lives";
    EXPECT_TRUE(ends(daemon)) << "an orphan that holds the pipes lives";
}

TEST_F(Tool_Limits_Test, a_run_without_limits_that_ignores_the_signal_is_killed) {
    auto const run = std::make_shared<Cancellation>("the run was cancelled");
    std::thread runner([&] {
        Cancellation_Scope const scope(run);
        Sink handler;
        handler.unlimited();
        expect_stopped(handler, "ignore 15 session " + in("session") + " stay",
                       "the run was cancelled", LM_WARNING);
    });
    pid_t const session = told_pid("session");
    run->cancel();
    runner.join();
    EXPECT_TRUE(ends(session));
}

TEST_F(Tool_Limits_Test, a_run_without_pipes_is_cancelled) {
    auto const run = std::make_shared<Cancellation>("the run was cancelled");
    std::thread runner([&] {
        Cancellation_Scope const scope(run);
        Sink handler;
        handler.unlimited();
        Child_Options options("session " + in("session") + " stay");
        EXPECT_EQ(-1, handler.call(0u, options));
        EXPECT_EQ(Child_End::STOPPED, handler.end().kind);
        EXPECT_LOGGED(LM_WARNING, ") was ended, the run was cancelled");
    });
    told_pid("session");
    run->cancel();
    runner.join();
}

TEST_F(Tool_Limits_Test, a_cancelled_run_starts_nothing_more) {
    auto const run = std::make_shared<Cancellation>("the run was cancelled");
    run->cancel();
    Cancellation_Scope const scope(run);
    Child_Options options("daemon " + in("daemon"));
    EXPECT_EQ(-1, subprocess::call_unlimited(options, {}));
    EXPECT_LOGGED(LM_WARNING, "No tool is started, the run was cancelled");
    EXPECT_NE(0, access(in("daemon").c_str(), F_OK));
}

TEST(Cancellation, scopes_nest_and_each_thread_has_its_own) {
    auto const outer = std::make_shared<Cancellation>();
    auto const inner = std::make_shared<Cancellation>();
    EXPECT_EQ(nullptr, Cancellation::current());
    {
        Cancellation_Scope const scope(outer);
        {
            Cancellation_Scope const other(inner);
            EXPECT_EQ(inner, Cancellation::current());
            std::thread([] { EXPECT_EQ(nullptr, Cancellation::current()); }).join();
        }
        EXPECT_EQ(outer, Cancellation::current());
    }
    EXPECT_EQ(nullptr, Cancellation::current());
}

TEST(Cancellation, its_handle_is_readable_whenever_it_was_made) {
    Cancellation early;
    pollfd entry = {early.handle(), POLLIN, 0};
    EXPECT_EQ(0, poll(&entry, 1, 0));
    early.cancel();
    EXPECT_EQ(1, poll(&entry, 1, 0));
    Cancellation late;
    late.cancel();
    late.cancel();
    entry.fd = late.handle();
    EXPECT_EQ(1, poll(&entry, 1, 0));
}

// The end of the process.

TEST_F(Tool_Limits_Test, all_children_end_at_once_whoever_follows_them) {
    std::string const verbs = "ignore 15 session " + in("session") + " stay";
    std::thread runner([&] {
        Sink handler;
        handler.unlimited();
        Child_Options options(verbs);
        EXPECT_EQ(-1, handler.call(BOTH, options));
        EXPECT_EQ(SIGKILL, handler.end().code);
    });
    pid_t const session = told_pid("session");
    Child_Registry::instance().end_all();
    runner.join();
    EXPECT_TRUE(ends(session));
    EXPECT_LOGGED(LM_ERROR, "was ended by signal 9 (Killed)");
    expect_no_children();

    Sink handler;
    Child_Options options("out late");
    EXPECT_EQ(-1, handler.call(BOTH, options));
    EXPECT_EQ(ESHUTDOWN, errno);
    EXPECT_LOGGED(LM_ERROR, "this process is about to end");
    Child_Registry::instance().reopen();
    EXPECT_EQ(0, handler.call(BOTH, options));
}

} // namespace
