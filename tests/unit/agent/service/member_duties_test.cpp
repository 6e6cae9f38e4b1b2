#include "agent/service/member_duties.h"

#include "agent/instances/sqlite_instances.h"
#include "json_spirit/access.h"
#include "tests/support/agent_database.h"
#include "tests/unit/agent/rpc/group_world.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>

namespace {

using json_spirit::Object;
using json_spirit::Value;

/** A member "h1" of a group whose server notes what it is to drop. */
class Member_Duties_Test : public testing::Test {
protected:
    Member_Duties_Test() {
        std::string error;
        auto const key = Account_Key::load(database_.directory().path("key"), error);
        instances_ = std::make_unique<SQLite_Instances>(*database_, *key, false);
        world_.methods.add("catalog.abort_open",
                           [this](Method_Call const& call, Value& result, Method_Fault& fault) {
                               std::lock_guard const guard(mutex_);
                               dropped_.push_back(call.params.get_obj());
                               changed_.notify_all();
                               result = Object();
                               if (refusals_ == 0)
                                   return true;
                               --refusals_;
                               fault = {JSON_RPC_INTERNAL_ERROR, "the disk is full", {}};
                               return false;
                           });
        duties_ = std::make_unique<Member_Duties>(*world_.member("h1").link, *instances_, "h1");
        duties_->start();
    }
    ~Member_Duties_Test() override { duties_->stop(); }

    /** Waits until that many sets were to be dropped, the ones of the start first. */
    std::vector<Object> dropped(size_t count) {
        std::unique_lock guard(mutex_);
        EXPECT_TRUE(changed_.wait_for(guard, Group_World::PATIENCE,
                                      [&] { return dropped_.size() >= count; }));
        return dropped_;
    }

    Group_World world_;
    Test_Database database_{{INSTANCE_TABLES}};
    std::unique_ptr<SQLite_Instances> instances_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Object> dropped_;
    int refusals_ = 0;
    std::unique_ptr<Member_Duties> duties_;
};

TEST_F(Member_Duties_Test, what_a_dead_agent_left_open_is_dropped_once) {
    Object const first = dropped(1).front();
    EXPECT_EQ("h1", json_spirit::object_get_str(first, "host_uuid"));
    EXPECT_GE(time(nullptr), json_spirit::object_get_int64_or_throw(first, "before"));
    EXPECT_EQ(0u, first.count("uuid"));
    duties_->drop_set_of("r1");
    EXPECT_EQ(2u, dropped(2).size());
}

TEST_F(Member_Duties_Test, the_set_of_a_failed_run_is_dropped_whenever_it_began) {
    duties_->drop_set_of("r1");
    Object const order = dropped(2).back();
    EXPECT_EQ((Object{{"host_uuid", "h1"},
                      {"before", std::numeric_limits<int64_t>::max()},
                      {"uuid", "r1"}}),
              order);
}

TEST_F(Member_Duties_Test, a_server_that_cannot_is_asked_again) {
    dropped(1);
    {
        std::lock_guard const guard(mutex_);
        refusals_ = 2;
    }
    duties_->drop_set_of("r1");
    std::vector<Object> const orders = dropped(4);
    for (size_t i = 1; i < 4; ++i)
        EXPECT_EQ("r1", json_spirit::object_get_str(orders[i], "uuid"));
    duties_->stop();
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(
                      LM_WARNING, "did not drop the set that run r1 left open: the disk is full"));
}

} // namespace
