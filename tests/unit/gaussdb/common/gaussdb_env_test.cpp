#include "gaussdb/common/gaussdb_env.h"

#include "host/process/process_options.h"
#include "json_spirit/access.h"
#include "qmrt/environment.h"
#include "tests/support/log_capture.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temporary_directory.h"

#include <ace/Process.h>

#include <chrono>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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

TEST_F(GaussDB_Env_Test, a_device_is_no_profile) {
    for (char const* path : {"/dev/urandom", "/dev/zero", "/dev/null", "/proc/self/environ"}) {
        EXPECT_FALSE(env_.read(path));
        EXPECT_LOGGED(LM_ERROR, "Failed to open " + std::string(path) + ", errno=22");
    }
}

TEST_F(GaussDB_Env_Test, a_link_counts_in_a_directory_of_root_alone) {
    files_.write("profile", "export A=1\n");
    ASSERT_EQ(0, symlink("profile", files_.path("link").c_str()));
    EXPECT_EQ(geteuid() == 0, env_.read(files_.path("link").c_str()));
    ASSERT_EQ(0, chmod(files_.path().c_str(), 01777));
    EXPECT_FALSE(env_.read(files_.path("link").c_str()));
    Log_Capture::instance().claim_all(LM_ERROR, "errno=40, Too many levels of symbolic links");
}

TEST_F(GaussDB_Env_Test, a_profile_of_more_than_1_MiB_is_refused) {
    std::string text = "export A=1\n";
    text.append(1024 * 1024 - text.size(), '#');
    EXPECT_TRUE(read(text));
    EXPECT_EQ("1", value("A"));
    EXPECT_FALSE(read(text + "#"));
    EXPECT_LOGGED(LM_ERROR, "Failed to open " + files_.path("profile") + ", errno=27");
}

TEST_F(GaussDB_Env_Test, values_that_double_themselves_stay_bounded) {
    std::string text = "export A=aaaaaaaaaaaaaaaa\n";
    for (int line = 0; line < 64; ++line)
        text += "export A=$A$A\n";
    EXPECT_TRUE(read(text));
    EXPECT_EQ(128u * 1024, value("A").size());
    EXPECT_LOGGED(LM_WARNING, "51 lines of " + files_.path("profile") +
                                  " are left out, the first is line 15, its value is longer than");
}

TEST_F(GaussDB_Env_Test, many_large_values_stay_bounded) {
    std::string text = "export A=" + std::string(100 * 1024, 'a') + "\n";
    for (int line = 0; line < 10000; ++line)
        text += "export V" + std::to_string(line) + "=$A\n";
    EXPECT_TRUE(read(text + "export LAST=1\n"));
    size_t total = 0;
    for (auto const& [name, value] : env_.get_env())
        total += name.size() + value.size();
    EXPECT_GE(1024u * 1024, total);
    EXPECT_EQ("1", value("LAST"));
    EXPECT_LOGGED(LM_WARNING, "the profile has more than an environment takes");
}

TEST_F(GaussDB_Env_Test, many_references_cost_no_time) {
    // 27 seconds when each of them looks through all that the others have brought in
    std::string text = "export A=" + std::string(1000, 'a') + "\nexport B=\nexport C=$A";
    for (int reference = 0; reference < 20000; ++reference)
        text += "$B";
    std::string const line = text.substr(text.rfind("export"));
    while (text.size() + line.size() < 1000 * 1000)
        text += "\n" + line;
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(read(text + "\nexport LAST=1\n"));
    EXPECT_GT(std::chrono::seconds(5), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ("1", value("LAST"));
    EXPECT_LOGGED(LM_WARNING, "the profile has too many references");
}

TEST_F(GaussDB_Env_Test, a_line_of_blanks_costs_no_time) {
    std::string text;
    for (int line = 0; line < 500; ++line)
        text += "export" + std::string(2000, ' ') + "\n";
    EXPECT_TRUE(read(text + "export B=1\n"));
    EXPECT_EQ("1", value("B"));
}

TEST_F(GaussDB_Env_Test, a_line_without_a_name_or_with_a_NUL_costs_that_line_only) {
    EXPECT_TRUE(read("export A=1\nexport =x\nexport  =\nexport B=" + std::string("b\0c", 3) +
                     "\nexport N" + std::string("\0=c", 3) + "\nexport C=1\n"));
    EXPECT_EQ((GaussDB_Env::map_type{{"A", "1"}, {"C", "1"}}), env_.get_env());
    EXPECT_LOGGED(LM_WARNING, "4 lines of " + files_.path("profile") +
                                  " are left out, the first is line 2, it has no name");
}

TEST_F(GaussDB_Env_Test, a_line_longer_than_any_variable_costs_that_line_only) {
    EXPECT_TRUE(read("export A=" + std::string(128 * 1024, 'x') + "\nexport B=1\n"));
    EXPECT_EQ((GaussDB_Env::map_type{{"B", "1"}}), env_.get_env());
    EXPECT_LOGGED(LM_WARNING, "1 lines of ");
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
    // "%s%s" ended the process, "%n" aborted it
    env_.set_env("LESSOPEN=\"|/usr/bin/lesspipe %s%s%n\"; export LESS", "-R");
    ACE_Process_Options opts;
    EXPECT_TRUE(env_.set_opts(opts));
    std::vector<std::string> handed;
    for (char* const* entry = opts.env_argv(); *entry; ++entry)
        handed.push_back(*entry);
    EXPECT_EQ((std::vector<std::string>{"A=100% of %s", "B=" + std::string(5000, 'x'),
                                        "LESSOPEN=\"|/usr/bin/lesspipe %s%s%n\"; export LESS=-R"}),
              handed);
}

TEST_F(GaussDB_Env_Test, set_opts_loses_nothing_of_an_entry_of_any_length) {
    for (size_t size : {1023, 1024, 1025, 2047, 2048, 2049, 4096, 8192}) {
        GaussDB_Env env;
        std::string const value(size - 2, 'x');
        env.set_env("A", value);
        ACE_Process_Options opts;
        EXPECT_TRUE(env.set_opts(opts));
        EXPECT_EQ("A=" + value, opts.env_argv()[0]);
    }
}

TEST_F(GaussDB_Env_Test, an_entry_that_does_not_fit_stops_the_start) {
    env_.set_env("A", std::string(20000, 'x'));
    ACE_Process_Options opts;
    EXPECT_FALSE(env_.set_opts(opts));
    EXPECT_LOGGED(LM_ERROR, "Failed to set the environment variable A, there is no room left for");
    EXPECT_STREQ("its environment is not complete", refusal_of(opts));
}

TEST_F(GaussDB_Env_Test, nothing_runs_as_root_in_the_environment_of_a_profile) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can run as another user";
    env_.set_env("A", "1");
    ACE_Process_Options opts;
    EXPECT_TRUE(env_.set_opts(opts));
    EXPECT_STREQ("it would run as root in an environment that another user decides",
                 refusal_of(opts));
    EXPECT_TRUE(set_process_user(opts, "nobody"));
    EXPECT_EQ(nullptr, refusal_of(opts));
    EXPECT_TRUE(set_process_user(opts, "root"));
    EXPECT_NE(nullptr, refusal_of(opts));
}

} // namespace
