#include "host/rpc/json_rpc_handler.h"

#include "tests/support/log_capture.h"
#include "tests/support/recording_channel.h"

#include <gtest/gtest.h>
#include <stdexcept>

using json_spirit::Value;

namespace {

class JSON_RPC_Handler_Test : public testing::Test {
protected:
    std::vector<Value> sent() { return static_cast<Recording_Channel&>(*channel_).sent(); }

    JSON_RPC_Channel_var channel_{new Recording_Channel};
    JSON_RPC_Object_var request_{new JSON_RPC_Request("i", "some.method", Value())};
    JSON_RPC_Object_var notify_{new JSON_RPC_Notify("some.notice", Value())};
    JSON_RPC_Object_var response_{new JSON_RPC_Response(1, Value())};
};

TEST_F(JSON_RPC_Handler_Test, init_and_fini_do_nothing_unless_overridden) {
    struct Handler : JSON_RPC_Handler {
        int handle_object(JSON_RPC_Channel_ptr, JSON_RPC_Object_var) override { return 7; }
    };
    Handler handler;
    EXPECT_EQ(0, handler.init(0, nullptr));
    EXPECT_EQ(7, handler.handle_object(channel_, request_));
    EXPECT_EQ(0, handler.fini());
}

TEST_F(JSON_RPC_Handler_Test, what_a_handler_returns_is_passed_on) {
    EXPECT_EQ(5, guard_json_rpc_handler(channel_, request_, [] { return 5; }));
    EXPECT_TRUE(sent().empty());
}

TEST_F(JSON_RPC_Handler_Test, an_exception_becomes_an_internal_error_without_its_text) {
    EXPECT_EQ(-1, guard_json_rpc_handler(channel_, request_, []() -> int {
        throw std::runtime_error("key \"name\" is missing\nforged");
    }));
    EXPECT_LOGGED(LM_ERROR, "The handler of JSON-RPC 'some.method' ended with an exception, key "
                            "\"name\" is missing?forged\n");
    ASSERT_EQ(1u, sent().size());
    EXPECT_EQ(JSON_RPC_Response_Error(-32603, "i", "Internal error", Value()).value(), sent()[0]);
}

TEST_F(JSON_RPC_Handler_Test, an_exception_of_a_notification_or_response_is_only_logged) {
    auto const fail = []() -> int { throw std::bad_alloc(); };
    EXPECT_EQ(-1, guard_json_rpc_handler(channel_, notify_, fail));
    EXPECT_LOGGED(LM_ERROR, "'some.notice'");
    EXPECT_EQ(-1, guard_json_rpc_handler(channel_, response_, fail));
    EXPECT_LOGGED(LM_ERROR, "'response'");
    EXPECT_TRUE(sent().empty());
}

TEST_F(JSON_RPC_Handler_Test, an_exception_after_the_peer_has_gone_is_only_logged) {
    JSON_RPC_Channel_ptr const weak(channel_);
    channel_.reset(nullptr);
    EXPECT_EQ(
        -1, guard_json_rpc_handler(weak, request_, []() -> int { throw std::runtime_error("x"); }));
    EXPECT_LOGGED(LM_ERROR, "'some.method'");
}

TEST_F(JSON_RPC_Handler_Test, only_a_request_is_refused_with_an_answer) {
    refuse_json_rpc_request(channel_, request_, -32000, "Server is busy");
    refuse_json_rpc_request(channel_, notify_, -32000, "Server is busy");
    refuse_json_rpc_request(channel_, response_, -32000, "Server is busy");
    ASSERT_EQ(1u, sent().size());
    EXPECT_EQ(JSON_RPC_Response_Error(-32000, "i", "Server is busy", Value()).value(), sent()[0]);
}

} // namespace
