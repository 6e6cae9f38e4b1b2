#include "gaussdb/common/gaussdb_config_reader.h"

#include "tests/support/database_tools.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_interpreters.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

class Generate_GaussDB_Config : public testing::Test {
protected:
    Generate_GaussDB_Config() : xml_(files_.path("cluster.xml")) {
        tools_.env().set_env("GPHOME", "/gp");
    }

    bool generate(bool use_python3 = true) {
        return generate_gaussdb_config(tools_.env(), tools_.user(), xml_.c_str(), "/app/config",
                                       use_python3);
    }
    /** What the script does when all goes well. */
    std::string write_xml(std::string const& text) const { return "out " + text + "\n"; }

    Database_Tools tools_;
    Scripted_Interpreters interpreters_{tools_};
    Temporary_Directory files_;
    std::string xml_;
};

TEST_F(Generate_GaussDB_Config, runs_the_script_and_gives_the_file_to_the_clusters_user) {
    tools_.script("python3", write_xml("<ROOT/>"));
    EXPECT_TRUE(generate());
    EXPECT_EQ("[/usr/bin/python3][/opt/quilmot/zenbrak3/bin/probe_gaussdb_config][-u][" +
                  std::string(tools_.user()) + "][-c][/app/config][-o][-][-p][/gp/script]",
              tools_.call("python3").text());
    EXPECT_EQ("<ROOT/>\n", files_.read("cluster.xml"));
    struct stat status = {};
    ASSERT_EQ(0, stat(xml_.c_str(), &status));
    EXPECT_EQ(tools_.uid(), status.st_uid);
    EXPECT_EQ(0600u, status.st_mode & 07777);
    EXPECT_LOGGED(LM_DEBUG, "/usr/bin/python3 /opt/quilmot/zenbrak3/bin/probe_gaussdb_config -u " +
                                std::string(tools_.user()) +
                                " -c /app/config -o - -p /gp/script\n");
}

TEST_F(Generate_GaussDB_Config, runs_as_the_clusters_user_in_its_environment) {
    tools_.env().set_env("GAUSSHOME", "/app");
    tools_.env().set_env("LD_LIBRARY_PATH", "/app/lib");
    tools_.script("python3", write_xml("<ROOT/>"));
    EXPECT_TRUE(generate());
    EXPECT_EQ(tools_.uid(), tools_.call("python3").uid);
    EXPECT_EQ("/app", tools_.call("python3").env.at("GAUSSHOME"));
    EXPECT_EQ("/app/lib", tools_.call("python3").env.at("LD_LIBRARY_PATH"));
}

TEST_F(Generate_GaussDB_Config, never_runs_as_root) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root's children run as root";
    tools_.script("python3", write_xml("<ROOT/>"));
    EXPECT_FALSE(generate_gaussdb_config(tools_.env(), "root", xml_.c_str(), "/c", true));
    EXPECT_LOGGED(LM_ERROR, "it would run as root in an environment that another user decides");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Generate_GaussDB_Config, the_interpreter_is_not_one_of_the_path) {
    Temporary_Directory theirs;
    std::filesystem::permissions(theirs.path(), std::filesystem::perms(0755));
    theirs.write("python3", "#!/bin/sh\necho theirs\n");
    std::filesystem::permissions(theirs.path("python3"), std::filesystem::perms(0755));
    tools_.env().set_env("PATH", theirs.path());
    tools_.script("python3", write_xml("ours"));
    EXPECT_TRUE(generate());
    EXPECT_EQ("ours\n", files_.read("cluster.xml"));
}

TEST_F(Generate_GaussDB_Config, nothing_or_too_much_of_xml_is_a_failure) {
    for (std::string const& script :
         {std::string("exit 0"), "repeat 17000 " + std::string(1024, 'x')}) {
        tools_.script("python3", script);
        EXPECT_FALSE(generate());
        EXPECT_LOGGED(LM_ERROR, " bytes of XML for /app/config, expected 1 to 16777216\n");
        EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
        EXPECT_FALSE(files_.exists("cluster.xml"));
    }
}

TEST_F(Generate_GaussDB_Config, an_older_cluster_has_the_older_interpreter) {
    tools_.script("python", write_xml("<ROOT/>"));
    EXPECT_TRUE(generate(false));
    EXPECT_EQ("/usr/bin/python", tools_.call("python").args.at(0));
}

TEST_F(Generate_GaussDB_Config, an_older_cluster_without_the_older_interpreter_has_the_newer) {
    tools_.script("python3", write_xml("<ROOT/>"));
    EXPECT_TRUE(generate(false));
    EXPECT_EQ("/usr/bin/python3", tools_.call("python3").args.at(0));
}

TEST_F(Generate_GaussDB_Config, a_stale_file_is_gone_before_the_script_runs) {
    files_.write("cluster.xml", "stale");
    tools_.script("python3", "run test ! -e " + xml_ + " && echo new");
    EXPECT_TRUE(generate());
    EXPECT_EQ("new\n", files_.read("cluster.xml"));
}

TEST_F(Generate_GaussDB_Config, a_stale_directory_is_gone_with_all_that_is_in_it) {
    files_.write("cluster.xml/deep/er", "stale");
    tools_.script("python3", "exit 1");
    EXPECT_FALSE(generate());
    EXPECT_FALSE(files_.exists("cluster.xml"));
    EXPECT_LOGGED(LM_WARNING, "exited with status 1");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
}

TEST_F(Generate_GaussDB_Config, what_a_stale_link_points_at_stays) {
    files_.write("precious", "kept");
    std::filesystem::create_symlink(files_.path("precious"), xml_);
    tools_.script("python3", write_xml("new"));
    EXPECT_TRUE(generate());
    EXPECT_EQ("kept", files_.read("precious"));
    EXPECT_EQ("new\n", files_.read("cluster.xml"));
}

TEST_F(Generate_GaussDB_Config, without_a_file_name_nothing_is_done) {
    EXPECT_FALSE(generate_gaussdb_config(tools_.env(), "omm", nullptr, "/app/config", true));
    EXPECT_CHECK_LOGGED("xml is NULL or \"\"");
    EXPECT_FALSE(generate_gaussdb_config(tools_.env(), "omm", "", "/app/config", true));
    EXPECT_CHECK_LOGGED("xml is NULL or \"\"");
}

TEST_F(Generate_GaussDB_Config, without_gphome_the_stale_file_goes_and_nothing_runs) {
    tools_.env().set_env("GPHOME", "");
    tools_.script("python3", "exit 0");
    files_.write("cluster.xml", "stale");
    EXPECT_FALSE(generate());
    EXPECT_CHECK_LOGGED("gp_home is NULL or \"\"");
    EXPECT_FALSE(files_.exists("cluster.xml"));
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Generate_GaussDB_Config, without_a_user_or_a_binary_file_nothing_runs) {
    tools_.script("python3", "exit 0");
    EXPECT_FALSE(generate_gaussdb_config(tools_.env(), nullptr, xml_.c_str(), "/c", true));
    EXPECT_CHECK_LOGGED("os_user is NULL or \"\"");
    EXPECT_FALSE(generate_gaussdb_config(tools_.env(), "omm", xml_.c_str(), "", true));
    EXPECT_CHECK_LOGGED("conf_path is NULL or \"\"");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Generate_GaussDB_Config, a_stale_file_that_cannot_be_removed_ends_it) {
    tools_.script("python3", "exit 0");
    EXPECT_FALSE(generate_gaussdb_config(tools_.env(), "omm", "/proc/version", "/c", true));
    EXPECT_LOGGED(LM_ERROR, "Failed to remove /proc/version, errno=");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Generate_GaussDB_Config, a_path_with_blanks_brings_no_option_of_its_own) {
    tools_.env().set_env("GPHOME", "/gp -o /etc/profile.d/x");
    tools_.script("python3", "exit 0");
    EXPECT_FALSE(generate());
    EXPECT_LOGGED(LM_ERROR, "'/gp -o /etc/profile.d/x' is not one word of a command line");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Generate_GaussDB_Config, quotes_that_a_profile_left_around_gphome_do_no_harm) {
    tools_.env().set_env("GPHOME", "\"/gp home\"");
    tools_.script("python3", write_xml("<ROOT/>"));
    EXPECT_TRUE(generate());
    EXPECT_EQ("/gp home/script", tools_.call("python3").args.back());
}

TEST_F(Generate_GaussDB_Config, a_command_line_that_is_too_long_is_not_run) {
    tools_.env().set_env("GPHOME", "/" + std::string(1024, 'g'));
    tools_.script("python3", "exit 0");
    EXPECT_FALSE(generate());
    EXPECT_LOGGED(LM_ERROR, "Failed to set a command line of ");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(Generate_GaussDB_Config, a_missing_interpreter_is_a_failure) {
    EXPECT_FALSE(generate());
    EXPECT_LOGGED(LM_ERROR, "Failed to start /usr/bin/python3: ");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
}

TEST_F(Generate_GaussDB_Config, a_file_that_cannot_be_written_is_a_failure) {
    tools_.script("python3", write_xml("<ROOT/>"));
    EXPECT_FALSE(generate_gaussdb_config(tools_.env(), tools_.user(), "/no/where.xml", "/c", true));
    EXPECT_LOGGED(LM_ERROR, "Failed to write /no/where.xml, errno=2, ");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
}

} // namespace
