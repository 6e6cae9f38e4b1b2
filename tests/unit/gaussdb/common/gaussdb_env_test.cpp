#include "gaussdb/common/gaussdb_env.h"

#include "json_spirit/access.h"
#include "qmrt/environment.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temporary_directory.h"

#include <ace/Process.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

class GaussDB_Env_Test : public testing::Test {
protected:
    /** Reads a profile of these lines into env_. */
    bool read(std::string const& text) { return env_.read(files_.write("profile", text).c_str()); }
    bool init(std::string const& text) { return env_.init(files_.write("profile", text).c_str()); }
    std::string value(char const* key) { return env_.get_value(key); }

    Temporary_Directory files_;
    GaussDB_Env env_;
    Scoped_Env path_{"PATH", "/bin"};
    Scoped_Env bin_path_{"GAUSSDB_BIN_PATH", nullptr};
    Scoped_Env lib_path_{"GAUSSDB_LD_LIBRARY_PATH", nullptr};
};

TEST_F(GaussDB_Env_Test, init_wants_a_profile) {
    EXPECT_FALSE(env_.init(nullptr));
    EXPECT_CHECK_LOGGED("profile is NULL or \"\"");
    EXPECT_FALSE(env_.init(""));
    EXPECT_CHECK_LOGGED("profile is NULL or \"\"");
    EXPECT_TRUE(env_.get_env().empty());
}

TEST_F(GaussDB_Env_Test, init_without_any_path_enters_none) {
    Scoped_Env const path("PATH", nullptr);
    EXPECT_TRUE(init(""));
    EXPECT_EQ(0u, env_.get_env().count("PATH"));
    EXPECT_EQ(1u, env_.get_env().count("LD_LIBRARY_PATH"));
}

TEST_F(GaussDB_Env_Test, init_with_an_empty_path_enters_none) {
    Scoped_Env const path("PATH", "");
    EXPECT_TRUE(init(""));
    EXPECT_EQ(0u, env_.get_env().count("PATH"));
}

TEST_F(GaussDB_Env_Test, init_with_the_agents_path_alone) {
    EXPECT_TRUE(init(""));
    EXPECT_EQ("/bin", value("PATH"));
}

TEST_F(GaussDB_Env_Test, init_with_the_databases_path_alone) {
    Scoped_Env const path("PATH", nullptr);
    Scoped_Env const bin_path("GAUSSDB_BIN_PATH", "/x");
    EXPECT_TRUE(init(""));
    EXPECT_EQ("/x", value("PATH"));
}

TEST_F(GaussDB_Env_Test, init_puts_the_databases_path_first) {
    Scoped_Env const bin_path("GAUSSDB_BIN_PATH", "/x");
    EXPECT_TRUE(init(""));
    EXPECT_EQ("/x:/bin", value("PATH"));
}

TEST_F(GaussDB_Env_Test, init_takes_the_library_path_the_process_was_started_with) {
    Scoped_Env const current("LD_LIBRARY_PATH", "/agents/own/lib");
    EXPECT_TRUE(init(""));
    EXPECT_EQ(original_lib_path(), value("LD_LIBRARY_PATH"));
    EXPECT_NE("/agents/own/lib", value("LD_LIBRARY_PATH"));
}

TEST_F(GaussDB_Env_Test, init_puts_the_databases_library_path_first) {
    Scoped_Env const lib_path("GAUSSDB_LD_LIBRARY_PATH", "/l");
    EXPECT_TRUE(init(""));
    EXPECT_EQ("/l:" + original_lib_path(), value("LD_LIBRARY_PATH"));
}

TEST_F(GaussDB_Env_Test, an_unreadable_profile_leaves_what_init_entered) {
    EXPECT_FALSE(env_.init(files_.path("missing").c_str()));
    EXPECT_LOGGED(LM_ERROR, "Failed to open " + files_.path("missing") +
                                ", errno=2, No such file or directory\n");
    EXPECT_EQ("/bin", value("PATH"));
}

TEST_F(GaussDB_Env_Test, a_profile_finds_the_path_of_init_and_earlier_lines) {
    Scoped_Env const bin_path("GAUSSDB_BIN_PATH", "/x");
    EXPECT_TRUE(init("export GPHOME=/g\nexport PATH=$GPHOME/bin:$PATH\n"));
    EXPECT_EQ("/g/bin:/x:/bin", value("PATH"));
}

TEST_F(GaussDB_Env_Test, a_line_that_refers_to_a_later_line_is_dropped) {
    Scoped_Env const bin_path("GAUSSDB_BIN_PATH", "/x");
    EXPECT_TRUE(init("export PATH=$GPHOME/bin:$PATH\nexport GPHOME=/g\n"));
    EXPECT_EQ("/x:/bin", value("PATH"));
}

TEST_F(GaussDB_Env_Test, a_line_that_refers_to_nothing_is_dropped_without_a_word) {
    EXPECT_TRUE(init("export PATH=$GPHOME/bin:$PATH\n"));
    EXPECT_EQ("/bin", value("PATH"));
}

TEST_F(GaussDB_Env_Test, several_blanks_behind_export) {
    EXPECT_TRUE(read("export GAUSSHOME=/h\nexport LD_LIBRARY_PATH=\n"
                     "export  LD_LIBRARY_PATH=$GAUSSHOME/lib:$LD_LIBRARY_PATH\n"));
    EXPECT_EQ("/h/lib:", value("LD_LIBRARY_PATH"));
}

TEST_F(GaussDB_Env_Test, other_lines_are_passed_over) {
    EXPECT_TRUE(read("  export A=1\n#export A=1\nA=1\nalias A=1\nif true; then\nexport A\n\n"));
    EXPECT_TRUE(env_.get_env().empty());
}

TEST_F(GaussDB_Env_Test, quotes_blanks_and_comments_stay_in_the_value) {
    EXPECT_TRUE(read("export A=\"x y\"\nexport B=b  # why\nexport C='c'\r\n"));
    EXPECT_EQ("\"x y\"", value("A"));
    EXPECT_EQ("b  # why", value("B"));
    EXPECT_EQ("'c'\r", value("C"));
}

TEST_F(GaussDB_Env_Test, a_name_in_braces_is_no_reference) {
    EXPECT_TRUE(read("export B=b\nexport A=${B}\n"));
    EXPECT_EQ("${B}", value("A"));
}

TEST_F(GaussDB_Env_Test, the_name_runs_to_the_last_equals_sign) {
    EXPECT_TRUE(read("export A=b=c\n"));
    EXPECT_EQ("c", value("A=b"));
    EXPECT_EQ("", value("A"));
}

TEST_F(GaussDB_Env_Test, digits_end_a_reference) {
    EXPECT_TRUE(read("export HOME=/h\nexport A=$HOME2\n"));
    EXPECT_EQ("/h2", value("A"));
}

TEST_F(GaussDB_Env_Test, the_punctuation_between_the_alphabets_belongs_to_a_name) {
    EXPECT_TRUE(read("export A=a\nexport B=$A^x\nexport C=$A[0]\nexport D=$A_x\n"));
    EXPECT_EQ(0u, env_.get_env().count("B"));
    EXPECT_EQ(0u, env_.get_env().count("C"));
    EXPECT_EQ(0u, env_.get_env().count("D"));
}

TEST_F(GaussDB_Env_Test, replacement_is_plain_text_and_hits_longer_names) {
    EXPECT_TRUE(read("export GAUSS=/g\nexport GAUSSHOME=/home\nexport A=$GAUSS:$GAUSSHOME\n"));
    EXPECT_EQ("/g:/gHOME", value("A"));
}

TEST_F(GaussDB_Env_Test, text_brought_in_is_not_searched_again) {
    env_.set_env("A", "$B");
    env_.set_env("B", "b");
    EXPECT_TRUE(read("export C=$A\n"));
    EXPECT_EQ("$B", value("C"));
}

TEST_F(GaussDB_Env_Test, text_brought_in_is_replaced_when_an_equal_reference_still_waits) {
    env_.set_env("A", "$B");
    env_.set_env("B", "b");
    EXPECT_TRUE(read("export C=$A:$B\n"));
    EXPECT_EQ("b:b", value("C"));
}

TEST_F(GaussDB_Env_Test, the_agents_environment_is_not_consulted) {
    Scoped_Env const home("HOME", "/root");
    EXPECT_TRUE(read("export A=$HOME\n"));
    EXPECT_EQ(0u, env_.get_env().count("A"));
}

TEST_F(GaussDB_Env_Test, a_dropped_line_leaves_the_earlier_entry) {
    EXPECT_TRUE(read("export A=1\nexport A=$NONE\n"));
    EXPECT_EQ("1", value("A"));
    EXPECT_TRUE(read("export A=2\n"));
    EXPECT_EQ("2", value("A"));
}

TEST_F(GaussDB_Env_Test, an_empty_file_is_a_success) {
    EXPECT_TRUE(read(""));
    EXPECT_TRUE(env_.get_env().empty());
}

TEST_F(GaussDB_Env_Test, a_last_line_without_a_line_break_counts) {
    EXPECT_TRUE(read("export A=1"));
    EXPECT_EQ("1", value("A"));
}

TEST_F(GaussDB_Env_Test, a_directory_is_no_profile) {
    EXPECT_FALSE(env_.read(files_.path().c_str()));
    EXPECT_LOGGED(LM_ERROR, "Failed to open " + files_.path() + ", errno=21, Is a directory\n");
}

TEST_F(GaussDB_Env_Test, a_fifo_is_no_profile) {
    ASSERT_EQ(0, mkfifo(files_.path("fifo").c_str(), 0600));
    EXPECT_FALSE(env_.read(files_.path("fifo").c_str()));
    EXPECT_LOGGED(LM_ERROR, "Failed to open " + files_.path("fifo"));
}

TEST_F(GaussDB_Env_Test, a_binary_profile_is_read_to_its_end) {
    std::string text;
    for (int byte = 0; byte < 256; ++byte)
        text += static_cast<char>(byte);
    EXPECT_TRUE(read(text + "\nexport A=\xFF\x01\nexport B=1\n"));
    EXPECT_EQ("\xFF\x01", value("A"));
    EXPECT_EQ("1", value("B"));
}

TEST_F(GaussDB_Env_Test, a_profile_of_50_MB_is_read_to_its_end) {
    std::string text;
    while (text.size() < 50u * 1024 * 1024)
        text += "export SOME_VARIABLE=some value that repeats itself over and over again\n# x\n";
    EXPECT_TRUE(read(text + "export LAST=1\n"));
    EXPECT_EQ("1", value("LAST"));
}

TEST_F(GaussDB_Env_Test, values_that_double_themselves_stay_bounded) {
    std::string text = "export A=aaaaaaaaaaaaaaaa\n";
    for (int line = 0; line < 64; ++line)
        text += "export A=$A$A\n";
    EXPECT_TRUE(read(text));
    EXPECT_EQ(128u * 1024, value("A").size());
    EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_WARNING, "longer than an environment"));
}

TEST_F(GaussDB_Env_Test, a_line_of_blanks_that_costs_too_much_to_match_is_passed_over) {
    EXPECT_TRUE(read("export" + std::string(1000000, ' ') + "\nexport B=1\n"));
    EXPECT_EQ("1", value("B"));
    Log_Capture::instance().claim_all(LM_WARNING, "Failed to match a line");
}

TEST_F(GaussDB_Env_Test, set_env_from_json_takes_plain_strings_only) {
    json_spirit::Object const object = json_spirit::Object_Maker()("A", "1")("B", 2)("C", true)(
        "D", secure_string("x"))("E", json_spirit::Array());
    env_.set_env(object);
    EXPECT_EQ((GaussDB_Env::map_type{{"A", "1"}}), env_.get_env());
}

TEST_F(GaussDB_Env_Test, an_absent_key_is_the_empty_text) {
    EXPECT_STREQ("", env_.get_value("GPHOME"));
    EXPECT_STREQ("", env_.gp_home());
    EXPECT_STREQ("", env_.gauss_home());
    EXPECT_STREQ("", env_.roach_home());
}

TEST_F(GaussDB_Env_Test, homes) {
    env_.set_env("GAUSSHOME", "/a");
    env_.set_env("ROACH_HOME", "/r");
    env_.set_env("GPHOME", "/g");
    EXPECT_STREQ("/a", env_.gauss_home());
    EXPECT_STREQ("/r", env_.roach_home());
    EXPECT_STREQ("/g", env_.gp_home());
}

TEST_F(GaussDB_Env_Test, prepend_uses_the_agents_value_and_throws_the_entry_away) {
    Scoped_Env const lib("LD_LIBRARY_PATH", "/agent/lib");
    env_.set_env("PATH", "/profile");
    env_.set_env("LD_LIBRARY_PATH", "/profile");
    env_.prepend_bin_path("/opt/db");
    env_.prepend_ld_library_path("/opt/db");
    EXPECT_EQ("/opt/db/bin:/bin", value("PATH"));
    EXPECT_EQ("/opt/db/lib:/agent/lib", value("LD_LIBRARY_PATH"));
}

TEST_F(GaussDB_Env_Test, prepend_without_an_agents_value_changes_nothing) {
    Scoped_Env const path("PATH", nullptr);
    Scoped_Env const lib("LD_LIBRARY_PATH", "");
    env_.set_env("PATH", "/profile");
    env_.prepend_bin_path("/opt/db");
    env_.prepend_ld_library_path("/opt/db");
    EXPECT_EQ((GaussDB_Env::map_type{{"PATH", "/profile"}}), env_.get_env());
}

TEST_F(GaussDB_Env_Test, set_opts_hands_on_every_entry_as_it_is) {
    env_.set_env("A", "100% of %s");
    env_.set_env("B", std::string(5000, 'x'));
    ACE_Process_Options opts;
    env_.set_opts(opts);
    std::vector<std::string> handed;
    for (char* const* entry = opts.env_argv(); *entry; ++entry)
        handed.push_back(*entry);
    EXPECT_EQ((std::vector<std::string>{"A=100% of %s", "B=" + std::string(5000, 'x')}), handed);
}

TEST_F(GaussDB_Env_Test, set_opts_says_what_does_not_fit) {
    env_.set_env("A", std::string(20000, 'x'));
    ACE_Process_Options opts;
    env_.set_opts(opts);
    EXPECT_LOGGED(LM_WARNING, "Environment variable A does not fit");
}

} // namespace
