#include "xbsa/library/xbsa_agent.h"

#include "json_spirit/access.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"
#include "tests/support/xbsa_world.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using json_spirit::Array;
using json_spirit::Object;
using testing::HasSubstr;

namespace {

class Xbsa_Agent_Test : public testing::Test {
protected:
    Xbsa_Result find_pool() {
        world_.save_policy();
        world_.save_agent();
        EXPECT_TRUE(Xbsa_Policy::read(Xbsa_World::POLICY, policy_));
        return Xbsa_Agent(policy_, clock_).find_pool(pool_);
    }
    void fail(Array failures) { world_.agent["fail"] = Object{{"pool.find", failures}}; }
    void expect_failure(int code, std::string const& text) {
        Xbsa_Result const result = find_pool();
        EXPECT_EQ(code, result.code());
        EXPECT_THAT(result.text(), HasSubstr(text));
    }
    size_t asked() const { return world_.calls("pool.find").size(); }

    Xbsa_World world_;
    Virtual_Clock clock_;
    Xbsa_Policy policy_;
    Pool_Info pool_;
};

TEST_F(Xbsa_Agent_Test, a_pool_is_described) {
    world_.pool()["device_uuids"] = Array{"device"};
    world_.pool()["read_only"] = true;
    Xbsa_Result const result = find_pool();
    ASSERT_TRUE(result) << result.text();
    EXPECT_EQ("the pool", pool_.name);
    EXPECT_EQ("file://" + world_.pool_path(), pool_.url);
    EXPECT_EQ(COMPR_ZSTD, pool_.compression_method);
    EXPECT_EQ(3, pool_.compression_level);
    EXPECT_TRUE(pool_.read_only);
    EXPECT_EQ(std::vector<std::string>{"device"}, pool_.device_uuids);
}

TEST_F(Xbsa_Agent_Test, the_agent_s_errors_have_codes_of_their_own) {
    fail({Object{{"error", Array{-32004, "none"}}}, Object{{"error", Array{-32005, "no"}}},
          Object{{"error", Array{-32603, "broken\nline"}}}});
    expect_failure(BSA_RC_OBJECT_NOT_FOUND, "none");
    expect_failure(BSA_RC_ACCESS_FAILURE, "no");
    expect_failure(BSA_RC_ABORT_SYSTEM_ERROR, "broken?line");
}

TEST_F(Xbsa_Agent_Test, answers_that_are_none_are_failures) {
    fail({Object{{"body", "no JSON"}}, Object{{"body", "{}"}}, Object{{"body", "[]"}},
          Object{{"body", R"({"jsonrpc":"2.0","id":777,"result":{"url":"file:///x"}})"}},
          Object{{"body", R"({"jsonrpc":"2.0","id":1,"result":[]})"}},
          Object{{"body", R"({"jsonrpc":"2.0","id":1,"result":{"url":7}})"}}});
    for (char const* text : {"none of JSON-RPC", "none of JSON-RPC", "none of JSON-RPC",
                             "another request's", "array", "url"})
        expect_failure(BSA_RC_ABORT_SYSTEM_ERROR, text);
}

TEST_F(Xbsa_Agent_Test, what_may_pass_is_tried_again_for_as_long_as_the_policy_says) {
    world_.policy["retry"] = 10;
    fail({Object{{"status", 503}}, Object{{"error", Array{-32000, "busy"}}},
          Object{{"status", 504}}, nullptr});
    Xbsa_Result const result = find_pool();
    EXPECT_TRUE(result) << result.text();
    EXPECT_EQ(4u, asked());
}

TEST_F(Xbsa_Agent_Test, in_the_end_the_last_failure_is_told) {
    world_.policy["retry"] = 4; // after 1, 2 and 1 seconds
    Array failures(20, Object{{"status", 503}});
    fail(failures);
    expect_failure(BSA_RC_ABORT_SYSTEM_ERROR, "HTTP status 503");
    EXPECT_EQ(4u, asked());
}

TEST_F(Xbsa_Agent_Test, what_will_not_pass_is_not_tried_again) {
    world_.policy["retry"] = 100;
    fail({Object{{"error", Array{-32005, "no"}}}, Object{{"status", 500}}});
    expect_failure(BSA_RC_ACCESS_FAILURE, "no");
    expect_failure(BSA_RC_ABORT_SYSTEM_ERROR, "HTTP status 500");
    EXPECT_EQ(2u, asked());
    world_.policy["access_key"] = "wrong";
    expect_failure(BSA_RC_AUTHENTICATION_FAILURE, "access key");
}

TEST_F(Xbsa_Agent_Test, a_connection_that_breaks_is_made_again) {
    world_.policy["retry"] = 10;
    fail({Object{{"reset", true}}, nullptr});
    Xbsa_Result const result = find_pool();
    EXPECT_TRUE(result) << result.text();
    EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request 'POST /d2/r/v2/rpc'");
}

TEST_F(Xbsa_Agent_Test, a_key_that_could_be_a_header_of_its_own_is_not_sent) {
    world_.policy["access_key"] = "key\r\nX-Other: 1";
    expect_failure(BSA_RC_INVALID_ENV, "cannot be sent");
    EXPECT_LOGGED(LM_ERROR, "");
    EXPECT_EQ(0u, asked());
}

TEST_F(Xbsa_Agent_Test, the_catalog_tells_which_sets_it_has) {
    ASSERT_TRUE(find_pool());
    Xbsa_Agent agent(policy_, clock_);
    bool has = false;
    EXPECT_TRUE(agent.has_set(Xbsa_World::OLDER_SET, has));
    EXPECT_TRUE(has);
    EXPECT_TRUE(agent.has_set("unknown", has));
    EXPECT_FALSE(has);
    auto const calls = world_.calls("catalog.get_view");
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ("gaussdb", json_spirit::object_get_str(calls[0], "type"));
    EXPECT_EQ("catalogs", json_spirit::object_get_str(calls[0], "view"));
}

} // namespace
