#include "host/rpc/global_json_rpc_channel.h"

#include "host/rpc/json_rpc_session.h"
#include "tests/support/fake_upstream_backend.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr std::chrono::milliseconds TIME{1500};

class Global_JSON_RPC_Channel_Test : public testing::Test {
protected:
    JSON_RPC_Object_var request() {
        JSON_RPC_Object_var object;
        JSON_RPC_Session::make_rpc_request("backupd.instance.notify", Object{{"a", 1}}, object);
        return object;
    }
    Scoped_Fake_Upstream upstream_;
    JSON_RPC_Session session_{Global_JSON_RPC_Channel::instance()};
    JSON_RPC_Reply reply_;
};

TEST_F(Global_JSON_RPC_Channel_Test, a_notification_goes_to_the_server) {
    EXPECT_EQ(0, session_.notify(request()));
    ASSERT_EQ(1u, upstream_->notifications().size());
    EXPECT_EQ("backupd.instance.notify", upstream_->notifications()[0].first);
    EXPECT_EQ(Value(Object{{"a", 1}}), upstream_->notifications()[0].second);
}

TEST_F(Global_JSON_RPC_Channel_Test, a_request_is_a_call_of_the_server) {
    upstream_->serve_call("backupd.instance.notify", rpc_result(true));
    EXPECT_TRUE(session_.request(request(), TIME, reply_));
    EXPECT_EQ(Value(true), reply_.result);
    ASSERT_EQ(1u, upstream_->rpc_calls().size());
    EXPECT_EQ("", upstream_->rpc_calls()[0].host_uuid);
    EXPECT_EQ(2, upstream_->rpc_calls()[0].limits.answer) << "rounded up to seconds";
}

TEST_F(Global_JSON_RPC_Channel_Test, a_failure_of_the_server_is_the_reply) {
    EXPECT_FALSE(session_.request(request(), TIME, reply_));
    EXPECT_EQ(JSON_RPC_METHOD_NOT_FOUND, reply_.code);
    upstream_->reachable(false);
    EXPECT_EQ(-1, session_.notify(request()));
    EXPECT_LOGGED(LM_ERROR, "Failed to notify the server of 'backupd.instance.notify', the server "
                            "cannot be reached\n");
}

TEST_F(Global_JSON_RPC_Channel_Test, without_a_back_end_nothing_can_be_sent) {
    Host_Services::instance().upstream(nullptr);
    EXPECT_EQ(-1, session_.notify(request()));
    EXPECT_LOGGED(LM_ERROR, "there is no upstream server");
    EXPECT_FALSE(session_.request(request(), TIME, reply_));
    EXPECT_EQ(JSON_RPC_UNREACHABLE, reply_.code);
    EXPECT_NE("", reply_.message);
}

TEST_F(Global_JSON_RPC_Channel_Test, responses_do_not_go_this_way) {
    EXPECT_EQ(-1, Global_JSON_RPC_Channel::instance()->send(JSON_RPC_Response(1, 2)));
    EXPECT_LOGGED(LM_ERROR, "Refused a JSON-RPC message to the server that is no notification\n");
}

TEST_F(Global_JSON_RPC_Channel_Test, there_is_one) {
    EXPECT_EQ(Global_JSON_RPC_Channel::instance(), Global_JSON_RPC_Channel::instance());
}

} // namespace
