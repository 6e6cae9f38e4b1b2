#include "xbsa/library/xbsa_policy.h"

#include "tests/support/xbsa_world.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using testing::HasSubstr;

namespace {

class Xbsa_Policy_Test : public testing::Test {
protected:
    Xbsa_Result read() {
        world_.save_policy();
        return Xbsa_Policy::read(Xbsa_World::POLICY, policy_);
    }
    /** Expects that the policy as it is now is refused. */
    void expect_refused(std::string const& why) {
        policy_.name = "as before";
        Xbsa_Result const result = read();
        EXPECT_EQ(BSA_RC_INVALID_ENV, result.code());
        EXPECT_THAT(result.text(), HasSubstr(why));
        EXPECT_EQ("as before", policy_.name);
    }
    void write(std::string const& text) {
        std::ofstream(world_.policy_path(), std::ios::binary) << text;
    }

    Xbsa_World world_;
    Xbsa_Policy policy_;
};

TEST_F(Xbsa_Policy_Test, all_members_are_read) {
    world_.policy["retry"] = 30;
    world_.policy["resumption_buffer_size"] = 4096;
    world_.policy["compression"] = "lzop";
    world_.policy["compression_level"] = 7;
    world_.policy["dest_rate_limits"] = "1000;08:00-18:00=500";
    world_.policy["src_rate_limits"] = "2000";
    Xbsa_Result const result = read();
    ASSERT_TRUE(result) << result.text();
    EXPECT_EQ("localhost", policy_.backupd_host);
    EXPECT_TRUE(policy_.backupd_ssl);
    EXPECT_EQ(Xbsa_World::KEY, policy_.access_key.plain());
    EXPECT_EQ(Xbsa_World::CLUSTER, policy_.cluster_id);
    EXPECT_EQ(Xbsa_World::SET, policy_.uuid);
    EXPECT_EQ(30u, policy_.retry);
    EXPECT_EQ(4096u, policy_.resumption_buffer_size);
    EXPECT_EQ(COMPR_LZOP, policy_.compression);
    EXPECT_EQ(7, policy_.compression_level);
    EXPECT_EQ(2u, policy_.rate_limits.dest.size());
    EXPECT_EQ(1u, policy_.rate_limits.src.size());
    EXPECT_EQ(world_.policy_path() + "_act", policy_.counter_path());
}

TEST_F(Xbsa_Policy_Test, a_negative_retry_is_none) {
    world_.policy["retry"] = -1;
    ASSERT_TRUE(read());
    EXPECT_EQ(0u, policy_.retry);
}

TEST_F(Xbsa_Policy_Test, an_empty_compression_is_none_and_an_unknown_one_is_refused) {
    world_.policy["compression"] = "";
    ASSERT_TRUE(read());
    EXPECT_EQ(COMPR_NONE, policy_.compression);
    world_.policy["compression"] = "rar";
    expect_refused("'rar' is not known");
}

TEST_F(Xbsa_Policy_Test, a_member_that_is_missing_or_of_another_kind_is_named) {
    for (char const* key : {"access_key", "backupd_host", "backupd_port", "backupd_ssl",
                            "cluster_id", "pool_uuid", "uuid"}) {
        json_spirit::Object const before = world_.policy;
        world_.policy.erase(key);
        expect_refused(key);
        world_.policy = before;
        world_.policy[key] = json_spirit::Array();
        expect_refused(key);
        world_.policy = before;
    }
}

TEST_F(Xbsa_Policy_Test, ids_that_lead_elsewhere_are_refused) {
    for (char const* id : {"../other", "a/b", "..", "/abs"}) {
        json_spirit::Object const before = world_.policy;
        world_.policy["cluster_id"] = id;
        expect_refused("its cluster_id ");
        world_.policy = before;
        world_.policy["uuid"] = id;
        expect_refused("its uuid ");
        world_.policy = before;
    }
    world_.policy["cluster_id"] = "";
    expect_refused("its cluster_id ");
}

TEST_F(Xbsa_Policy_Test, rate_limits_and_ports_that_are_none_are_refused) {
    world_.policy["dest_rate_limits"] = "fast";
    expect_refused("rate limits are not valid");
    world_.policy["dest_rate_limits"] = "";
    world_.policy["backupd_port"] = 65536;
    expect_refused("backupd_port");
    world_.policy["backupd_port"] = 0;
    expect_refused("where the agent is");
}

TEST_F(Xbsa_Policy_Test, files_that_are_no_policy_are_refused) {
    std::string const files[] = {"",
                                 "[]",
                                 "{",
                                 std::string(1000, '['),
                                 std::string("\0\x01", 2),
                                 std::string(2 * 1024 * 1024, ' ')};
    for (std::string const& text : files) {
        write(text);
        EXPECT_EQ(BSA_RC_INVALID_ENV, Xbsa_Policy::read(Xbsa_World::POLICY, policy_).code())
            << text.substr(0, 20);
    }
    std::filesystem::create_directory(world_.policy_path("meta"));
    EXPECT_EQ(BSA_RC_INVALID_ENV, Xbsa_Policy::read("meta", policy_).code());
}

} // namespace
