#include "host/rpc/global_config.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

class Global_Config_Test : public testing::Test {
protected:
    ~Global_Config_Test() override {
        for (auto const& [key, value] : config_.all())
            config_.remove(key);
    }
    Global_Config& config_ = *Global_Config::instance();
};

TEST_F(Global_Config_Test, holds_what_was_set) {
    EXPECT_EQ("", config_.get("a"));
    EXPECT_EQ("fallback", config_.get("a", "fallback"));
    config_.set("a", "1");
    config_.set("a", "2");
    EXPECT_EQ("2", Global_Config::instance()->get("a", "fallback"));
    config_.set("empty", "");
    EXPECT_EQ("", config_.get("empty", "fallback"));
    EXPECT_EQ((std::map<std::string, std::string>{{"a", "2"}, {"empty", ""}}), config_.all());
    config_.remove("a");
    config_.remove("none");
    EXPECT_EQ("", config_.get("a"));
}

TEST_F(Global_Config_Test, a_number_has_to_be_one_as_a_whole) {
    config_.set("n", "-42");
    EXPECT_EQ(-42, config_.get_int("n", 7));
    for (char const* text : {"", "4x", " 4", "4 ", "+4", "0x4", "9223372036854775808", "1.5"}) {
        config_.set("n", text);
        EXPECT_EQ(7, config_.get_int("n", 7)) << text;
    }
    EXPECT_EQ(7, config_.get_int("none", 7));
}

TEST_F(Global_Config_Test, words_for_yes_and_no) {
    for (char const* text : {"true", "yes", "on", "1"}) {
        config_.set("b", text);
        EXPECT_TRUE(config_.get_bool("b", false)) << text;
    }
    for (char const* text : {"false", "no", "off", "0"}) {
        config_.set("b", text);
        EXPECT_FALSE(config_.get_bool("b", true)) << text;
    }
    for (char const* text : {"", "TRUE", "2", "maybe"}) {
        config_.set("b", text);
        EXPECT_TRUE(config_.get_bool("b", true)) << text;
        EXPECT_FALSE(config_.get_bool("b", false)) << text;
    }
}

TEST_F(Global_Config_Test, may_be_used_on_several_threads) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([this, thread] {
            std::string const key = std::to_string(thread);
            for (int round = 0; round < 500; ++round) {
                config_.set(key, std::to_string(round));
                EXPECT_EQ(round, config_.get_int(key, -1));
                config_.all();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(4u, config_.all().size());
}

} // namespace
