#include "host/process/process_options.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

struct Options : ACE_Process_Options {
    explicit Options(size_t command_line = 1024, size_t environment = 16384, size_t variables = 512)
        : ACE_Process_Options(true, command_line, environment, variables, 128) {}
    std::string line() { return command_line_buf(); }
};

TEST(set_command_line, formats_the_line) {
    Options options;
    EXPECT_TRUE(set_command_line(options, "gsql -p %d -c \"%s\"", 25308, "select 100%"));
    EXPECT_EQ("gsql -p 25308 -c \"select 100%\"", options.line());
    EXPECT_EQ(nullptr, refusal_of(options));
}

TEST(set_command_line, the_longest_line_leaves_one_byte_of_the_buffer) {
    Options options(64);
    EXPECT_TRUE(set_command_line(options, "%s", std::string(62, 'x').c_str()));
    EXPECT_EQ(std::string(62, 'x'), options.line());
}

TEST(set_command_line, a_longer_line_leaves_it_empty_and_says_so) {
    for (size_t const length : {63, 64, 65, 5000}) {
        Options options(64);
        ASSERT_TRUE(set_command_line(options, "true"));
        EXPECT_FALSE(set_command_line(options, "%s", std::string(length, 'x').c_str()));
        EXPECT_EQ("", options.line());
        EXPECT_EQ(E2BIG, errno);
        EXPECT_LOGGED(LM_ERROR, "Failed to set a command line of " + std::to_string(length) +
                                    " bytes, the buffer is for 62");
    }
}

TEST(set_command_line, options_without_a_buffer_take_no_line) {
    Options options(0);
    EXPECT_FALSE(set_command_line(options, "%s", "true"));
    EXPECT_LOGGED(LM_ERROR, "the buffer is for 0");
}

TEST(set_process_user, takes_all_four_ids_of_the_user) {
    Options options;
    EXPECT_TRUE(set_process_user(options, "root"));
    EXPECT_EQ(0u, options.getruid());
    EXPECT_EQ(0u, options.geteuid());
    EXPECT_EQ(0u, options.getrgid());
    EXPECT_EQ(0u, options.getegid());
}

TEST(set_process_user, an_unknown_user_is_an_error_and_the_options_are_refused) {
    Options options;
    EXPECT_FALSE(set_process_user(options, "no-such-user"));
    EXPECT_LOGGED(LM_ERROR, "Failed to look up the user no-such-user, errno=2, ");
    EXPECT_STREQ("its user is not known", refusal_of(options));
}

TEST(set_process_user, options_stay_refused_when_the_line_is_set_after_it) {
    Options options;
    EXPECT_FALSE(set_process_user(options, "no-such-user"));
    EXPECT_LOGGED(LM_ERROR, "no-such-user");
    EXPECT_TRUE(set_command_line(options, "true"));
    EXPECT_TRUE(set_process_env(options, "LC_ALL", "C"));
    EXPECT_STREQ("its user is not known", refusal_of(options));
}

TEST(set_process_user, a_known_user_afterwards_makes_them_good_again) {
    Options options;
    EXPECT_FALSE(set_process_user(options, "no-such-user"));
    EXPECT_LOGGED(LM_ERROR, "no-such-user");
    EXPECT_TRUE(set_process_user(options, "root"));
    EXPECT_EQ(nullptr, refusal_of(options));
}

TEST(set_process_user, no_name_is_an_error_too) {
    for (char const* const user : {static_cast<char const*>(nullptr), ""}) {
        Options options;
        EXPECT_FALSE(set_process_user(options, user));
        EXPECT_CHECK_LOGGED("user is NULL or \"\"");
        EXPECT_STREQ("its user is not known", refusal_of(options));
    }
}

TEST(set_process_env, takes_any_text_as_it_stands) {
    Options options;
    EXPECT_TRUE(set_process_env(options, "PATH", "/a b:%s%n:'\"$HOME"));
    EXPECT_TRUE(set_process_env(options, "EMPTY", ""));
    EXPECT_STREQ("PATH=/a b:%s%n:'\"$HOME", options.env_argv()[0]);
    EXPECT_STREQ("EMPTY=", options.env_argv()[1]);
    EXPECT_EQ(nullptr, options.env_argv()[2]);
}

TEST(set_process_env, loses_nothing_of_an_entry_of_any_length) {
    for (size_t length = 1000; length < 1050; ++length) {
        Options options;
        std::string const value(length, 'x');
        EXPECT_TRUE(set_process_env(options, "PATH", value.c_str()));
        EXPECT_EQ("PATH=" + value, options.env_argv()[0]);
    }
}

TEST(set_process_env, what_does_not_fit_is_an_error_and_the_options_are_refused) {
    Options options(1024, 64);
    EXPECT_TRUE(set_process_env(options, "A", "1"));
    EXPECT_FALSE(set_process_env(options, "B", std::string(100, 'x').c_str()));
    EXPECT_LOGGED(LM_ERROR, "Failed to set the environment variable B, there is no room left");
    EXPECT_TRUE(set_process_env(options, "C", "1"));
    EXPECT_STREQ("its environment is not complete", refusal_of(options));
}

TEST(set_process_env, one_variable_too_many_is_an_error) {
    Options options(1024, 16384, 3);
    EXPECT_TRUE(set_process_env(options, "A", "1"));
    EXPECT_TRUE(set_process_env(options, "B", "1"));
    EXPECT_FALSE(set_process_env(options, "C", "1"));
    EXPECT_LOGGED(LM_ERROR, "variable C, there is no room left");
}

TEST(set_process_env, a_name_that_is_none_is_an_error) {
    Options options;
    EXPECT_FALSE(set_process_env(options, "A=B", "1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to set the environment variable A=B, its name has a \"=\"");
    EXPECT_STREQ("its environment is not complete", refusal_of(options));
    EXPECT_FALSE(set_process_env(options, "", "1"));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_FALSE(set_process_env(options, nullptr, "1"));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_FALSE(set_process_env(options, "A", nullptr));
    EXPECT_CHECK_LOGGED("value is NULL");
    EXPECT_EQ(nullptr, options.env_argv()[0]);
}

TEST(set_foreign_env, takes_any_text_as_it_stands) {
    Options options;
    EXPECT_TRUE(set_foreign_env(options, "%s%n", "%s%n"));
    EXPECT_TRUE(set_foreign_env(options, "A=B", "c"));
    EXPECT_STREQ("%s%n=%s%n", options.env_argv()[0]);
    EXPECT_STREQ("A=B=c", options.env_argv()[1]);
}

TEST(set_foreign_env, what_is_none_or_does_not_fit_is_an_error) {
    Options options(1024, 64);
    EXPECT_FALSE(set_foreign_env(options, "", "1"));
    EXPECT_CHECK_LOGGED("name is empty");
    EXPECT_STREQ("its environment is not complete", refusal_of(options));
    Options full(1024, 64);
    EXPECT_FALSE(set_foreign_env(full, "B", std::string(100, 'x').c_str()));
    EXPECT_LOGGED(LM_ERROR, "variable B, there is no room left for its 102 bytes");
    EXPECT_STREQ("its environment is not complete", refusal_of(full));
}

TEST(set_foreign_env, a_child_with_such_a_variable_never_runs_as_root) {
    Options options;
    EXPECT_TRUE(set_foreign_env(options, "HARMLESS", "1"));
    EXPECT_EQ(geteuid() == 0, refusal_of(options) != nullptr);
    EXPECT_TRUE(set_process_user(options, "root"));
    EXPECT_STREQ("it would run as root in an environment that another user decides",
                 refusal_of(options));
    EXPECT_TRUE(set_process_user(options, "nobody"));
    EXPECT_EQ(nullptr, refusal_of(options));
}

} // namespace
