#include "agent/jobs/run_holds.h"

#include "host/job/run_hold.h"

#include <gtest/gtest.h>
#include <set>

using namespace std::chrono_literals;

namespace {

using Names = std::set<std::string>;

class Run_Holds_Test : public testing::Test {
protected:
    /** A run asks. @return what it waits for */
    std::string hold(std::string const& run, Names const& resources,
                     Run_Holds::Clock::time_point now = NOW) {
        size_t const slash = run.find('/');
        return holds_.hold({run.substr(0, slash), run.substr(slash + 1), "job " + run}, resources,
                           now);
    }
    void release(std::string const& run, Names const& resources) {
        size_t const slash = run.find('/');
        holds_.release(run.substr(0, slash), run.substr(slash + 1), resources);
    }

    static constexpr Run_Holds::Clock::time_point NOW{24h};
    static inline Names const H1{Run_Hold::metadata("h1")};
    static inline Names const H2{Run_Hold::metadata("h2")};
    static inline Names const BOTH{Run_Hold::metadata("h1"), Run_Hold::metadata("h2")};
    std::set<std::string> ended_;
    Run_Holds holds_{[this](std::string const& host, std::string const& run) {
        return !ended_.contains(host + "/" + run);
    }};
};

TEST_F(Run_Holds_Test, one_run_has_a_resource_and_the_next_one_gets_it_behind_that) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_EQ("job h1/a, which uses the backup tool's metadata directory on the same host",
              hold("h2/b", H1));
    EXPECT_EQ("", hold("h1/a", H1)) << "asked again";
    release("h1/a", H1);
    EXPECT_EQ("", hold("h2/b", H1));
    EXPECT_NE("", hold("h1/a", H1));
}

TEST_F(Run_Holds_Test, the_text_names_what_is_wanted) {
    Names const policy{Run_Hold::policy("h1", "pool")};
    Names const instance{Run_Hold::instance("c1")};
    Names const node{Run_Hold::node("db1")};
    hold("h1/a", policy);
    hold("h1/b", instance);
    hold("h1/d", node);
    EXPECT_EQ("job h1/a, which uses the same policy", hold("h1/c", policy));
    EXPECT_EQ("job h1/b, which uses the same instance", hold("h1/c", instance));
    EXPECT_EQ("job h1/d, which uses the same database node", hold("h1/c", node));
}

TEST_F(Run_Holds_Test, runs_of_other_resources_do_not_meet) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_EQ("", hold("h1/b", H2));
    EXPECT_EQ("", hold("h1/c", {Run_Hold::policy("h1", "pool"), Run_Hold::instance("c1")}));
}

TEST_F(Run_Holds_Test, all_are_granted_or_none) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_NE("", hold("h2/b", BOTH));
    release("h1/a", H1);
    // b has neither yet, and comes before c
    EXPECT_NE("", hold("h2/c", H2));
    EXPECT_EQ("", hold("h2/b", BOTH));
}

TEST_F(Run_Holds_Test, a_waiting_run_is_not_overtaken) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_NE("", hold("h1/b", BOTH));
    EXPECT_EQ("job h1/b, which waits for the backup tool's metadata directory on the same host",
              hold("h2/c", H2));
    release("h1/b", BOTH);
    EXPECT_EQ("", hold("h2/c", H2));
}

TEST_F(Run_Holds_Test, two_runs_that_want_the_same_hosts_never_wait_for_each_other) {
    Names const one{Run_Hold::metadata("h1"), Run_Hold::metadata("h2")};
    Names const other{Run_Hold::metadata("h2"), Run_Hold::metadata("h1")};
    EXPECT_EQ("", hold("h1/a", one));
    EXPECT_NE("", hold("h2/b", other));
    release("h1/a", one);
    EXPECT_EQ("", hold("h2/b", other));
}

TEST_F(Run_Holds_Test, a_run_does_not_wait_for_itself) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_EQ("", hold("h1/a", BOTH));
}

TEST_F(Run_Holds_Test, a_run_of_the_same_id_on_another_host_is_another_run) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_NE("", hold("h2/a", H1));
    release("h2/a", H1);
    EXPECT_NE("", hold("h2/b", H1)) << "h2 released what h1 has";
}

TEST_F(Run_Holds_Test, an_ended_run_frees_its_resources_and_its_place) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_NE("", hold("h1/b", H1));
    EXPECT_NE("", hold("h1/c", H1));
    ended_ = {"h1/a", "h1/b"};
    EXPECT_EQ("", hold("h1/c", H1));
}

TEST_F(Run_Holds_Test, who_no_longer_asks_loses_the_place_and_never_what_it_has) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_NE("", hold("h1/b", H1));
    release("h1/a", H1);
    EXPECT_NE("", hold("h1/c", H1, NOW + Run_Holds::LOST_WAITER - 1s));
    EXPECT_EQ("", hold("h1/c", H1, NOW + Run_Holds::LOST_WAITER));
    EXPECT_NE("", hold("h1/b", H1, NOW + 1h)) << "c has it, however long ago it asked";
}

TEST_F(Run_Holds_Test, nothing_is_granted_before_the_hosts_are_back) {
    std::string const waits =
        "the hosts of the group, which connect again after a start of the backup server";
    holds_.await({"h1", "h2"}, NOW);
    EXPECT_EQ(waits, hold("h3/a", H1));
    holds_.host_joined("h1");
    holds_.host_joined("h9");
    EXPECT_EQ(waits, hold("h3/a", H1));
    EXPECT_TRUE(holds_.restore({"h1", "b", "job b"}, H2, NOW));
    EXPECT_EQ("", hold("h1/b", H2)) << "it has it";
    holds_.host_joined("h2");
    EXPECT_EQ("", hold("h3/a", H1));
    EXPECT_EQ("job b, which uses the backup tool's metadata directory on the same host",
              hold("h3/c", H2));
}

TEST_F(Run_Holds_Test, hosts_that_stay_away_are_not_awaited_for_ever) {
    holds_.await({"h1"}, NOW);
    EXPECT_NE("", hold("h3/a", H1, NOW + Run_Holds::AWAITED - 1s));
    EXPECT_EQ("", hold("h3/a", H1, NOW + Run_Holds::AWAITED));
}

TEST_F(Run_Holds_Test, a_run_gets_back_what_nobody_else_has) {
    EXPECT_EQ("", hold("h1/a", H1));
    EXPECT_NE("", hold("h1/waits", BOTH));
    EXPECT_FALSE(holds_.restore({"h2", "b", "job b"}, BOTH, NOW));
    EXPECT_TRUE(holds_.restore({"h2", "b", "job b"}, H2, NOW)) << "a run that waits has nothing";
    EXPECT_TRUE(holds_.restore({"h2", "b", "job b"}, H2, NOW)) << "told again";
    EXPECT_TRUE(holds_.restore({"h1", "a", "job a"}, {*H1.begin(), "instance/c1"}, NOW))
        << "a run is not in its own way";
    release("h2/b", H2);
    release("h1/a", H1);
    release("h1/a", {*H1.begin(), "instance/c1"});
    EXPECT_EQ("", hold("h1/waits", BOTH)) << "it was there once";
}

TEST_F(Run_Holds_Test, what_a_run_has_can_be_asked) {
    EXPECT_EQ("", hold("h1/a", BOTH));
    EXPECT_NE("", hold("h2/b", H1));
    EXPECT_TRUE(holds_.has("h1", "a", Run_Hold::metadata("h2")));
    EXPECT_FALSE(holds_.has("h1", "a", Run_Hold::metadata("h3")));
    EXPECT_FALSE(holds_.has("h2", "a", Run_Hold::metadata("h2")));
    EXPECT_FALSE(holds_.has("h2", "b", Run_Hold::metadata("h1"))) << "it waits";
}

TEST_F(Run_Holds_Test, one_host_cannot_fill_the_table) {
    EXPECT_EQ("", hold("h1/holder", H1));
    for (size_t count = 1; count < Run_Holds::MOST_OF_A_HOST; ++count)
        EXPECT_NE("", hold("h1/" + std::to_string(count), H1));
    EXPECT_EQ("other runs of its host, of which too many wait", hold("h1/more", H2));
    EXPECT_FALSE(holds_.restore({"h1", "more", "job"}, H2, NOW));
    EXPECT_EQ("", hold("h2/a", H2));
}

} // namespace
