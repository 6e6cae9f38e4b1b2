#include "host/process/subprocess.h"

#include "tests/support/child_options.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_child_path.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Record.h>

#include <gtest/gtest.h>

namespace {

TEST(subprocess_call, gives_the_exit_status_and_logs_what_the_tool_prints) {
    Child_Options options("out 'Instance stopped' err 'a note'");
    EXPECT_EQ(0, subprocess::call(options));
    EXPECT_LOGGED(LM_DEBUG, std::string(ZENBRAK3_TEST_CHILD) + " out 'Instance stopped'");
    EXPECT_LOGGED(LM_INFO, "Instance stopped\n");
    EXPECT_LOGGED(LM_INFO, "a note\n");
    expect_no_children();
}

TEST(subprocess_call, a_failing_tool_is_told_with_its_last_words) {
    Child_Options options("err 'no such instance' exit 7");
    EXPECT_EQ(7, subprocess::call(options));
    EXPECT_LOGGED(LM_WARNING,
                  "exited with status 7, the last lines of its stderr:\nno such instance\n");
}

TEST(subprocess_call, a_tool_that_was_ended_or_not_started_is_minus_1) {
    Child_Options crashing("signal 11");
    EXPECT_EQ(-1, subprocess::call(crashing));
    EXPECT_LOGGED(LM_ERROR, "was ended by signal 11");
    ACE_Process_Options missing;
    ASSERT_TRUE(set_command_line(missing, "/no/such/program"));
    EXPECT_EQ(-1, subprocess::call(missing));
    EXPECT_LOGGED(LM_ERROR, "Failed to start /no/such/program");
}

TEST(subprocess_call, all_lines_reach_the_callback) {
    struct Callback : ACE_Log_Msg_Callback {
        void log(ACE_Log_Record& record) override { text += record.msg_data(); }
        std::string text;
    };
    auto const callback = std::make_shared<Callback>();
    Child_Options options("out line err error");
    EXPECT_EQ(0, subprocess::call(options, callback));
    EXPECT_NE(std::string::npos, callback->text.find("\nline\n"));
    EXPECT_NE(std::string::npos, callback->text.find("\nerror\n"));
    EXPECT_EQ(nullptr, ACE_LOG_MSG->msg_callback());
}

TEST(subprocess_spawn_output, gathers_stdout_byte_by_byte) {
    Child_Options options("out one raw out 00ff0a err 'a note' raw out 656e64");
    std::string output = "old";
    EXPECT_EQ(0, subprocess::spawn_output(options, output, false));
    EXPECT_EQ(std::string("one\n\0\xFF\nend", 10), output);
    EXPECT_LOGGED(LM_INFO, "a note\n");
    EXPECT_NOT_LOGGED("end\n");
}

TEST(subprocess_spawn_output, with_stderr_both_come_in_their_order) {
    Child_Options options("out 1 err 2 out 3 exit 4");
    std::string output;
    EXPECT_EQ(4, subprocess::spawn_output(options, output, true));
    EXPECT_EQ("1\n2\n3\n", output);
    EXPECT_LOGGED(LM_WARNING, "exited with status 4");
}

TEST(subprocess_spawn_output, a_silent_tool_gives_an_empty_output) {
    Child_Options options("exit 0");
    std::string output = "old";
    EXPECT_EQ(0, subprocess::spawn_output(options, output, true));
    EXPECT_EQ("", output);
}

TEST(subprocess_spawn_output, a_tool_that_is_not_started_gives_none) {
    ACE_Process_Options options;
    ASSERT_TRUE(set_command_line(options, "/no/such/program"));
    std::string output = "old";
    EXPECT_EQ(-1, subprocess::spawn_output(options, output, true));
    EXPECT_EQ("", output);
    EXPECT_LOGGED(LM_ERROR, "Failed to start /no/such/program");
}

TEST(subprocess_spawn_output, an_output_of_the_limit_is_taken) {
    Child_Options options("blob out " + std::to_string(subprocess::MAX_OUTPUT));
    std::string output;
    EXPECT_EQ(0, subprocess::spawn_output(options, output, true));
    EXPECT_EQ(subprocess::MAX_OUTPUT, output.size());
}

TEST(subprocess_spawn_output, a_longer_one_is_a_failure_and_takes_no_more_memory) {
    Child_Options options("blob out " + std::to_string(subprocess::MAX_OUTPUT + 50000000));
    std::string output;
    EXPECT_EQ(-1, subprocess::spawn_output(options, output, true));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ(subprocess::MAX_OUTPUT, output.size());
    EXPECT_LOGGED(LM_ERROR, "it has printed more than 67108864 bytes (limits.tool_output)");
    EXPECT_LOGGED(LM_ERROR, "it is longer than 67108864 bytes");
    expect_no_children();
}

} // namespace
