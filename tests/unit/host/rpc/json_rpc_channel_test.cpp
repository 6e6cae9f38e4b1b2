#include "host/rpc/json_rpc_channel.h"

#include "tests/support/log_capture.h"
#include "tests/support/recording_channel.h"

#include <gtest/gtest.h>
#include <thread>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr std::chrono::seconds LONG{60};
constexpr std::chrono::milliseconds SHORT{20};

TEST(JSON_RPC_Channel, sends_objects_and_their_holders) {
    Recording_Channel channel;
    JSON_RPC_Object_var const held(new JSON_RPC_Response(1, "a"));
    EXPECT_EQ(0, channel.send(held));
    EXPECT_EQ(0, channel.send(JSON_RPC_Notify("m", Value())));
    ASSERT_EQ(2u, channel.sent().size());
    EXPECT_EQ(held->value(), channel.sent()[0]);
    channel.outcome = -1;
    EXPECT_EQ(-1, channel.send(held));
}

TEST(JSON_RPC_Channel, a_null_object_is_a_broken_precondition) {
    Recording_Channel channel;
    EXPECT_EQ(-1, channel.send(JSON_RPC_Object_var()));
    EXPECT_CHECK_LOGGED("object.get() is NULL");
    EXPECT_TRUE(channel.sent().empty());
}

TEST(JSON_RPC_Channel, send_error_makes_the_error_reply) {
    Recording_Channel channel;
    EXPECT_EQ(0, channel.send_error(-32602, "id", "Invalid params", Value::null));
    EXPECT_EQ(0, channel.send_error(-32603, 2, nullptr, Array{1}));
    EXPECT_EQ(JSON_RPC_Response_Error(-32602, "id", "Invalid params", Value()).value(),
              channel.sent().at(0));
    EXPECT_EQ(JSON_RPC_Response_Error(-32603, 2, "", Array{1}).value(), channel.sent().at(1));
    channel.outcome = -1;
    EXPECT_EQ(-1, channel.send_error(1, 2, "x"));
}

TEST(JSON_RPC_Channel, a_weak_holder_sees_that_the_channel_has_gone) {
    JSON_RPC_Channel_var strong(new Recording_Channel);
    JSON_RPC_Channel_ptr const weak(strong);
    EXPECT_FALSE(JSON_RPC_Channel_var(weak).null());
    strong.reset(nullptr);
    EXPECT_TRUE(JSON_RPC_Channel_var(weak).null());
}

TEST(JSON_RPC_Channel_request, waits_for_the_reply_with_its_id) {
    Recording_Channel channel;
    std::thread peer([&] {
        channel.await(1);
        EXPECT_FALSE(channel.handle_reply(JSON_RPC_Response("other", 1)));
        EXPECT_FALSE(channel.handle_reply(JSON_RPC_Response(7, 1))) << "7 is not \"7\"";
        EXPECT_TRUE(channel.handle_reply(JSON_RPC_Response("7", Object{{"a", 1}})));
        EXPECT_FALSE(channel.handle_reply(JSON_RPC_Response("7", 2))) << "answered already";
    });
    JSON_RPC_Reply reply;
    EXPECT_TRUE(channel.request(JSON_RPC_Request("7", "m", Value()), LONG, reply));
    peer.join();
    EXPECT_EQ(Value(Object{{"a", 1}}), reply.result);
    EXPECT_EQ(0, reply.code);
}

TEST(JSON_RPC_Channel_request, an_error_of_the_peer_is_false) {
    Recording_Channel channel;
    channel.on_send = [&](JSON_RPC_Object const&) { // even before send() has returned
        channel.handle_reply(JSON_RPC_Response_Error(-32601, 7, "Method not found", "d"));
    };
    JSON_RPC_Reply reply;
    reply.result = "old";
    EXPECT_FALSE(channel.request(JSON_RPC_Request(7, "m", Value()), LONG, reply));
    EXPECT_EQ(-32601, reply.code);
    EXPECT_EQ("Method not found", reply.message);
    EXPECT_EQ(Value("d"), reply.data);
    EXPECT_EQ(Value(), reply.result);
}

TEST(JSON_RPC_Channel_request, without_a_reply_it_ends_after_its_time) {
    Recording_Channel channel;
    JSON_RPC_Reply reply;
    EXPECT_FALSE(channel.request(JSON_RPC_Request(7, "m", Value()), SHORT, reply));
    EXPECT_EQ(JSON_RPC_TIMEOUT, reply.code);
    EXPECT_NE("", reply.message);
    EXPECT_FALSE(channel.handle_reply(JSON_RPC_Response(7, 1))) << "nobody waits any more";
    channel.on_send = [&](JSON_RPC_Object const&) {
        channel.handle_reply(JSON_RPC_Response(7, 2));
    };
    EXPECT_TRUE(channel.request(JSON_RPC_Request(7, "m", Value()), LONG, reply))
        << "the id is free";
}

TEST(JSON_RPC_Channel_request, a_request_that_cannot_be_sent_does_not_wait) {
    Recording_Channel channel;
    channel.outcome = -1;
    JSON_RPC_Reply reply;
    EXPECT_FALSE(channel.request(JSON_RPC_Request(7, "m", Value()), LONG, reply));
    EXPECT_EQ(JSON_RPC_UNREACHABLE, reply.code);
}

TEST(JSON_RPC_Channel_request, all_that_wait_hear_that_the_peer_has_gone) {
    Recording_Channel channel;
    auto const wait = [&](int id) {
        JSON_RPC_Reply reply;
        EXPECT_FALSE(channel.request(JSON_RPC_Request(id, "m", Value()), LONG, reply));
        EXPECT_EQ(JSON_RPC_UNREACHABLE, reply.code);
    };
    std::thread first(wait, 1);
    std::thread second(wait, 2);
    channel.await(2);
    channel.peer_gone();
    first.join();
    second.join();
    wait(3);
    EXPECT_EQ(2u, channel.sent().size()) << "nothing is sent to a peer that has gone";
}

TEST(JSON_RPC_Channel_request, two_requests_of_one_id_cannot_wait_at_once) {
    Recording_Channel channel;
    std::thread first([&] {
        JSON_RPC_Reply reply;
        EXPECT_TRUE(channel.request(JSON_RPC_Request(7, "m", Value()), LONG, reply));
    });
    channel.await(1);
    JSON_RPC_Reply reply;
    EXPECT_FALSE(channel.request(JSON_RPC_Request(7, "m", Value()), LONG, reply));
    EXPECT_EQ(JSON_RPC_INTERNAL_ERROR, reply.code);
    EXPECT_TRUE(channel.handle_reply(JSON_RPC_Response(7, 1)));
    first.join();
}

TEST(JSON_RPC_Channel_request, replies_may_come_in_any_order) {
    Recording_Channel channel;
    auto const ask = [&](int id) {
        JSON_RPC_Reply reply;
        EXPECT_TRUE(channel.request(JSON_RPC_Request(id, "m", Value()), LONG, reply));
        EXPECT_EQ(Value(id * 10), reply.result);
    };
    std::vector<std::thread> threads;
    for (int id = 1; id <= 4; ++id)
        threads.emplace_back(ask, id);
    channel.await(4);
    for (int id = 4; id >= 1; --id)
        EXPECT_TRUE(channel.handle_reply(JSON_RPC_Response(id, id * 10)));
    for (std::thread& thread : threads)
        thread.join();
}

TEST(JSON_RPC_Channel_request, what_is_no_response_is_no_reply) {
    Recording_Channel channel;
    EXPECT_FALSE(channel.handle_reply(JSON_RPC_Request(7, "m", Value())));
    EXPECT_FALSE(channel.handle_reply(JSON_RPC_Notify("m", Value())));
    EXPECT_FALSE(channel.handle_reply(JSON_RPC_Object()));
}

} // namespace
