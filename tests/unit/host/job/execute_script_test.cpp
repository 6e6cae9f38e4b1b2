#include "host/job/execute_script.h"

#include "tests/support/log_capture.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temporary_directory.h"

#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <vector>

namespace {

class Collector : public ACE_Log_Msg_Callback {
public:
    void log(ACE_Log_Record& record) override {
        std::lock_guard const guard(mutex_);
        lines_ += record.msg_data();
    }
    bool has(std::string const& text) const {
        std::lock_guard const guard(mutex_);
        return lines_.find(text) != std::string::npos;
    }

private:
    mutable std::mutex mutex_;
    std::string lines_;
};

class Execute_Script_Test : public testing::Test {
protected:
    /** Runs a script, with the directory for its files as $D. */
    bool run(std::string const& script, bool strict = false) {
        Scoped_Env const directory("D", out_.path().c_str());
        Scoped_Env const temporary("TMPDIR", temporary_.path().c_str());
        return execute_script(script, strict, collector_);
    }
    /** The runner has told how a script ended. */
    static void expect_told(std::string const& end) {
        Log_Capture& log = Log_Capture::instance();
        EXPECT_TRUE(log.claim(LM_WARNING, end) || log.claim(LM_ERROR, end)) << log.dump();
    }
    void expect_no_script_left() { EXPECT_TRUE(std::filesystem::is_empty(temporary_.path())); }

    Temporary_Directory out_;
    Temporary_Directory temporary_;
    std::shared_ptr<Collector> const collector_ = std::make_shared<Collector>();
};

TEST_F(Execute_Script_Test, an_empty_script_is_a_success_and_starts_nothing) {
    EXPECT_TRUE(execute_script("", false, nullptr));
    EXPECT_EQ("", Log_Capture::instance().dump());
}

TEST_F(Execute_Script_Test, the_exit_status_decides) {
    EXPECT_TRUE(run("exit 0"));
    EXPECT_FALSE(run("exit 3"));
    expect_told("status 3");
    expect_no_script_left();
}

TEST_F(Execute_Script_Test, a_script_is_shell_text) {
    EXPECT_TRUE(
        run("x=1\nfor i in a b; do\n  echo \"$i'$x\" | tr a-z A-Z >>\"$D/out\"\ndone # end"));
    EXPECT_EQ("A'1\nB'1\n", out_.read("out"));
}

TEST_F(Execute_Script_Test, every_kind_of_character_gets_there) {
    EXPECT_TRUE(run("printf '%s' 'a\"b$c`d\\e%s *\xc3\xa9' >\"$D/out\""));
    EXPECT_EQ("a\"b$c`d\\e%s *\xc3\xa9", out_.read("out"));
}

TEST_F(Execute_Script_Test, what_it_prints_reaches_the_callback) {
    EXPECT_TRUE(run("echo to stdout; echo to stderr >&2"));
    EXPECT_TRUE(collector_->has("to stdout"));
    EXPECT_TRUE(collector_->has("to stderr"));
}

TEST_F(Execute_Script_Test, without_a_callback_the_lines_are_logged) {
    EXPECT_TRUE(execute_script("echo hello", false, nullptr));
    EXPECT_LOGGED(LM_INFO, "hello");
}

TEST_F(Execute_Script_Test, the_script_itself_is_not_logged) {
    EXPECT_TRUE(run(": PGPASSWORD=secret"));
    EXPECT_NOT_LOGGED("secret");
    EXPECT_FALSE(collector_->has("secret"));
}

TEST_F(Execute_Script_Test, the_script_is_not_on_a_command_line_and_only_its_user_reads_it) {
    EXPECT_TRUE(run(": secret\ntr '\\0' ' ' </proc/$$/cmdline >\"$D/line\"\n"
                    "stat -c %a \"$0\" >\"$D/mode\""));
    EXPECT_EQ(std::string::npos, out_.read("line").find("secret"));
    EXPECT_EQ("600\n", out_.read("mode"));
    expect_no_script_left();
}

TEST_F(Execute_Script_Test, it_has_the_agents_environment_and_the_C_locale) {
    Scoped_Env const variable("ZENBRAK3_TEST_VARIABLE", "a b");
    Scoped_Env const locale("LC_ALL", "de_DE.UTF-8");
    EXPECT_TRUE(run("printf '%s|%s' \"$ZENBRAK3_TEST_VARIABLE\" \"$LC_ALL\" >\"$D/out\""));
    EXPECT_EQ("a b|C", out_.read("out"));
}

TEST_F(Execute_Script_Test, it_goes_on_after_a_command_that_fails_unless_it_is_strict) {
    EXPECT_TRUE(run("false; true"));
    EXPECT_FALSE(run("false; true", true));
    expect_told("status 1");
}

TEST_F(Execute_Script_Test, a_script_that_dies_of_a_signal_has_failed) {
    EXPECT_FALSE(run("kill -9 $$"));
    expect_told("signal 9");
    expect_no_script_left();
}

TEST_F(Execute_Script_Test, text_that_is_no_shell_has_failed) {
    EXPECT_FALSE(run("if"));
    expect_told("status 2");
    EXPECT_FALSE(run("no-such-command-anywhere"));
    expect_told("status 127");
}

TEST_F(Execute_Script_Test, a_script_may_be_longer_than_a_command_line) {
    std::string script(500000, '#');
    script += "\necho end >\"$D/out\"";
    EXPECT_TRUE(run(script));
    EXPECT_EQ("end\n", out_.read("out"));
}

TEST_F(Execute_Script_Test, a_script_with_a_NUL_is_not_run) {
    EXPECT_FALSE(run(std::string("echo x >\"$D/out\"\n\0exit 0", 24)));
    EXPECT_LOGGED(LM_ERROR, "A job's script has a NUL in it and cannot be run\n");
    EXPECT_FALSE(out_.exists("out"));
}

TEST_F(Execute_Script_Test, a_temporary_directory_with_blanks_and_quotes_will_do) {
    std::filesystem::create_directory(temporary_.path("a 'b\""));
    Scoped_Env const temporary("TMPDIR", temporary_.path("a 'b\"").c_str());
    EXPECT_TRUE(execute_script("exit 0", false, nullptr));
}

TEST_F(Execute_Script_Test, a_script_that_cannot_be_written_is_not_run) {
    Scoped_Env const temporary("TMPDIR", "/nonexistent");
    EXPECT_FALSE(execute_script("exit 0", false, nullptr));
    EXPECT_LOGGED(LM_ERROR, "Failed to write a job's script to a file, errno=2,");
}

TEST_F(Execute_Script_Test, scripts_of_several_jobs_run_at_once) {
    std::vector<std::thread> threads;
    std::vector<char> results(4);
    for (char& result : results)
        threads.emplace_back([&result] { result = execute_script("exit 0", false, nullptr); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(std::vector<char>(4, true), results);
}

} // namespace
