// The manual page and the shell's completion of the command, against the command itself.
#include "tests/support/log_capture.h"
#include "tests/support/program_run.h"
#include "tests/support/scripted_agent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::vector<std::string> lines_of(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

/** What a program prints; its stderr must stay empty. */
std::string output_of(std::vector<std::string> const& args,
                      std::map<std::string, std::string> const& env = {}) {
    Program_Run::Setting setting;
    setting.env = {{"PATH", "/usr/bin:/bin"}, {"LANG", "C.UTF-8"}, {"MANWIDTH", "200"}};
    setting.env.insert(env.begin(), env.end());
    Program_Run program(args, setting);
    EXPECT_EQ(0, program.wait()) << args.front();
    EXPECT_EQ("", program.err());
    return program.out();
}

std::vector<std::string> commands() {
    return lines_of(output_of({ZENBRAK3_COMMAND, "complete", "commands"}));
}

TEST(Manual, is_set_without_a_warning) {
    if (access("/usr/bin/man", X_OK) != 0)
        GTEST_SKIP() << "there is no man program on this machine";
    EXPECT_THAT(output_of({"/usr/bin/man", "--warnings", "-l", ZENBRAK3_MANUAL}),
                HasSubstr("protect GaussDB databases"));
}

TEST(Manual, has_every_command_and_every_option) {
    if (access("/usr/bin/man", X_OK) != 0)
        GTEST_SKIP() << "there is no man program on this machine";
    std::string const manual = output_of({"/usr/bin/man", "-P", "cat", "-l", ZENBRAK3_MANUAL});
    std::vector<std::string> const all = commands();
    EXPECT_GT(all.size(), 20u);
    for (std::string const& command : all) {
        EXPECT_THAT(manual, HasSubstr("\n       " + command)) << command;
        std::vector<std::string> words{ZENBRAK3_COMMAND};
        for (std::istringstream stream(command); stream >> words.emplace_back();) {
        }
        words.back() = "--help";
        std::istringstream help(output_of(words));
        for (std::string word; help >> word;) {
            std::string const option = word.substr(0, word.find_first_of(",="));
            if (option.starts_with("--") && option.size() > 2) {
                EXPECT_THAT(manual, HasSubstr(option)) << command;
            }
        }
    }
}

class Completion_Test : public testing::Test {
protected:
    Completion_Test() {
        agent_.on("instance.list",
                  Object{{"instances", Array{Object{{"name", "prod"}}, Object{{"name", "pro two"}},
                                             Object{{"name", "$(touch x)"}}}}});
        agent_.on("pool.list", Object{{"pools", Array{Object{{"name", "main"}}}}});
        agent_.on("job.list", Object{{"jobs", Array{Object{{"run_id", "0f3a"}}}}});
        agent_.on("backup.list", Object{{"backups", Array{Object{{"uuid", "6f96"}}}}});
        agent_.on("definition.list", Object{{"definitions", Array{Object{{"name", "nightly"}}}}});
        agent_.on("schedule.list", Object{{"schedules", Array{Object{{"name", "weekly"}}}}});
    }
    /** What is offered for the last of the words. */
    std::vector<std::string> complete(std::vector<std::string> const& words,
                                      std::string const& socket) {
        std::vector<std::string> args{
            "/bin/bash",
            "--norc",
            "-c",
            "source \"$1\"; shift; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _zenbrak3; "
            "((${#COMPREPLY[@]})) && printf '%s\\n' \"${COMPREPLY[@]}\" || true",
            "bash",
            ZENBRAK3_COMPLETION,
            ZENBRAK3_COMMAND};
        args.insert(args.end(), words.begin(), words.end());
        return lines_of(output_of(args, {{"ZENBRAK3_SOCKET", socket}}));
    }
    std::vector<std::string> complete(std::vector<std::string> const& words) {
        return complete(words, agent_.path());
    }

    Scripted_Agent agent_;
};

TEST_F(Completion_Test, commands_and_their_groups) {
    EXPECT_THAT(complete({"ba"}), ElementsAre("backup", "backups"));
    EXPECT_THAT(complete({"pool", ""}), ElementsAre("create", "update", "remove"));
    EXPECT_THAT(complete({"job", "c"}), ElementsAre("cancel"));
    EXPECT_EQ(23u, complete({""}).size());
}

TEST_F(Completion_Test, names_come_from_the_agent_and_are_quoted) {
    EXPECT_THAT(complete({"databases", "pro"}), UnorderedElementsAre("prod", "pro\\ two"));
    EXPECT_THAT(complete({"databases", "$"}), ElementsAre("\\$\\(touch\\ x\\)"));
    EXPECT_THAT(complete({"backup", "prod", "--pool", ""}), ElementsAre("main"));
    EXPECT_THAT(complete({"backup", "s"}), ElementsAre("show"));
    EXPECT_THAT(complete({"backup", "p"}), UnorderedElementsAre("prod", "pro\\ two"));
    EXPECT_THAT(complete({"backup", "show", ""}), ElementsAre("6f96"));
    EXPECT_THAT(complete({"backup", "remove", ""}), ElementsAre("6f96"));
    EXPECT_THAT(complete({"pool", "update", ""}), ElementsAre("main"));
    EXPECT_THAT(complete({"restore", "6"}), ElementsAre("6f96"));
    EXPECT_THAT(complete({"job", "log", "--follow", ""}), ElementsAre("0f3a"));
    EXPECT_THAT(complete({"definition", "start", "n"}), ElementsAre("nightly"));
    EXPECT_THAT(complete({"pool", "remove", ""}), ElementsAre("main"));
    EXPECT_THAT(complete({"schedule", "show", ""}), ElementsAre("weekly"));
    EXPECT_THAT(complete({"schedule", "list", "prod", ""}), IsEmpty());
    EXPECT_THAT(complete({"schedule", "add", "--incremental", "daily", "pro"}),
                UnorderedElementsAre("prod", "pro\\ two"));
    EXPECT_THAT(complete({"schedule", "update", "--full", "Sun 02:00", ""}), ElementsAre("weekly"));
    EXPECT_THAT(complete({"schedule", "update", "weekly", "--pool", ""}), ElementsAre("main"));
    EXPECT_THAT(complete({"schedule", "r"}), UnorderedElementsAre("resume", "remove", "run-now"));
    EXPECT_THAT(complete({"schemas", "prod", ""}), IsEmpty());
}

TEST_F(Completion_Test, a_socket_that_was_named_is_asked) {
    EXPECT_THAT(complete({"--socket", agent_.path(), "restore", ""}, "/no/such/socket"),
                ElementsAre("6f96"));
}

TEST_F(Completion_Test, options_are_those_of_the_command) {
    EXPECT_THAT(complete({"job", "log", "0f3a", "--f"}), ElementsAre("--follow"));
    EXPECT_THAT(complete({"pools", "--"}),
                UnorderedElementsAre("--help", "--watch", "--socket", "--json", "--columns",
                                     "--sort", "--filter", "--limit"));
    EXPECT_THAT(complete({"backup", "prod", "--level", "i"}), ElementsAre("incremental"));
}

TEST_F(Completion_Test, without_an_agent_there_is_nothing_and_no_noise) {
    EXPECT_THAT(complete({"databases", ""}, "/no/such/socket"), IsEmpty());
    EXPECT_THAT(complete({"ba"}, "/no/such/socket"), ElementsAre("backup", "backups"));
}

} // namespace
