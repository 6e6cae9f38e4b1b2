#include "agent/rpc/run_keys.h"

#include <gtest/gtest.h>
#include <set>

using namespace std::chrono_literals;

namespace {

Run_Keys::Entry run_key(std::string const& key, std::string const& host, std::string const& run) {
    return {key_digest(key), {run, true, host, "c1", "cluster", "pool"}};
}

class Run_Keys_Test : public testing::Test {
protected:
    /** The run that a key is for; "" for none. */
    std::string run_of(std::string const& key, Run_Keys::Clock::time_point now = NOW) const {
        auto const found = keys_.find(key_digest(key), now);
        return found ? found->host_uuid + "/" + found->run_id : "";
    }
    static constexpr Run_Keys::Clock::time_point NOW{24h};
    Run_Keys keys_;
};

} // namespace

TEST_F(Run_Keys_Test, a_new_key_is_64_digits_and_another_each_time) {
    std::set<std::string> made;
    for (int i = 0; i < 100; ++i) {
        secure_string const key = Run_Keys::make();
        made.insert(key.plain());
        EXPECT_EQ(64u, key.size());
    }
    EXPECT_EQ(100u, made.size());
}

TEST_F(Run_Keys_Test, a_key_is_known_until_its_run_ends) {
    EXPECT_EQ("", run_of("k1"));
    EXPECT_TRUE(keys_.add(run_key("k1", "h1", "r1")));
    EXPECT_TRUE(keys_.add(run_key("k2", "h1", "r2")));
    EXPECT_EQ("h1/r1", run_of("k1"));
    keys_.end("h1", "r1");
    EXPECT_EQ("", run_of("k1"));
    EXPECT_EQ("h1/r2", run_of("k2"));
}

TEST_F(Run_Keys_Test, a_run_is_known_as_long_as_its_key) {
    EXPECT_EQ(nullptr, keys_.find_run("h1", "r1", NOW));
    keys_.add(run_key("k1", "h1", "r1"));
    ASSERT_NE(nullptr, keys_.find_run("h1", "r1", NOW));
    EXPECT_EQ("c1", keys_.find_run("h1", "r1", NOW)->instance);
    EXPECT_EQ(nullptr, keys_.find_run("h2", "r1", NOW));
    EXPECT_EQ(nullptr, keys_.find_run("h1", "r2", NOW));
    keys_.host_lost("h1", NOW);
    EXPECT_NE(nullptr, keys_.find_run("h1", "r1", NOW + Run_Keys::LOST_HOST - 1s));
    EXPECT_EQ(nullptr, keys_.find_run("h1", "r1", NOW + Run_Keys::LOST_HOST));
    keys_.replace("h1", {});
    EXPECT_EQ(nullptr, keys_.find_run("h1", "r1", NOW)) << "it has come back without the run";
}

TEST_F(Run_Keys_Test, a_host_ends_only_its_own_runs_and_takes_no_key_of_another) {
    keys_.add(run_key("k1", "h1", "r1"));
    keys_.end("h2", "r1");
    EXPECT_EQ("h1/r1", run_of("k1"));
    keys_.add(run_key("k1", "h2", "r2"));
    EXPECT_EQ("h1/r1", run_of("k1"));
    keys_.replace("h2", {run_key("k1", "h2", "r2")});
    EXPECT_EQ("h1/r1", run_of("k1"));
}

TEST_F(Run_Keys_Test, a_host_that_joins_again_has_the_keys_of_its_present_runs) {
    keys_.add(run_key("old", "h1", "r1"));
    keys_.add(run_key("on", "h1", "r2"));
    keys_.add(run_key("other", "h2", "r3"));
    keys_.replace("h1", {run_key("on", "h1", "r2"), run_key("new", "h1", "r4")});
    EXPECT_EQ("", run_of("old"));
    EXPECT_EQ("h1/r2", run_of("on"));
    EXPECT_EQ("h1/r4", run_of("new"));
    EXPECT_EQ("h2/r3", run_of("other"));
}

TEST_F(Run_Keys_Test, the_keys_of_a_lost_host_hold_for_a_while) {
    keys_.add(run_key("k1", "h1", "r1"));
    keys_.add(run_key("k2", "h2", "r2"));
    keys_.host_lost("h1", NOW);
    EXPECT_EQ("h1/r1", run_of("k1", NOW + Run_Keys::LOST_HOST - 1s));
    EXPECT_EQ("", run_of("k1", NOW + Run_Keys::LOST_HOST));
    EXPECT_EQ("h2/r2", run_of("k2", NOW + Run_Keys::LOST_HOST));
    keys_.replace("h1", {run_key("k1", "h1", "r1")});
    EXPECT_EQ("h1/r1", run_of("k1", NOW + Run_Keys::LOST_HOST)) << "it is back";
    keys_.host_lost("h1", NOW);
    keys_.host_lost("h2", NOW + Run_Keys::LOST_HOST);
    EXPECT_TRUE(keys_.of_host("h1").empty()) << "forgotten for good";
    EXPECT_EQ(1u, keys_.of_host("h2").size());
}

TEST_F(Run_Keys_Test, one_host_cannot_fill_the_memory) {
    for (size_t i = 0; i < Run_Keys::MOST_OF_A_HOST; ++i)
        EXPECT_TRUE(keys_.add(run_key("k" + std::to_string(i), "h1", "r")));
    EXPECT_FALSE(keys_.add(run_key("more", "h1", "r")));
    EXPECT_TRUE(keys_.add(run_key("other", "h2", "r")));
}

TEST_F(Run_Keys_Test, an_entry_comes_back_from_its_object_and_holds_no_key) {
    Run_Keys::Entry const one = run_key("the key", "h1", "r1");
    Run_Keys::Entry read;
    ASSERT_TRUE(read.read(one.dump()));
    EXPECT_EQ(one.digest, read.digest);
    EXPECT_EQ(one.scope.dump(), read.scope.dump());
    for (char const* key : {"key", "run_id", "host_uuid", "cluster_id", "backup"}) {
        json_spirit::Object broken = one.dump();
        broken[key] = key == std::string("backup") ? json_spirit::Value(1) : json_spirit::Value("");
        EXPECT_FALSE(read.read(broken)) << key;
        broken.erase(key);
        EXPECT_FALSE(read.read(broken)) << key;
    }
    for (std::string const& digest :
         {std::string(63, 'a'), std::string(65, 'a'), std::string(64, 'g')}) {
        json_spirit::Object broken = one.dump();
        broken["key"] = digest;
        EXPECT_FALSE(read.read(broken)) << digest;
    }
}
