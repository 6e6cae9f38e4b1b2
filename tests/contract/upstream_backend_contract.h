#ifndef TESTS_CONTRACT_UPSTREAM_BACKEND_CONTRACT_H
#define TESTS_CONTRACT_UPSTREAM_BACKEND_CONTRACT_H

#include "host/http/http_query_string_builder_t.h"
#include "tests/support/fake_upstream_backend.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

/**
 * A back end together with the far side that it talks to. Each implementation of Upstream_Backend
 * has one, and runs the suite below with
 *
 *     INSTANTIATE_TEST_SUITE_P(name, Upstream_Backend_Contract, testing::Values(factory));
 */
class Upstream_World {
public:
    virtual ~Upstream_World() = default;
    virtual Upstream_Backend& backend() = 0;

    /** What the server answers to REST requests and calls, and other agents to theirs. */
    virtual void serve(int method, std::string const& path, Rest_Answer answer) = 0;
    virtual void serve_call(std::string const& method, RPC_Answer answer) = 0;
    virtual void serve_forward(std::string const& host_uuid, std::string const& method,
                               RPC_Answer answer) = 0;
    /** What the server has been notified of, once there are that many. */
    virtual std::vector<std::pair<std::string, json_spirit::Value>> notifications(size_t count) = 0;
    /** From now on the server cannot be reached. */
    virtual void cut_off() = 0;
};

using Upstream_World_Factory = std::function<std::unique_ptr<Upstream_World>()>;

class Upstream_Backend_Contract : public testing::TestWithParam<Upstream_World_Factory> {
protected:
    using Array = json_spirit::Array;
    using Object = json_spirit::Object;
    using Value = json_spirit::Value;

    bool get(std::string const& path) {
        return backend_.rest(HTTP_Request(HTTP_METHOD_GET, path.c_str(), true), nullptr, response_,
                             &result_);
    }
    bool call(std::string const& method, Value const& params) {
        return backend_.call(method, params, {}, reply_);
    }

    std::unique_ptr<Upstream_World> world_ = GetParam()();
    Upstream_Backend& backend_ = world_->backend();
    HTTP_Response response_;
    Value result_ = "not yet";
    JSON_RPC_Reply reply_;
};

TEST_P(Upstream_Backend_Contract, a_resource_is_read) {
    Value const body = Object{{"rows", Array{1, "\xC3\xA4"}}};
    world_->serve(HTTP_METHOD_GET, "/d2/r/v2/resources", rest_answer(200, body));
    EXPECT_TRUE(get("/d2/r/v2/resources"));
    EXPECT_EQ(200, response_.status());
    EXPECT_EQ(body, result_);
}

TEST_P(Upstream_Backend_Contract, query_and_body_arrive_as_they_were_sent) {
    world_->serve(HTTP_METHOD_PUT, "/r",
                  [](HTTP_Query const& query, Value const& body, Value& answer) {
                      Array pairs;
                      for (auto const& [key, value] : query)
                          pairs.push_back(Array{key, value});
                      answer = Array{pairs, body};
                      return 200;
                  });
    HTTP_Request request(HTTP_METHOD_PUT, "/r", true);
    HTTP_Query_String_Builder(std::back_inserter(request.query_string_buffer()),
                              false)("instance_uuid", "a b/c&d=\xC3\xA4")("limit", 1u)("flag", "");
    Value const body = Object{{"a", Array{1, Value(), "\xC3\xA4"}}};
    EXPECT_TRUE(backend_.rest(request, &body, response_, &result_));
    EXPECT_EQ(Value(Array{Array{Array{"instance_uuid", "a b/c&d=\xC3\xA4"}, Array{"limit", "1"},
                                Array{"flag", ""}},
                          body}),
              result_);
}

TEST_P(Upstream_Backend_Contract, the_result_may_be_left_out) {
    world_->serve(HTTP_METHOD_GET, "/r", rest_answer(200, 1));
    HTTP_Request const request(HTTP_METHOD_GET, "/r", true);
    EXPECT_TRUE(backend_.rest(request, nullptr, response_, nullptr));
    EXPECT_EQ(200, response_.status());
}

TEST_P(Upstream_Backend_Contract, each_method_has_its_own_answer) {
    Value const body = Object{{"a", 1}};
    world_->serve(HTTP_METHOD_PUT, "/r", rest_answer(200, "put"));
    world_->serve(HTTP_METHOD_POST, "/r", rest_answer(201, "posted"));
    world_->serve(HTTP_METHOD_DELETE, "/r", rest_answer(200, "deleted"));
    HTTP_Request const put(HTTP_METHOD_PUT, "/r", true);
    HTTP_Request const post(HTTP_METHOD_POST, "/r", true);
    HTTP_Request const del(HTTP_METHOD_DELETE, "/r", true);
    EXPECT_TRUE(backend_.rest(put, &body, response_, &result_));
    EXPECT_EQ(Value("put"), result_);
    EXPECT_TRUE(backend_.rest(post, &body, response_, &result_));
    EXPECT_EQ(Value("posted"), result_);
    EXPECT_EQ(201, response_.status());
    EXPECT_TRUE(backend_.rest(del, nullptr, response_, &result_));
    EXPECT_EQ(Value("deleted"), result_);
}

TEST_P(Upstream_Backend_Contract, an_empty_answer_is_null) {
    world_->serve(HTTP_METHOD_GET, "/r", rest_answer(204, Value()));
    EXPECT_TRUE(get("/r"));
    EXPECT_EQ(204, response_.status());
    EXPECT_EQ(Value(), result_);
}

TEST_P(Upstream_Backend_Contract, an_error_status_is_false_with_its_body) {
    world_->serve(HTTP_METHOD_GET, "/r", rest_answer(409, Object{{"errCode", "X.1"}}));
    EXPECT_FALSE(get("/r"));
    EXPECT_EQ(409, response_.status());
    EXPECT_EQ(Value(Object{{"errCode", "X.1"}}), result_);
}

TEST_P(Upstream_Backend_Contract, what_is_not_there_is_404) {
    EXPECT_FALSE(get("/nowhere"));
    EXPECT_EQ(404, response_.status());
}

TEST_P(Upstream_Backend_Contract, a_server_that_cannot_be_reached_gives_status_0_and_says_why) {
    world_->serve(HTTP_METHOD_GET, "/r", rest_answer(200, 1));
    ASSERT_TRUE(get("/r"));
    world_->cut_off();
    EXPECT_FALSE(get("/r"));
    EXPECT_EQ(0, response_.status());
    EXPECT_NE("", response_.error());
    EXPECT_EQ("", response_.body());
    EXPECT_EQ(Value(), result_) << "nothing of an earlier answer";
}

TEST_P(Upstream_Backend_Contract, a_call_gets_the_params_there_and_the_result_back) {
    world_->serve_call("echo", [](Value const& params, JSON_RPC_Reply& reply) {
        reply.result = Array{params};
        return true;
    });
    Value const params = Object{{"resource_uuid", "u1"}, {"n", INT64_MIN}, {"x", Value()}};
    EXPECT_TRUE(call("echo", params)) << reply_.message;
    EXPECT_EQ(Value(Array{params}), reply_.result);
}

TEST_P(Upstream_Backend_Contract, a_result_may_be_of_any_kind) {
    for (Value const& result : {Value(), Value(true), Value(0), Value("x"), Value(Object())}) {
        world_->serve_call("get", rpc_result(result));
        EXPECT_TRUE(call("get", Object()));
        EXPECT_EQ(result, reply_.result);
    }
}

TEST_P(Upstream_Backend_Contract, an_error_of_a_call_comes_back_whole) {
    world_->serve_call("fail", [](Value const&, JSON_RPC_Reply& reply) {
        reply = {Value(), -32603, "Internal error: \xC3\xA4", Object{{"why", 1}}};
        return false;
    });
    EXPECT_FALSE(call("fail", Object()));
    EXPECT_EQ(-32603, reply_.code);
    EXPECT_EQ("Internal error: \xC3\xA4", reply_.message);
    EXPECT_EQ(Value(Object{{"why", 1}}), reply_.data);
    EXPECT_EQ(Value(), reply_.result);
}

TEST_P(Upstream_Backend_Contract, a_reply_has_nothing_of_the_one_before) {
    world_->serve_call("fail", rpc_error(-32603, "no"));
    world_->serve_call("work", rpc_result(1));
    EXPECT_FALSE(call("fail", Object()));
    EXPECT_TRUE(call("work", Object()));
    EXPECT_EQ(0, reply_.code);
    EXPECT_EQ("", reply_.message);
    EXPECT_FALSE(call("fail", Object()));
    EXPECT_EQ(Value(), reply_.result);
}

TEST_P(Upstream_Backend_Contract, a_method_that_nobody_serves_is_not_found) {
    EXPECT_FALSE(call("no.such.method", Object()));
    EXPECT_EQ(JSON_RPC_METHOD_NOT_FOUND, reply_.code);
}

TEST_P(Upstream_Backend_Contract, a_call_to_a_server_that_cannot_be_reached_says_so) {
    world_->serve_call("work", rpc_result(1));
    world_->cut_off();
    EXPECT_FALSE(call("work", Object()));
    EXPECT_EQ(JSON_RPC_UNREACHABLE, reply_.code);
    EXPECT_NE("", reply_.message);
}

TEST_P(Upstream_Backend_Contract, a_forward_reaches_the_agent_that_is_named) {
    world_->serve_forward("host-1", "gaussdb.roach_source", rpc_result("one"));
    world_->serve_forward("host-2", "gaussdb.roach_source", rpc_result("two"));
    EXPECT_TRUE(backend_.forward("host-2", "gaussdb.roach_source", Object(), reply_));
    EXPECT_EQ(Value("two"), reply_.result);
    EXPECT_TRUE(backend_.forward("host-1", "gaussdb.roach_source", Object(), reply_));
    EXPECT_EQ(Value("one"), reply_.result);
}

TEST_P(Upstream_Backend_Contract, an_error_of_the_agent_comes_back_whole) {
    world_->serve_forward("host-1", "m", rpc_error(-32602, "Invalid params\n"));
    EXPECT_FALSE(backend_.forward("host-1", "m", Object(), reply_));
    EXPECT_EQ(-32602, reply_.code);
    EXPECT_EQ("Invalid params\n", reply_.message);
}

TEST_P(Upstream_Backend_Contract, an_agent_that_is_not_known_is_unreachable) {
    world_->serve_call("m", rpc_result("the server, not an agent"));
    for (char const* host : {"nobody", ""}) {
        EXPECT_FALSE(backend_.forward(host, "m", Object(), reply_));
        EXPECT_EQ(JSON_RPC_UNREACHABLE, reply_.code) << host;
        EXPECT_NE("", reply_.message);
    }
}

TEST_P(Upstream_Backend_Contract, notifications_arrive_in_order) {
    std::string error;
    EXPECT_TRUE(backend_.notify("backupd.instance.notify", Object{{"name", "a"}}, error));
    EXPECT_TRUE(backend_.notify("backupd.instance.notify", Object{{"name", "b"}}, error));
    auto const seen = world_->notifications(2);
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ("backupd.instance.notify", seen[0].first);
    EXPECT_EQ(Value(Object{{"name", "a"}}), seen[0].second);
    EXPECT_EQ(Value(Object{{"name", "b"}}), seen[1].second);
}

TEST_P(Upstream_Backend_Contract, a_notification_that_cannot_be_sent_says_why) {
    world_->cut_off();
    std::string error;
    EXPECT_FALSE(backend_.notify("m", Object(), error));
    EXPECT_NE("", error);
}

TEST_P(Upstream_Backend_Contract, several_threads_get_each_its_own_answers) {
    constexpr int ROUNDS = 25;
    auto const echo = [](Value const& params, JSON_RPC_Reply& reply) {
        reply.result = params;
        return true;
    };
    world_->serve_call("echo", echo);
    world_->serve_forward("host-1", "echo", echo);
    auto const run = [&](int thread) {
        world_->serve(HTTP_METHOD_GET, "/r" + std::to_string(thread), rest_answer(200, thread));
        for (int round = 0; round < ROUNDS; ++round) {
            Value const params = Object{{"thread", thread}, {"round", round}};
            HTTP_Request const request(HTTP_METHOD_GET, ("/r" + std::to_string(thread)).c_str(),
                                       true);
            JSON_RPC_Reply reply;
            HTTP_Response response;
            Value result;
            EXPECT_TRUE(backend_.call("echo", params, {}, reply));
            EXPECT_EQ(params, reply.result);
            EXPECT_TRUE(backend_.forward("host-1", "echo", params, reply));
            EXPECT_EQ(params, reply.result);
            EXPECT_TRUE(backend_.rest(request, nullptr, response, &result));
            EXPECT_EQ(Value(thread), result);
        }
    };
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back(run, thread);
    for (std::thread& thread : threads)
        thread.join();
}

#endif
