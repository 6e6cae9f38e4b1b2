#include "host/process/text_process_handler.h"

#include "qmrt/log.h"
#include "tests/support/child_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/test_child_path.h"

#include <ace/Log_Record.h>

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr unsigned OUT_AND_ERR = ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR;
constexpr unsigned ALL = OUT_AND_ERR | ACE_Process_Ex::REDIRECT_STDIN;

/** Notes all that it is told. */
class Recorder : public Text_Process_Handler {
public:
    using Text_Process_Handler::Text_Process_Handler;

    int handle_stdout_line(char const* line, size_t length) override {
        EXPECT_EQ('\0', line[length]);
        EXPECT_FALSE(stdout_closed);
        out.emplace_back(line, length);
        return stdout_result;
    }
    int handle_stderr_line(char const* line, size_t length) override {
        EXPECT_FALSE(stderr_closed);
        err.emplace_back(line, length);
        return stderr_result;
    }
    void handle_stdout_close() override {
        EXPECT_FALSE(stdout_closed);
        stdout_closed = true;
    }
    void handle_stderr_close() override {
        EXPECT_FALSE(stderr_closed);
        stderr_closed = true;
    }

    std::vector<std::string> out;
    std::vector<std::string> err;
    int stdout_result = 0;
    int stderr_result = 0;
    bool stdout_closed = false;
    bool stderr_closed = false;
};

class Fifo {
public:
    Fifo() { EXPECT_EQ(0, mkfifo(path.c_str(), 0600)); }
    /** Lets go who awaits it. */
    void open_and_close() const { close(open(path.c_str(), O_WRONLY)); }

private:
    Temporary_Directory directory_;

public:
    std::string const path = directory_.path("fifo");
};

int call(Text_Process_Handler& handler, std::string const& verbs, unsigned flags = OUT_AND_ERR) {
    Child_Options options(verbs);
    int const result = handler.call(flags, options);
    EXPECT_FALSE(handler.running());
    expect_no_children();
    return result;
}

// The end of a run.

TEST(Text_Process_Handler, a_run_gives_the_exit_status) {
    Recorder handler;
    EXPECT_EQ(0, call(handler, "out fine"));
    EXPECT_TRUE(handler.end().success());
    Recorder other;
    EXPECT_EQ(3, call(other, "exit 3"));
    EXPECT_EQ(Child_End::EXITED, other.end().kind);
    EXPECT_LOGGED(LM_WARNING, std::string(ZENBRAK3_TEST_CHILD) + " (pid ");
}

TEST(Text_Process_Handler, an_exit_with_another_status_is_a_warning_with_the_last_words) {
    Recorder handler;
    EXPECT_EQ(2, call(handler, "out fine err first err 'no such host' exit 2"));
    EXPECT_LOGGED(LM_WARNING, ") exited with status 2, the last lines of its stderr:\n"
                              "first\nno such host\n");
    EXPECT_EQ("first\nno such host", handler.last_error_lines());
}

TEST(Text_Process_Handler, an_end_by_a_signal_is_an_error_that_names_it) {
    Recorder handler;
    EXPECT_EQ(-1, call(handler, "err 'about to crash' signal 9"));
    EXPECT_EQ(Child_End::SIGNALLED, handler.end().kind);
    EXPECT_EQ(9, handler.end().code);
    EXPECT_LOGGED(LM_ERROR, ") was ended by signal 9 (Killed), the last lines of its stderr:\n"
                            "about to crash\n");
}

TEST(Text_Process_Handler, a_failed_start_is_minus_1_with_its_reason) {
    Recorder handler;
    ACE_Process_Options options;
    ASSERT_TRUE(set_command_line(options, "/no/such/program"));
    EXPECT_EQ(-1, handler.call(OUT_AND_ERR, options));
    EXPECT_EQ(Child_End::NOT_STARTED, handler.end().kind);
    EXPECT_LOGGED(LM_ERROR, "Failed to start /no/such/program: program /no/such/program is not");
    EXPECT_THAT(handler.end().describe(), HasSubstr("is not found"));
    EXPECT_FALSE(handler.stdout_closed);
}

TEST(Text_Process_Handler, an_end_that_this_process_threw_away_is_an_error) {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction old;
    sigaction(SIGCHLD, &ignore, &old);
    Recorder handler;
    EXPECT_EQ(-1, call(handler, "out fine"));
    sigaction(SIGCHLD, &old, nullptr);
    EXPECT_EQ(Child_End::LOST, handler.end().kind);
    EXPECT_THAT(handler.out, ElementsAre("fine"));
    EXPECT_LOGGED(LM_ERROR, "this process ignores SIGCHLD");
}

TEST(Text_Process_Handler, a_handler_runs_one_tool_after_the_other) {
    Recorder handler;
    EXPECT_EQ(1, call(handler, "out 1 err one exit 1"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    handler.stdout_closed = handler.stderr_closed = false;
    EXPECT_EQ(0, call(handler, "out 2"));
    EXPECT_THAT(handler.out, ElementsAre("1", "2"));
    EXPECT_EQ("", handler.last_error_lines());
}

TEST(Text_Process_Handler, a_process_of_the_callers_serves_as_well) {
    Recorder handler;
    Child_Options options("out fine exit 4");
    ACE_Process_Ex process(OUT_AND_ERR, "GaussRoach.py");
    EXPECT_EQ(4, handler.call(&process, options));
    EXPECT_EQ(4, process.end().code);
    EXPECT_LOGGED(LM_WARNING, "GaussRoach.py (pid " + std::to_string(process.getpid()) +
                                  ") exited with status 4\n");
    EXPECT_EQ(-1, handler.call(nullptr, options));
    EXPECT_CHECK_LOGGED("process is NULL");
}

// Lines.

TEST(Text_Process_Handler, lines_come_with_all_their_bytes) {
    Recorder handler;
    // "a", NUL, "b", 0xFF, LF, CR, LF, LF, ESC "[2K", LF
    EXPECT_EQ(0, call(handler, "raw out 610062ff0a0d0a0a1b5b324b0a raw err 00"));
    EXPECT_THAT(handler.out, ElementsAre(std::string("a\0b\xFF", 4), "\r", "", "\x1b[2K"));
    EXPECT_THAT(handler.err, ElementsAre(std::string(1, '\0')));
}

TEST(Text_Process_Handler, a_last_line_without_a_break_counts) {
    Recorder handler;
    EXPECT_EQ(0, call(handler, "out first raw out 6c617374 raw err 6c617374"));
    EXPECT_THAT(handler.out, ElementsAre("first", "last"));
    EXPECT_THAT(handler.err, ElementsAre("last"));
}

TEST(Text_Process_Handler, a_silent_tool_has_no_lines_and_its_streams_close) {
    Recorder handler;
    EXPECT_EQ(0, call(handler, ""));
    EXPECT_THAT(handler.out, IsEmpty());
    EXPECT_THAT(handler.err, IsEmpty());
    EXPECT_TRUE(handler.stdout_closed);
    EXPECT_TRUE(handler.stderr_closed);
}

TEST(Text_Process_Handler, streams_that_are_not_redirected_are_not_told_of) {
    Recorder handler;
    EXPECT_EQ(0, call(handler, "err x", ACE_Process_Ex::REDIRECT_STDERR));
    EXPECT_FALSE(handler.stdout_closed);
    EXPECT_TRUE(handler.stderr_closed);
    EXPECT_THAT(handler.err, ElementsAre("x"));
}

TEST(Text_Process_Handler, both_streams_are_read_together) {
    Recorder handler;
    // more than a pipe holds on the one, then on the other: reading them in turn would hang
    EXPECT_EQ(0, call(handler, "flood err 10000 flood out 10000 flood err 10000"));
    EXPECT_EQ(10000u, handler.out.size());
    EXPECT_EQ(20000u, handler.err.size());
    EXPECT_EQ(std::string(79, 'a'), handler.err.back());
}

TEST(Text_Process_Handler, a_line_comes_while_the_tool_runs_on) {
    struct Answerer : Text_Process_Handler {
        int handle_stdout_line(char const* line, size_t length) override {
            seen.assign(line, length);
            fifo.open_and_close(); // the child waits for this
            return 0;
        }
        Fifo fifo;
        std::string seen;
    } handler;
    EXPECT_EQ(0, call(handler, "out 'are you there?' await " + handler.fifo.path));
    EXPECT_EQ("are you there?", handler.seen);
}

TEST(Text_Process_Handler, into_one_pipe_all_are_lines_of_stdout_in_their_order) {
    Recorder handler;
    EXPECT_EQ(1, call(handler, "out 1 err 2 out 3 exit 1", ACE_Process_Ex::REDIRECT_STDOUT_STDERR));
    EXPECT_THAT(handler.out, ElementsAre("1", "2", "3"));
    EXPECT_THAT(handler.err, IsEmpty());
    EXPECT_FALSE(handler.stderr_closed);
    EXPECT_EQ("1\n2\n3", handler.last_error_lines());
    EXPECT_LOGGED(LM_WARNING, "the last lines of its stderr:\n1\n2\n3\n");
}

TEST(Text_Process_Handler, a_long_line_is_whole) {
    Recorder handler;
    handler.unlimited();
    EXPECT_EQ(0, call(handler, "blob out 16777216 out ''"));
    ASSERT_EQ(1u, handler.out.size());
    EXPECT_EQ(16777216u, handler.out[0].size());
}

TEST(Text_Process_Handler, a_line_without_end_comes_in_pieces_and_is_told_once) {
    Recorder handler;
    handler.unlimited();
    EXPECT_EQ(0, call(handler, "blob out 50000000 out '' blob err 17000000"));
    ASSERT_EQ(3u, handler.out.size());
    EXPECT_EQ(16777216u, handler.out[0].size());
    EXPECT_EQ(16777216u, handler.out[1].size());
    EXPECT_EQ(50000000u - 2 * 16777216u, handler.out[2].size());
    EXPECT_EQ(2u, handler.err.size());
    // once for each of the two streams
    EXPECT_EQ(2u,
              Log_Capture::instance().claim_all(LM_WARNING, "lines of more than 16777216 bytes"));
}

TEST(Text_Process_Handler, segments_come_as_they_were_read) {
    struct Raw : Recorder {
        int handle_stdout_segment(char const* data, size_t size) override {
            bytes.append(data, size);
            return 0;
        }
        std::string bytes;
    } handler;
    EXPECT_EQ(0, call(handler, "raw out 61000a62 err e"));
    EXPECT_EQ(std::string("a\0\nb", 4), handler.bytes);
    EXPECT_THAT(handler.out, IsEmpty());
    EXPECT_THAT(handler.err, ElementsAre("e"));
    EXPECT_TRUE(handler.stdout_closed);
}

TEST(Text_Process_Handler, the_base_makes_lines_of_what_an_override_hands_on) {
    struct Upper : Recorder {
        int handle_stdout_segment(char const* data, size_t size) override {
            std::string text(data, size);
            for (char& c : text)
                c = static_cast<char>(std::toupper(c));
            return Recorder::handle_stdout_segment(text.data(), text.size());
        }
    } handler;
    EXPECT_EQ(0, call(handler, "out a raw out 62"));
    EXPECT_THAT(handler.out, ElementsAre("A", "B"));
}

TEST(Text_Process_Handler, a_handler_that_has_enough_gets_no_more_and_the_tool_runs_on) {
    for (bool const stop_by_stdout : {true, false}) {
        Recorder handler;
        handler.stdout_result = stop_by_stdout ? 1 : 0;
        handler.stderr_result = stop_by_stdout ? 0 : -1;
        // flooding: the tool would wait for ever if nobody read it any more
        EXPECT_EQ(6,
                  call(handler, (stop_by_stdout ? "flood out 5000 flood err 5000 err 'last words'"
                                                : "flood err 5000 flood out 5000") +
                                    std::string(" exit 6")));
        EXPECT_EQ(stop_by_stdout ? 1u : 0u, handler.out.size());
        EXPECT_EQ(stop_by_stdout ? 0u : 1u, handler.err.size());
        EXPECT_TRUE(handler.stdout_closed);
        EXPECT_TRUE(handler.stderr_closed);
        EXPECT_LOGGED(LM_WARNING, "exited with status 6");
        if (stop_by_stdout) {
            EXPECT_THAT(handler.last_error_lines(), HasSubstr("last words"));
        }
    }
}

TEST(Text_Process_Handler, a_segment_handler_that_has_enough_gets_no_more) {
    struct Once : Recorder {
        int handle_stdout_segment(char const*, size_t) override {
            ++segments;
            return 1;
        }
        int segments = 0;
    } handler;
    EXPECT_EQ(0, call(handler, "flood out 10000 err e"));
    EXPECT_EQ(1, handler.segments);
    EXPECT_THAT(handler.err, IsEmpty());
}

TEST(Text_Process_Handler, a_tool_that_closes_its_streams_is_waited_for) {
    struct Teller : Recorder {
        void handle_stderr_close() override { fifo.open_and_close(); }
        Fifo fifo;
    } handler;
    // it goes on only after both have been seen closed here
    EXPECT_EQ(5, call(handler, "out x close out close err await " + handler.fifo.path + " exit 5"));
    EXPECT_THAT(handler.out, ElementsAre("x"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 5");
}

// What a tool leaves behind.

TEST(Text_Process_Handler, a_process_left_behind_is_read_to_its_end_when_that_comes_in_time) {
    struct Releaser : Recorder {
        int handle_stdout_line(char const* line, size_t length) override {
            Recorder::handle_stdout_line(line, length);
            siginfo_t info;
            if (out.size() == 1 && waitid(P_ALL, 0, &info, WEXITED | WNOWAIT) == 0)
                fifo.open_and_close(); // the child has ended by now
            return 0;
        }
        Fifo fifo;
    } handler;
    EXPECT_EQ(7, call(handler, "leave " + handler.fifo.path + " 'left behind' out own exit 7"));
    EXPECT_THAT(handler.out, ElementsAre("own", "left behind"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 7");
}

TEST(Text_Process_Handler, a_process_left_behind_is_given_up_with_a_warning) {
    Fifo fifo;
    Recorder handler(Text_Process_Handler::TPHF_LOG_NONE, 0);
    handler.unlimited();
    EXPECT_EQ(0, call(handler, "leave " + fifo.path + " late flood out 500 out 'its last'"));
    ASSERT_EQ(501u, handler.out.size());
    EXPECT_EQ("its last", handler.out.back());
    EXPECT_TRUE(handler.stdout_closed);
    EXPECT_TRUE(handler.stderr_closed);
    EXPECT_LOGGED(LM_WARNING, "exited with status 0, but another process holds its output open");
    fifo.open_and_close();
}

TEST(Text_Process_Handler, the_end_of_the_time_for_it_is_kept) {
    Fifo fifo;
    Recorder handler(Text_Process_Handler::TPHF_LOG_NONE, 1);
    handler.unlimited();
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(0, call(handler, "leave " + fifo.path + " late"));
    auto const took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::seconds(1));
    EXPECT_LT(took, std::chrono::seconds(30));
    EXPECT_LOGGED(LM_WARNING, "but another process holds its output open");
    fifo.open_and_close();
}

TEST(Text_Process_Handler, a_process_left_behind_that_floods_is_given_up_too) {
    Recorder handler(Text_Process_Handler::TPHF_LOG_NONE, 0);
    handler.unlimited();
    EXPECT_EQ(0, call(handler, "leave-flood out own"));
    EXPECT_THAT(handler.out, testing::Contains("own"));
    EXPECT_LOGGED(LM_WARNING, "but another process holds its output open");
}

TEST(Text_Process_Handler, a_tool_that_leaves_nothing_gives_no_warning_even_without_time) {
    for (int run = 0; run < 50; ++run) {
        Recorder handler(Text_Process_Handler::TPHF_LOG_NONE, 0);
        EXPECT_EQ(0, call(handler, "flood out 2000 err e"));
        EXPECT_EQ(2000u, handler.out.size());
    }
}

TEST(Text_Process_Handler, without_pidfd_a_run_is_the_same) {
    on_own_thread([] {
        ASSERT_TRUE(deny_system_call(SYS_pidfd_open, ENOSYS));
        Recorder handler(Text_Process_Handler::TPHF_LOG_NONE, 0);
        EXPECT_EQ(0, call(handler, "flood out 3000 err e"));
        EXPECT_EQ(3000u, handler.out.size());
        handler.stdout_closed = handler.stderr_closed = false;
        EXPECT_EQ(0, call(handler, "leave-flood out own"));
        EXPECT_LOGGED(LM_WARNING, "but another process holds its output open");
        Fifo fifo;
        Child_Options options("await " + fifo.path);
        ASSERT_NE(-1, handler.spawn(0u, options));
        ACE_Time_Value const soon(0, 1000);
        EXPECT_EQ(-1, handler.wait(&soon));
        EXPECT_EQ(Child_End::TIMED_OUT, handler.end().kind);
        fifo.open_and_close();
        EXPECT_EQ(0, handler.wait());
    });
}

// Waiting and ending.

TEST(Text_Process_Handler, a_wait_with_a_limit_returns_without_touching_the_tool) {
    Fifo fifo;
    Recorder handler;
    Child_Options options("out begin await " + fifo.path + " out end exit 8");
    pid_t const pid = handler.spawn(OUT_AND_ERR, options);
    ASSERT_NE(-1, pid);
    EXPECT_TRUE(handler.running());
    EXPECT_EQ(Child_End::RUNNING, handler.end().kind);
    ACE_Time_Value const soon(0, 1000);
    EXPECT_EQ(-1, handler.wait(&soon));
    EXPECT_EQ(Child_End::TIMED_OUT, handler.end().kind);
    EXPECT_TRUE(handler.running());
    EXPECT_EQ(0, kill(pid, 0));
    fifo.open_and_close();
    ACE_Time_Value const long_enough(60);
    EXPECT_EQ(8, handler.wait(&long_enough));
    EXPECT_EQ(Child_End::EXITED, handler.end().kind);
    EXPECT_THAT(handler.out, ElementsAre("begin", "end"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 8");
    expect_no_children();
}

TEST(Text_Process_Handler, a_limit_counts_for_a_tool_that_closed_its_streams_too) {
    Fifo fifo;
    Recorder handler;
    Child_Options options("close out close err await " + fifo.path);
    ASSERT_NE(-1, handler.spawn(OUT_AND_ERR, options));
    while (!handler.stdout_closed || !handler.stderr_closed) {
        ACE_Time_Value const soon(0, 1000);
        EXPECT_EQ(-1, handler.wait(&soon));
    }
    EXPECT_EQ(-1, handler.wait(&ACE_Time_Value::zero));
    fifo.open_and_close();
    EXPECT_EQ(0, handler.wait());
}

TEST(Text_Process_Handler, a_limit_counts_for_a_tool_that_never_stops_printing) {
    Recorder handler;
    handler.unlimited();
    Child_Options options("flood out 1000000000");
    ASSERT_NE(-1, handler.spawn(OUT_AND_ERR, options));
    handler.stdout_result = 1;
    ACE_Time_Value const soon(0, 20000);
    EXPECT_EQ(-1, handler.wait(&soon));
    EXPECT_EQ(Child_End::TIMED_OUT, handler.end().kind);
    EXPECT_EQ(-1, handler.terminate());
    EXPECT_EQ(SIGTERM, handler.end().code);
    EXPECT_LOGGED(LM_WARNING, "was ended by signal 15 (Terminated)");
}

TEST(Text_Process_Handler, terminate_asks_the_tool_to_end_and_follows_it) {
    Fifo ready;
    Fifo never;
    Recorder handler;
    Child_Options options("on-term 3 tell " + ready.path + " await " + never.path);
    ASSERT_NE(-1, handler.spawn(OUT_AND_ERR, options));
    close(open(ready.path.c_str(), O_RDONLY));
    EXPECT_EQ(3, handler.terminate());
    EXPECT_FALSE(handler.running());
    EXPECT_THAT(handler.out, ElementsAre("told to end"));
    EXPECT_LOGGED(LM_INFO, "Ending ");
    EXPECT_LOGGED(LM_WARNING, "exited with status 3");
    expect_no_children();
}

TEST(Text_Process_Handler, terminate_kills_a_tool_that_does_not_mind) {
    Fifo fifo;
    Fifo never;
    Recorder handler;
    Child_Options options("ignore 15 tell " + fifo.path + " await " + never.path);
    ASSERT_NE(-1, handler.spawn(OUT_AND_ERR, options));
    close(open(fifo.path.c_str(), O_RDONLY)); // it ignores the signal by now
    EXPECT_EQ(-1, handler.terminate(ACE_Time_Value(0, 50000), ACE_Time_Value(0, 10000)));
    EXPECT_EQ(SIGKILL, handler.end().code);
    EXPECT_LOGGED(LM_INFO, "Ending ");
    EXPECT_LOGGED(LM_WARNING, "has not ended on SIGTERM and is killed");
    EXPECT_LOGGED(LM_WARNING, "was ended by signal 9 (Killed)");
    expect_no_children();
}

TEST(Text_Process_Handler, terminate_does_not_wait_for_what_the_tool_leaves_behind) {
    Fifo fifo;
    Fifo ready;
    Fifo never;
    Recorder handler; // with the usual 60 seconds
    handler.unlimited();
    Child_Options options("leave " + fifo.path + " late tell " + ready.path + " await " +
                          never.path);
    ASSERT_NE(-1, handler.spawn(OUT_AND_ERR, options));
    close(open(ready.path.c_str(), O_RDONLY));
    EXPECT_EQ(-1, handler.terminate());
    EXPECT_EQ(SIGTERM, handler.end().code);
    EXPECT_LOGGED(LM_WARNING, "another process holds its output open");
    EXPECT_LOGGED(LM_WARNING, "was ended by signal 15 (Terminated)\n");
    fifo.open_and_close();
}

TEST(Text_Process_Handler, terminate_and_wait_without_a_run_are_nothing) {
    Recorder handler;
    EXPECT_EQ(-1, handler.wait());
    EXPECT_EQ(-1, handler.terminate());
    handler.close_stdin();
    iovec text = {const_cast<char*>("x"), 1};
    EXPECT_EQ(-1, handler.write_stdin(&text, 1));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(Child_End::NOT_STARTED, handler.end().kind);
}

TEST(Text_Process_Handler, a_handler_that_goes_ends_its_run) {
    Fifo fifo;
    {
        Recorder handler;
        Child_Options options("await " + fifo.path);
        ASSERT_NE(-1, handler.spawn(OUT_AND_ERR, options));
    }
    EXPECT_LOGGED(LM_WARNING, "was ended by signal 15 (Terminated)");
    expect_no_children();
}

TEST(Text_Process_Handler, a_process_that_goes_before_its_handler_ends_the_run) {
    Fifo fifo;
    Recorder handler;
    Child_Options options("await " + fifo.path);
    {
        ACE_Process_Ex process(OUT_AND_ERR, "the child");
        ASSERT_NE(-1, handler.spawn(&process, options));
    }
    EXPECT_LOGGED(LM_WARNING, "is running still and is ended");
    expect_no_children();
    EXPECT_EQ(-1, handler.wait());
    EXPECT_EQ(Child_End::LOST, handler.end().kind);
    EXPECT_EQ(0, call(handler, "out again"));
}

TEST(Text_Process_Handler, a_second_run_beside_the_first_is_refused) {
    Fifo fifo;
    Recorder handler;
    Child_Options options("await " + fifo.path + " exit 0");
    ASSERT_NE(-1, handler.spawn(OUT_AND_ERR, options));
    EXPECT_EQ(-1, handler.call(OUT_AND_ERR, options));
    EXPECT_EQ(EBUSY, errno);
    EXPECT_LOGGED(LM_ERROR, "Failed to start a program, the run of ");
    EXPECT_TRUE(handler.running());
    fifo.open_and_close();
    EXPECT_EQ(0, handler.wait());
}

TEST(Text_Process_Handler, a_run_may_be_started_from_another_runs_handler) {
    struct Outer : Recorder {
        int handle_stdout_line(char const* line, size_t length) override {
            Child_Options options("out inner");
            inner_result = inner.call(OUT_AND_ERR, options);
            return Recorder::handle_stdout_line(line, length);
        }
        Recorder inner;
        int inner_result = -2;
    } handler;
    EXPECT_EQ(0, call(handler, "out outer"));
    EXPECT_EQ(0, handler.inner_result);
    EXPECT_THAT(handler.inner.out, ElementsAre("inner"));
    EXPECT_THAT(handler.out, ElementsAre("outer"));
}

// Input.

TEST(Text_Process_Handler, gives_texts_to_the_tool_in_one_go) {
    Recorder handler;
    Child_Options options("cat");
    ASSERT_NE(-1, handler.spawn(ALL, options));
    std::string password = "s3cret";
    char line_break = '\n';
    iovec texts[] = {{password.data(), password.size()}, {nullptr, 0}, {&line_break, 1}};
    EXPECT_EQ(7, handler.write_stdin(texts, 3));
    EXPECT_EQ(0, handler.wait());
    EXPECT_THAT(handler.out, ElementsAre("s3cret"));
    EXPECT_NOT_LOGGED("s3cret");
}

TEST(Text_Process_Handler, nothing_to_give_is_given_at_once) {
    Recorder handler;
    Child_Options options("cat");
    ASSERT_NE(-1, handler.spawn(ALL, options));
    EXPECT_EQ(0, handler.write_stdin(nullptr, 0));
    iovec empty = {nullptr, 0};
    EXPECT_EQ(0, handler.write_stdin(&empty, 1));
    EXPECT_EQ(0, handler.wait());
    EXPECT_THAT(handler.out, IsEmpty());
}

TEST(Text_Process_Handler, a_text_of_any_length_is_given_while_the_output_is_read) {
    Recorder handler;
    handler.unlimited();
    Child_Options options("cat");
    ASSERT_NE(-1, handler.spawn(ALL, options));
    std::string big(5 * 1024 * 1024, 'x');
    std::string more(3 * 1024 * 1024, 'y');
    iovec texts[] = {{big.data(), big.size()}, {more.data(), more.size()}};
    // what the tool prints of it is more than its pipe holds: it must be read meanwhile
    EXPECT_EQ(8 * 1024 * 1024, handler.write_stdin(texts, 2));
    handler.close_stdin();
    EXPECT_EQ(0, handler.wait());
    ASSERT_EQ(1u, handler.out.size());
    EXPECT_EQ(big + more, handler.out[0]);
}

TEST(Text_Process_Handler, a_dead_tool_while_the_password_is_written_is_an_error) {
    Recorder handler;
    Child_Options options("close in err 'no server' exit 2");
    ASSERT_NE(-1, handler.spawn(ALL, options));
    std::string big(1024 * 1024, 'x');
    iovec text = {big.data(), big.size()};
    errno = 0;
    EXPECT_LT(handler.write_stdin(&text, 1), static_cast<ssize_t>(big.size()));
    EXPECT_EQ(EPIPE, errno);
    // and the run still tells why
    EXPECT_EQ(2, handler.wait());
    EXPECT_LOGGED(LM_WARNING, "exited with status 2, the last lines of its stderr:\nno server\n");
}

TEST(Text_Process_Handler, a_dead_tool_whose_stdin_somebody_holds_is_an_error_too) {
    Fifo fifo;
    Recorder handler(Text_Process_Handler::TPHF_LOG_NONE, 0);
    handler.unlimited();
    Child_Options options("leave " + fifo.path + " late exit 2");
    ASSERT_NE(-1, handler.spawn(ALL, options));
    std::string big(1024 * 1024, 'x');
    iovec text = {big.data(), big.size()};
    EXPECT_LT(handler.write_stdin(&text, 1), static_cast<ssize_t>(big.size()));
    EXPECT_EQ(EPIPE, errno);
    EXPECT_EQ(2, handler.wait());
    EXPECT_LOGGED(LM_WARNING, "another process holds its output open");
    EXPECT_LOGGED(LM_WARNING, "exited with status 2");
    fifo.open_and_close();
}

TEST(Text_Process_Handler, a_tool_that_waits_for_input_sees_its_end_in_wait) {
    Recorder handler;
    Child_Options options("cat out done");
    ASSERT_NE(-1, handler.spawn(ALL, options));
    EXPECT_EQ(0, handler.wait());
    EXPECT_THAT(handler.out, ElementsAre("done"));
}

TEST(Text_Process_Handler, a_tool_that_waits_for_input_which_is_not_redirected_sees_none) {
    Recorder handler;
    EXPECT_EQ(0, call(handler, "cat stdin-kind"));
    EXPECT_THAT(handler.out, ElementsAre("/dev/null"));
}

// Logs.

TEST(Text_Process_Handler, the_base_logs_the_lines_of_both_streams) {
    for (unsigned const flags :
         {Text_Process_Handler::TPHF_LOG_NONE, Text_Process_Handler::TPHF_LOG_CMD}) {
        Text_Process_Handler handler(flags);
        EXPECT_EQ(0, call(handler, "out 'a %s line' out '' err 'an error %n'"));
        EXPECT_LOGGED(LM_INFO, "a %s line\n");
        EXPECT_LOGGED(LM_INFO, "an error %n\n");
        EXPECT_FALSE(Log_Capture::instance().claim(LM_INFO, "")) << Log_Capture::instance().dump();
    }
}

TEST(Text_Process_Handler, logs_the_command_line_when_asked) {
    Recorder silent;
    EXPECT_EQ(0, call(silent, "args 'a b'"));
    EXPECT_NOT_LOGGED("args 'a b'");
    Recorder telling(Text_Process_Handler::TPHF_LOG_CMD);
    EXPECT_EQ(0, call(telling, "args 'a b'"));
    EXPECT_LOGGED(LM_DEBUG, std::string(ZENBRAK3_TEST_CHILD) + " args 'a b'\n");
}

TEST(Text_Process_Handler, log_line_takes_its_priority_and_any_text) {
    Text_Process_Handler const handler;
    handler.log_line(LM_NOTICE, "100%s\\n", 7);
    EXPECT_LOGGED(LM_NOTICE, "100%s\\n\n");
    handler.log_line(LM_INFO, "a\0b", 3);
    EXPECT_LOGGED(LM_INFO, "a\\0b\n");
    handler.log_line(LM_INFO, "abc", 2);
    EXPECT_LOGGED(LM_INFO, "ab\n");
    handler.log_line(LM_INFO, "\xFF", 1);
    EXPECT_LOGGED(LM_INFO, "\xFF\n");
    handler.log_line(LM_DEBUG, "", 0);
    EXPECT_LOGGED(LM_DEBUG, "\n");
    handler.log_line(LM_INFO, nullptr, 0);
    EXPECT_FALSE(Log_Capture::instance().claim(LM_INFO, ""));
}

TEST(Text_Process_Handler, a_line_longer_than_a_log_line_is_logged_whole) {
    Text_Process_Handler const handler;
    std::string const line = std::string(3999, 'x') + "\xC3\xBC" + std::string(4000, 'y') + "z";
    handler.log_line(LM_INFO, line.data(), line.size());
    EXPECT_LOGGED(LM_INFO, std::string(3999, 'x') + "\n");
    EXPECT_LOGGED(LM_INFO, "\xC3\xBC" + std::string(3998, 'y') + "\n");
    EXPECT_LOGGED(LM_INFO, "yyz\n");
    std::string const binary(10000, '\x80');
    handler.log_line(LM_INFO, binary.data(), binary.size());
    EXPECT_EQ(3u, Log_Capture::instance().claim_all(LM_INFO, "\x80"));
}

TEST(Text_Process_Handler, logs_local_text_as_utf8_when_asked) {
    Text_Process_Handler const handler(Text_Process_Handler::TPHF_LOG_CVT_LOCAL_TO_UTF8);
    handler.log_line(LM_INFO, "gr\xC3\xBC\xC3\x9F \xFF", 8);
    // one byte of it is no UTF-8, and the tests' locale has ASCII only
    EXPECT_TRUE(Log_Capture::instance().contains("\xEF\xBF\xBD\n"));
    handler.log_line(LM_INFO, "gr\xC3\xBC\xC3\x9F", 6);
    EXPECT_LOGGED(LM_INFO, "gr\xC3\xBC\xC3\x9F\n");
}

class Job_Log : public ACE_Log_Msg_Callback {
public:
    void log(ACE_Log_Record& record) override {
        lines.emplace_back(record.msg_data());
        thread = std::this_thread::get_id();
    }
    std::vector<std::string> lines;
    std::thread::id thread;
};

TEST(Text_Process_Handler, all_that_is_logged_during_a_run_reaches_the_callback) {
    struct Chatty : Text_Process_Handler {
        Chatty() : Text_Process_Handler(TPHF_LOG_CMD) {}
        int handle_stdout_line(char const* line, size_t length) override {
            QMRT_LOG(LM_NOTICE, "a note of the handler's\n");
            return Text_Process_Handler::handle_stdout_line(line, length);
        }
    } handler;
    auto const job_log = std::make_shared<Job_Log>();
    Job_Log before;
    ACE_LOG_MSG->msg_callback(&before);
    {
        Child_Options options("out line exit 3");
        ACE_Process_Ex process(OUT_AND_ERR, "tool", job_log);
        EXPECT_EQ(3, handler.call(&process, options));
    }
    EXPECT_EQ(&before, ACE_LOG_MSG->msg_callback());
    ACE_LOG_MSG->msg_callback(nullptr);
    EXPECT_THAT(job_log->lines,
                ElementsAre(StartsWith(ZENBRAK3_TEST_CHILD), "a note of the handler's\n", "line\n",
                            HasSubstr("exited with status 3")));
    EXPECT_THAT(before.lines, IsEmpty());
    EXPECT_EQ(1, job_log.use_count());
    EXPECT_LOGGED(LM_WARNING, "exited with status 3");
}

TEST(Text_Process_Handler, without_a_callback_the_threads_own_stays) {
    Job_Log own;
    ACE_LOG_MSG->msg_callback(&own);
    Text_Process_Handler handler;
    EXPECT_EQ(0, call(handler, "out line"));
    ACE_LOG_MSG->msg_callback(nullptr);
    EXPECT_THAT(own.lines, ElementsAre("line\n"));
}

TEST(Text_Process_Handler, runs_of_many_threads_do_not_mix) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([i] {
            for (int run = 0; run < 10; ++run) {
                std::string const name = std::to_string(i) + "-" + std::to_string(run);
                auto const job_log = std::make_shared<Job_Log>();
                Text_Process_Handler handler;
                Child_Options options("out " + name + " flood err 50 out end");
                ACE_Process_Ex process(OUT_AND_ERR, "tool", job_log);
                EXPECT_EQ(0, handler.call(&process, options));
                EXPECT_EQ(52u, job_log->lines.size());
                EXPECT_THAT(job_log->lines, testing::Contains(name + "\n"));
                EXPECT_EQ(std::this_thread::get_id(), job_log->thread);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    expect_no_children();
}

TEST(Text_Process_Handler, the_known_numbers) {
    EXPECT_EQ(600, Text_Process_Handler::TERM_TIMEOUT);
    EXPECT_EQ(60, Text_Process_Handler::DTOR_TERM_TIMEOUT);
    EXPECT_EQ(60, Text_Process_Handler::TERM_RETRY_INTERVAL);
    EXPECT_EQ(60, Text_Process_Handler::PIPES_CLOSED_TIMEOUT);
    EXPECT_EQ(3, Text_Process_Handler::REACTOR_EVENT_WAIT_TIME);
    EXPECT_EQ(0, Text_Process_Handler::TPHF_LOG_NONE);
    EXPECT_EQ(1, Text_Process_Handler::TPHF_LOG_CMD);
    EXPECT_EQ(2, Text_Process_Handler::TPHF_LOG_CVT_LOCAL_TO_UTF8);
    EXPECT_EQ(1, ACE_Process_Ex::REDIRECT_STDIN);
    EXPECT_EQ(2, ACE_Process_Ex::REDIRECT_STDOUT);
    EXPECT_EQ(4, ACE_Process_Ex::REDIRECT_STDERR);
    EXPECT_EQ(8, ACE_Process_Ex::REDIRECT_STDOUT_STDERR);
}

} // namespace
