#include "host/storage/pool_info.h"

#include "host/agent/host_services.h"
#include "tests/support/log_capture.h"
#include "tests/support/virtual_clock.h"

#include <gtest/gtest.h>

namespace {

class Fake_Pools : public Pool_Backend {
public:
    Storage_Result find(std::string const& uuid, Pool_Info& info) override {
        if (failures > 0 && failures-- > 0)
            return {Storage_Result::UNREACHABLE, "no answer"};
        if (uuid != pool.uuid)
            return {Storage_Result::NOT_FOUND, "there is none"};
        info = pool;
        return {};
    }
    int failures = 0;
    Pool_Info pool;
};

class pool_info : public testing::Test {
protected:
    void SetUp() override {
        pools_->pool.uuid = "u1";
        pools_->pool.url = "file:///pool";
        pools_->pool.device_uuids = {"d1", "d2"};
        Host_Services::instance().pools(pools_);
        info_.name = "before";
    }
    void TearDown() override { Host_Services::instance().pools(nullptr); }
    bool get(char const* device, bool for_restore = false, uint64_t retry = 0) {
        return get_pool_info("u1", device, info_, for_restore, retry, clock_);
    }

    std::shared_ptr<Fake_Pools> pools_ = std::make_shared<Fake_Pools>();
    Virtual_Clock clock_;
    Pool_Info info_;
};

TEST_F(pool_info, a_pool_is_found_on_any_device_and_on_its_own) {
    for (char const* device : {static_cast<char const*>(nullptr), "", "d1", "d2"}) {
        info_ = {};
        EXPECT_TRUE(get(device));
        EXPECT_EQ("file:///pool", info_.url);
    }
    pools_->pool.device_uuids.clear();
    EXPECT_TRUE(get("d9"));
}

TEST_F(pool_info, what_cannot_be_used_is_told_and_changes_nothing) {
    EXPECT_FALSE(get("d3"));
    EXPECT_LOGGED(LM_ERROR, "Pool u1 cannot be used, it is not on device d3\n");
    EXPECT_FALSE(get_pool_info("u2", nullptr, info_, false, 0, clock_));
    EXPECT_LOGGED(LM_ERROR, "Pool u2 cannot be used, there is none\n");
    Host_Services::instance().pools(nullptr);
    EXPECT_FALSE(get(nullptr));
    EXPECT_LOGGED(LM_ERROR, "Pool u1 cannot be used, no record of pools\n");
    EXPECT_EQ("before", info_.name);
}

TEST_F(pool_info, a_read_only_pool_serves_restores_alone) {
    pools_->pool.read_only = true;
    EXPECT_FALSE(get(nullptr, false));
    EXPECT_LOGGED(LM_ERROR, "Pool u1 cannot be used, it is read-only\n");
    EXPECT_TRUE(get(nullptr, true));
}

TEST_F(pool_info, a_record_that_cannot_be_reached_is_asked_again) {
    pools_->failures = 2;
    EXPECT_TRUE(get(nullptr, false, 10));
    EXPECT_EQ(10, clock_.seconds());
    pools_->failures = 9;
    EXPECT_FALSE(get(nullptr, false, 7));
    EXPECT_EQ(17, clock_.seconds());
    EXPECT_LOGGED(LM_ERROR, "Pool u1 cannot be used, no answer\n");
}

TEST_F(pool_info, options_take_over_the_pools_place_and_keep_the_compression) {
    Client_IO_Base::Options options;
    options.compression_method = COMPR_LZOP;
    pools_->pool.compression_method = COMPR_ZSTD;
    EXPECT_TRUE(set_options_by_pool(options, pools_->pool));
    EXPECT_EQ("file:///pool", options.access().pool_url());
    EXPECT_EQ(COMPR_LZOP, options.compression_method);
    set_d2t_access_mode(options);
    EXPECT_TRUE(options.access().d2t());
}

TEST_F(pool_info, an_encryption_without_a_key_is_refused) {
    Client_IO_Base::Options options;
    pools_->pool.encryption = ENCRYPTION_AES_256;
    EXPECT_FALSE(set_options_by_pool(options, pools_->pool));
    EXPECT_EQ("", options.access().pool_url());
    EXPECT_EQ(ENCRYPTION_NONE, options.encryption);
}

} // namespace
