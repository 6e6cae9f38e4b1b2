#include "tests/support/scripted_tools.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

/** Runs a shell command with the tools on its PATH; its output and exit status. */
std::pair<std::string, int> run(Scripted_Tools const& tools, std::string const& command) {
    std::string const whole = "PATH=" + tools.path() + ":$PATH; { " + command + "; } 2>&1";
    FILE* const pipe = popen(whole.c_str(), "r");
    std::string output;
    char buffer[4096];
    while (size_t const count = fread(buffer, 1, sizeof buffer, pipe))
        output.append(buffer, count);
    int const status = pclose(pipe);
    return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status)};
}

TEST(Scripted_Tools, a_call_is_recorded_as_the_tool_saw_it) {
    Scripted_Tools tools;
    tools.script("gsql", "read\nout a row\nexit 3");
    EXPECT_EQ((std::pair<std::string, int>("a row\n", 3)),
              run(tools, "cd /tmp && printf 'pw\\n' | X=y gsql -c 'select 1' ''"));
    Tool_Call const call = tools.call("gsql");
    EXPECT_EQ((std::vector<std::string>{"gsql", "-c", "select 1", ""}), call.args);
    EXPECT_EQ("[gsql][-c][select 1][]", call.text());
    EXPECT_EQ("pw\n", call.input);
    EXPECT_EQ("y", call.env.at("X"));
    EXPECT_EQ("/tmp", call.directory);
    EXPECT_EQ(geteuid(), call.uid);
}

TEST(Scripted_Tools, successive_calls_take_successive_parts_and_the_last_serves_the_rest) {
    Scripted_Tools tools;
    tools.script("t", "out 1\n---\nout 2\nexit 4");
    EXPECT_EQ("1\n", run(tools, "t").first);
    EXPECT_EQ("2\n", run(tools, "t").first);
    EXPECT_EQ(4, run(tools, "t").second);
    EXPECT_EQ(3u, tools.calls("t"));
    EXPECT_EQ(0u, tools.calls("other"));
    EXPECT_THROW(tools.call("t", 4), std::out_of_range);
}

TEST(Scripted_Tools, bytes_streams_and_ends) {
    Scripted_Tools tools;
    tools.script("t", "outraw \\e[2K\\0x\\\\\nerr e\nrepeat 3 ab\\n\nsignal 9");
    EXPECT_EQ(std::string("\033[2K\0x\\e\nab\nab\nab\n", 18), run(tools, "t").first.substr(0, 18));
    EXPECT_EQ(137, run(tools, "sh -c 't; exit $?'").second);
    tools.script("u", "close\nexit 5");
    EXPECT_EQ((std::pair<std::string, int>("", 5)), run(tools, "u"));
}

TEST(Scripted_Tools, a_given_text_is_printed_as_it_is) {
    Scripted_Tools tools;
    tools.prints("t", "a \\n b\r\n\n  c\n", 0);
    EXPECT_EQ("a \\n b\r\n\n  c\n", run(tools, "t").first);
}

TEST(Scripted_Tools, a_tool_can_be_held) {
    Scripted_Tools tools;
    tools.script("t", "wait\nout done");
    EXPECT_EQ("waiting\ndone\n",
              run(tools, "t & echo waiting; touch " + tools.path("t.go") + "; wait").first);
}

TEST(Scripted_Tools, a_step_that_is_not_known_is_a_failure) {
    Scripted_Tools tools;
    tools.script("t", "dance");
    EXPECT_EQ(125, run(tools, "t").second);
}

} // namespace
