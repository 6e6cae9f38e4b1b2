#include "host/rpc/json_rpc_session.h"

#include "tests/support/log_capture.h"
#include "tests/support/recording_channel.h"

#include <gtest/gtest.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr std::chrono::seconds LONG_ENOUGH{60};

JSON_RPC_Object_var request_of(char const* method, Value const& params) {
    JSON_RPC_Object_var object;
    EXPECT_TRUE(JSON_RPC_Session::make_rpc_request(method, params, object));
    return object;
}

TEST(JSON_RPC_Session, makes_requests_with_ids_of_their_own) {
    JSON_RPC_Object_var const first = request_of("m", Object{{"a", 1}});
    JSON_RPC_Object_var const second = request_of("m", Array{});
    request_of("m", Value());
    ASSERT_EQ(JSON_RPC_Object::TYPE_REQUEST, first->type());
    auto const& request = static_cast<JSON_RPC_Request const&>(*first);
    EXPECT_EQ("m", request.method());
    EXPECT_EQ(Value(Object{{"a", 1}}), request.params());
    EXPECT_FALSE(request.id() == static_cast<JSON_RPC_Request const&>(*second).id());
}

TEST(JSON_RPC_Session, a_request_without_a_method_cannot_be_made) {
    JSON_RPC_Object_var object;
    EXPECT_FALSE(JSON_RPC_Session::make_rpc_request(nullptr, Value(), object));
    EXPECT_CHECK_LOGGED("method is NULL or \"\"");
    EXPECT_FALSE(JSON_RPC_Session::make_rpc_request("", Value(), object));
    EXPECT_CHECK_LOGGED("method is NULL or \"\"");
    EXPECT_EQ(nullptr, object.get());
}

TEST(JSON_RPC_Session, params_are_an_object_an_array_or_none) {
    JSON_RPC_Object_var object;
    for (Value const& params : {Value(1), Value("x"), Value(true)}) {
        EXPECT_FALSE(JSON_RPC_Session::make_rpc_request("m", params, object));
        EXPECT_LOGGED(LM_ERROR, "The params of JSON-RPC 'm' are neither object nor array\n");
    }
    EXPECT_EQ(nullptr, object.get());
}

TEST(JSON_RPC_Session, a_request_goes_out_as_a_notification_without_an_id) {
    Recording_Channel channel;
    JSON_RPC_Session session(&channel);
    EXPECT_EQ(0,
              session.notify(request_of("backupd.instance.notify", Object{{"type", "gaussdb"}})));
    EXPECT_EQ(0, session.notify(JSON_RPC_Object_var(new JSON_RPC_Notify("n", Value()))));
    ASSERT_EQ(2u, channel.sent().size());
    EXPECT_EQ(JSON_RPC_Notify("backupd.instance.notify", Object{{"type", "gaussdb"}}).value(),
              channel.sent()[0]);
    EXPECT_EQ(JSON_RPC_Notify("n", Value()).value(), channel.sent()[1]);
}

TEST(JSON_RPC_Session, notify_returns_what_the_channel_returns) {
    Recording_Channel channel;
    channel.outcome = -1;
    EXPECT_EQ(-1, JSON_RPC_Session(&channel).notify(request_of("m", Value())));
}

TEST(JSON_RPC_Session, a_response_is_nothing_to_notify_or_request_with) {
    Recording_Channel channel;
    JSON_RPC_Session session(&channel);
    JSON_RPC_Object_var const response(new JSON_RPC_Response(1, 2));
    JSON_RPC_Reply reply;
    EXPECT_EQ(-1, session.notify(response));
    EXPECT_LOGGED(LM_ERROR, "Refused to notify with a JSON-RPC object that has no method\n");
    EXPECT_FALSE(session.request(response, LONG_ENOUGH, reply));
    EXPECT_LOGGED(LM_ERROR, "Refused to request with a JSON-RPC object that is no request\n");
    EXPECT_EQ(JSON_RPC_INTERNAL_ERROR, reply.code);
    EXPECT_TRUE(channel.sent().empty());
}

TEST(JSON_RPC_Session, no_object_or_channel_is_a_broken_precondition) {
    Recording_Channel channel;
    JSON_RPC_Reply reply;
    EXPECT_EQ(-1, JSON_RPC_Session(&channel).notify(JSON_RPC_Object_var()));
    EXPECT_CHECK_LOGGED("object.get() is NULL");
    EXPECT_FALSE(JSON_RPC_Session(&channel).request(JSON_RPC_Object_var(), LONG_ENOUGH, reply));
    EXPECT_CHECK_LOGGED("object.get() is NULL");
    EXPECT_EQ(-1, JSON_RPC_Session(nullptr).notify(request_of("m", Value())));
    EXPECT_CHECK_LOGGED("channel_ is NULL");
    EXPECT_FALSE(JSON_RPC_Session(nullptr).request(request_of("m", Value()), LONG_ENOUGH, reply));
    EXPECT_CHECK_LOGGED("channel_ is NULL");
    EXPECT_NE("", reply.message);
}

TEST(JSON_RPC_Session, request_waits_for_the_reply) {
    Recording_Channel channel;
    channel.on_send = [&](JSON_RPC_Object const& object) {
        auto const& request = static_cast<JSON_RPC_Request const&>(object);
        channel.handle_reply(JSON_RPC_Response(request.id(), request.params()));
    };
    JSON_RPC_Reply reply;
    EXPECT_TRUE(JSON_RPC_Session(&channel).request(request_of("m", Array{1}), LONG_ENOUGH, reply));
    EXPECT_EQ(Value(Array{1}), reply.result);
}

} // namespace
