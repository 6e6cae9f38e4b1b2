#include "agent/service/agent_config.h"

#include "tests/support/temporary_directory.h"

#include <fstream>
#include <gtest/gtest.h>

namespace {

class Agent_Config_Test : public testing::Test {
protected:
    bool read(std::string const& text) {
        std::ofstream(path_) << text;
        error_.clear();
        return config_.read(path_, true, error_);
    }
    /** The text is refused for that reason, and nothing of it counts. */
    void expect_refused(std::string const& text, std::string const& reason) {
        config_ = Agent_Config();
        EXPECT_FALSE(read(text)) << text;
        EXPECT_NE(std::string::npos, error_.find(path_)) << error_;
        EXPECT_NE(std::string::npos, error_.find(reason)) << error_;
        EXPECT_EQ(Agent_Config().log_level, config_.log_level);
    }

    Temporary_Directory directory_;
    std::string path_ = directory_.path() + "/agent.toml";
    std::string error_;
    Agent_Config config_;
};

TEST_F(Agent_Config_Test, an_empty_file_and_none_are_the_defaults) {
    EXPECT_TRUE(read("")) << error_;
    EXPECT_EQ("/run/zenbrak3/agent.sock", config_.socket);
    EXPECT_TRUE(config_.read(directory_.path() + "/none.toml", false, error_)) << error_;
    EXPECT_FALSE(config_.read(directory_.path() + "/none.toml", true, error_));
    EXPECT_NE(std::string::npos, error_.find("none.toml")) << error_;
}

TEST_F(Agent_Config_Test, reads_each_kind_of_key) {
    EXPECT_TRUE(read("[agent]\nname = 'n'\nstop_timeout = 5\nlog_level = 'debug'\n"
                     "[remote]\nenabled = false\n"))
        << error_;
    EXPECT_EQ("n", config_.name);
    EXPECT_EQ(5, config_.stop_timeout);
    EXPECT_EQ("debug", config_.log_level);
    EXPECT_FALSE(config_.remote);
}

TEST_F(Agent_Config_Test, platforms_are_verified_unless_told_otherwise) {
    EXPECT_TRUE(config_.platform_verify);
    EXPECT_EQ("", config_.platform_ca_file);
    EXPECT_EQ(60, config_.platform_timeout);
    EXPECT_TRUE(read("[platform]\nverify = false\nca_file = '/etc/ca.pem'\ntimeout = 5\n"))
        << error_;
    EXPECT_FALSE(config_.platform_verify);
    EXPECT_EQ("/etc/ca.pem", config_.platform_ca_file);
    EXPECT_EQ(5, config_.platform_timeout);
    EXPECT_TRUE(Agent_Config().restart_needed(config_).empty()) << "a reload is enough";
    expect_refused("[platform]\nca_file = 'ca.pem'\n", "wants an absolute path");
    expect_refused("[platform]\ntimeout = 0\n", "from 1 to 3600");
}

TEST_F(Agent_Config_Test, a_fault_names_line_and_key) {
    expect_refused("[agent]\nlog_level = 'debug'\nnmae = 'x'\n",
                   "line 3: \"agent.nmae\" is no known");
    expect_refused("[agent]\nlog_level = 'debug'\n[agnet]\n", "line 3: \"agnet\" is no known");
    expect_refused("\n\nname = 'x'\n", "line 3: \"name\" is no known");
    expect_refused("agent = 1\n", "line 1: \"agent\" is a table");
    expect_refused("[agent]\nname = 7\n", "line 2: \"agent.name\" wants a text");
    expect_refused("[agent]\nstop_timeout = '7'\n", "\"agent.stop_timeout\" wants a whole number");
    expect_refused("[agent]\nstop_timeout = 7.5\n", "\"agent.stop_timeout\" wants a whole number");
    expect_refused("[agent]\nstop_timeout = -1\n", "from 0 to 86400");
    expect_refused("[remote]\nport = 70000\n", "from 0 to 65535");
    expect_refused("[remote]\nenabled = 1\n", "\"remote.enabled\" wants true or false");
    expect_refused("[agent]\ndata_dir = 'var'\n", "\"agent.data_dir\" wants an absolute path");
    expect_refused("[agent]\nlog = 'syslog'\n", "wants one of \"stderr\", \"journal\"");
    expect_refused("[agent]\nname = \"a\\u0000b\"\n", "NUL");
    expect_refused("[agent]\nname = 'x'\nname = 'y'\n", "line 3");
    expect_refused("[agent\n", "line 1");
}

TEST_F(Agent_Config_Test, keys_that_need_each_other) {
    expect_refused("[group]\nrole = 'backupd'\n[remote]\nenabled = false\n",
                   "\"remote.enabled\" must be true");
    expect_refused("[group]\nrole = 'member'\n", "\"group.backupd_url\"");
    expect_refused("[group]\nrole = 'member'\nbackupd_url = 'wss://h:1'\n", "backupd_key_file");
    expect_refused("[remote]\ncertificate = '/c'\n", "belong together");
    expect_refused("[agent]\ndata_dir = ''\n", "must not be empty");
}

TEST_F(Agent_Config_Test, tells_what_only_a_restart_changes) {
    Agent_Config before;
    ASSERT_TRUE(read("[agent]\nlog_level = 'debug'\n[remote]\nport = 1\n")) << error_;
    EXPECT_EQ(std::vector<std::string>{"remote.port"}, config_.restart_needed(before));
}

TEST_F(Agent_Config_Test, every_value_can_be_written_out_and_read_back) {
    Agent_Config written;
    written.name = "a \"quoted\" \\ name";
    std::string text;
    std::string table;
    for (Agent_Config::Key const& key : written.keys_and_values()) {
        size_t const dot = key.name.find('.');
        if (table != key.name.substr(0, dot))
            text += "[" + (table = key.name.substr(0, dot)) + "]\n";
        text += key.name.substr(dot + 1) + " = " + key.value + "\n";
    }
    EXPECT_TRUE(read(text)) << error_;
    EXPECT_TRUE(config_.restart_needed(written).empty());
}

} // namespace
