#include "agent/rpc/method_table.h"

#include "host/rpc/json_rpc_thread_pool_handler.h"
#include "json_spirit/access.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_channel.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <thread>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using namespace std::chrono_literals;

namespace {

constexpr uid_t SOME_UID = 61234;

Agent_Method echo() {
    return [](Method_Call const& call, Value& result, Method_Fault&) {
        result = Object{
            {"method", call.method}, {"params", call.params}, {"caller", call.caller.text()}};
        return true;
    };
}

/** A handler of the module's kind, with a pool of its own. */
class Handler : public JSON_RPC_Thread_Pool_Handler_Impl {
public:
    ~Handler() override { fini(); }
    int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request) override {
        if (request.method() == "silent")
            return -1;
        JSON_RPC_Response response(&request);
        response.result(Array{"handled", request.params()});
        return channel->send(response);
    }
};

class Method_Table_Test : public testing::Test {
protected:
    int request(std::string const& method, Value const& params) {
        return table_.handle(channel_,
                             JSON_RPC_Object_var(new JSON_RPC_Request(++id_, method, params)),
                             Rpc_Caller::local());
    }
    Value reply() { return recording_->await(static_cast<size_t>(id_)).back(); }
    Value error(char const* key) {
        return object_get_any(object_get_any(reply().get_obj(), "error").get_obj(), key);
    }

    Recording_Channel* recording_ = new Recording_Channel;
    JSON_RPC_Channel_var channel_{recording_};
    Method_Table table_{2, 4};
    int id_ = 0;
};

} // namespace

TEST_F(Method_Table_Test, params_with_what_is_no_text_reach_neither_a_method_nor_a_handler) {
    table_.add("method", echo());
    table_.bind("handler", std::make_shared<Handler>());
    std::string const nul("a\0b", 3);
    for (char const* method : {"method", "handler"})
        for (Value const& params :
             {Value(Object{{"x", Object{{"y", Array{nul}}}}}), Value(Object{{"a\nb", 1}}),
              Value(Object{{"x", std::string(1, '\xff')}}), Value(Object{{nul, 1}})}) {
            request(method, params);
            EXPECT_EQ(Value(JSON_RPC_INVALID_PARAMS), error("code"));
            EXPECT_TRUE(error("message").get_str().starts_with("Invalid params: "));
            JSON_RPC_Reply inside;
            EXPECT_FALSE(
                table_.call(method, params, Rpc_Caller::local(), std::chrono::seconds(5), inside));
            EXPECT_EQ(JSON_RPC_INVALID_PARAMS, inside.code);
        }
    table_.remove("handler");
}

TEST_F(Method_Table_Test, a_method_gets_name_params_and_caller_and_its_result_is_the_reply) {
    table_.add("echo", echo());
    EXPECT_EQ(0, request("echo", Object{{"a", 1}}));
    EXPECT_EQ(Value(Object{{"jsonrpc", "2.0"},
                           {"id", 1},
                           {"result", Object{{"method", "echo"},
                                             {"params", Object{{"a", 1}}},
                                             {"caller", "the local administrator"}}}}),
              reply());
}

TEST_F(Method_Table_Test, no_params_are_an_empty_object) {
    table_.add("echo", echo());
    request("echo", Value());
    EXPECT_EQ(Value(Object()),
              object_get_any(object_get_any(reply().get_obj(), "result").get_obj(), "params"));
}

TEST_F(Method_Table_Test, params_that_are_no_object_are_refused) {
    table_.add("echo", echo());
    for (Value const& params : {Value(Array{1}), Value("x"), Value(1), Value(true)}) {
        request("echo", params);
        EXPECT_EQ(Value(JSON_RPC_INVALID_PARAMS), error("code"));
    }
}

TEST_F(Method_Table_Test, a_fault_comes_with_code_message_and_data) {
    table_.add("fail", [](Method_Call const&, Value&, Method_Fault& fault) {
        fault = {AGENT_RPC_NOT_FOUND, "no such pool", Object{{"what", "pool"}}};
        return false;
    });
    request("fail", Object());
    EXPECT_EQ(Value(-32004), error("code"));
    EXPECT_EQ(Value("no such pool"), error("message"));
    EXPECT_EQ(Value(Object{{"what", "pool"}}), error("data"));
}

TEST_F(Method_Table_Test, a_param_that_an_extractor_refuses_is_an_invalid_param_by_name) {
    table_.add("read", [](Method_Call const& call, Value&, Method_Fault&) {
        std::string pool;
        extract_or_throw(call.params.get_obj())("pool", pool);
        return true;
    });
    request("read", Object{{"pool", 1}});
    EXPECT_EQ(Value(JSON_RPC_INVALID_PARAMS), error("code"));
    EXPECT_NE(std::string::npos, error("message").get_str().find("pool"));
}

TEST_F(Method_Table_Test, another_exception_is_logged_and_tells_the_caller_nothing) {
    table_.add("throw", [](Method_Call const&, Value&, Method_Fault&) -> bool {
        throw std::runtime_error("inner secret");
    });
    request("throw", Object());
    EXPECT_EQ(Value(JSON_RPC_INTERNAL_ERROR), error("code"));
    EXPECT_EQ(Value("Internal error"), error("message"));
    EXPECT_LOGGED(LM_ERROR, "inner secret");
    JSON_RPC_Reply answer;
    EXPECT_FALSE(table_.call("throw", Object(), Rpc_Caller::local(), 10s, answer));
    EXPECT_EQ(JSON_RPC_INTERNAL_ERROR, answer.code);
    EXPECT_EQ("Internal error", answer.message);
    EXPECT_LOGGED(LM_ERROR, "inner secret");
}

TEST_F(Method_Table_Test, an_unknown_method_is_not_found) {
    EXPECT_EQ(-1, request("nothing", Object()));
    EXPECT_EQ(Value(JSON_RPC_METHOD_NOT_FOUND), error("code"));
}

TEST_F(Method_Table_Test, a_bound_handler_gets_the_message_itself) {
    table_.bind("gaussdb.list", std::make_shared<Handler>());
    request("gaussdb.list", Value());
    EXPECT_EQ(Value(Array{"handled", Value()}), object_get_any(reply().get_obj(), "result"));
    request("gaussdb.list", Array{1});
    EXPECT_EQ(Value(Array{"handled", Array{1}}), object_get_any(reply().get_obj(), "result"));
}

TEST_F(Method_Table_Test, the_last_one_added_serves) {
    table_.bind("m", std::make_shared<Handler>());
    table_.add("m", echo());
    table_.add("a", echo());
    EXPECT_EQ((std::vector<std::string>{"a", "m"}), table_.names());
    request("m", Object());
    EXPECT_EQ(Value("m"),
              object_get_any(object_get_any(reply().get_obj(), "result").get_obj(), "method"));
    table_.remove("m");
    table_.remove("m");
    EXPECT_EQ(std::vector<std::string>{"a"}, table_.names());
    request("m", Object());
    EXPECT_EQ(Value(JSON_RPC_METHOD_NOT_FOUND), error("code"));
}

TEST_F(Method_Table_Test, what_is_too_much_is_answered_with_busy) {
    std::promise<void> opened;
    auto const gate = opened.get_future().share();
    table_.add("wait", [gate](Method_Call const&, Value&, Method_Fault&) {
        gate.wait();
        return true;
    });
    for (int i = 0; i < 2 + 4; ++i)
        EXPECT_EQ(0, request("wait", Object()));
    EXPECT_EQ(-1, request("wait", Object()));
    EXPECT_EQ(Value(JSON_RPC_BUSY),
              object_get_any(object_get_any(recording_->await(1)[0].get_obj(), "error").get_obj(),
                             "code"));
    EXPECT_LOGGED(LM_ERROR, "Server is busy");
    opened.set_value();
    EXPECT_EQ(7u, recording_->await(7).size());
}

TEST_F(Method_Table_Test, notifications_are_handled_in_order_and_answered_by_nothing) {
    std::mutex mutex;
    std::vector<int> seen;
    std::promise<void> all;
    table_.add("note", [&](Method_Call const& call, Value& result, Method_Fault&) {
        std::lock_guard const guard(mutex);
        seen.push_back(object_get_any(call.params.get_obj(), "n").get_int());
        if (seen.size() == 200)
            all.set_value();
        result = "nobody sees this";
        return true;
    });
    for (int i = 0; i < 200; ++i)
        table_.handle(channel_, JSON_RPC_Object_var(new JSON_RPC_Notify("note", Object{{"n", i}})),
                      Rpc_Caller::local());
    all.get_future().wait();
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(i, seen[static_cast<size_t>(i)]);
    table_.stop();
    EXPECT_EQ(0u, recording_->sent().size());
}

TEST_F(Method_Table_Test, a_notification_that_fails_is_logged) {
    table_.add("note", [](Method_Call const&, Value&, Method_Fault& fault) {
        fault.message = "it broke\nhere";
        return false;
    });
    table_.handle(channel_, JSON_RPC_Object_var(new JSON_RPC_Notify("note", Object())),
                  Rpc_Caller::local());
    table_.handle(channel_, JSON_RPC_Object_var(new JSON_RPC_Notify("unknown", Object())),
                  Rpc_Caller::local());
    while (!Log_Capture::instance().contains("it broke?here"))
        std::this_thread::yield();
    EXPECT_LOGGED(LM_ERROR, "Failed to handle the notification 'note'");
    EXPECT_EQ(0u, recording_->sent().size());
}

TEST_F(Method_Table_Test, a_call_from_within_gets_the_result_or_the_whole_fault) {
    table_.add("echo", echo());
    table_.bind("handled", std::make_shared<Handler>());
    table_.add("fail", [](Method_Call const&, Value&, Method_Fault& fault) {
        fault = {-32005, "refused", 7};
        return false;
    });
    JSON_RPC_Reply answer;
    EXPECT_TRUE(table_.call("echo", Value(), Rpc_Caller::local(), 10s, answer));
    EXPECT_EQ(Value("the local administrator"), object_get_any(answer.result.get_obj(), "caller"));
    EXPECT_TRUE(table_.call("handled", 5, Rpc_Caller::local(), 10s, answer)) << answer.message;
    EXPECT_EQ(Value(Array{"handled", 5}), answer.result);
    EXPECT_FALSE(table_.call("fail", Object(), Rpc_Caller::local(), 10s, answer));
    EXPECT_EQ(-32005, answer.code);
    EXPECT_EQ("refused", answer.message);
    EXPECT_EQ(Value(7), answer.data);
    EXPECT_EQ(Value(), answer.result);
    EXPECT_FALSE(table_.call("nothing", Object(), Rpc_Caller::local(), 10s, answer));
    EXPECT_EQ(JSON_RPC_METHOD_NOT_FOUND, answer.code);
}

TEST_F(Method_Table_Test, a_handler_that_never_answers_a_call_is_a_time_out) {
    table_.bind("silent", std::make_shared<Handler>());
    JSON_RPC_Reply answer;
    EXPECT_FALSE(table_.call("silent", Object(), Rpc_Caller::local(), 1ms, answer));
    EXPECT_EQ(JSON_RPC_TIMEOUT, answer.code);
}

TEST_F(Method_Table_Test, a_response_goes_to_who_waits_for_it) {
    recording_->on_send = [this](JSON_RPC_Object const& object) {
        auto const& id = static_cast<JSON_RPC_Request const&>(object).id();
        EXPECT_EQ(0, table_.handle(channel_, JSON_RPC_Object_var(new JSON_RPC_Response(id, "x")),
                                   Rpc_Caller::local()));
    };
    JSON_RPC_Reply answer;
    EXPECT_TRUE(channel_->request(JSON_RPC_Request("q", "m", Value()), 10s, answer));
    EXPECT_EQ(Value("x"), answer.result);
    EXPECT_EQ(-1, table_.handle(channel_, JSON_RPC_Object_var(new JSON_RPC_Response("q", "x")),
                                Rpc_Caller::local()));
}

TEST_F(Method_Table_Test, one_who_has_gone_gets_no_answer_and_does_no_harm) {
    table_.add("echo", echo());
    JSON_RPC_Channel_ptr gone;
    {
        JSON_RPC_Channel_var const other(new Recording_Channel);
        gone = other;
    }
    table_.handle(gone, JSON_RPC_Object_var(new JSON_RPC_Request(1, "echo", Object())),
                  Rpc_Caller::local());
    table_.handle(gone, JSON_RPC_Object_var(new JSON_RPC_Request(1, "nothing", Object())),
                  Rpc_Caller::local());
    request("echo", Object());
    EXPECT_EQ(1u, recording_->await(1).size());
}

TEST_F(Method_Table_Test, after_stop_requests_are_refused) {
    table_.add("echo", echo());
    table_.stop();
    table_.stop();
    EXPECT_EQ(-1, request("echo", Object()));
    EXPECT_EQ(Value(JSON_RPC_BUSY), error("code"));
    EXPECT_LOGGED(LM_ERROR, "shutting down");
}

TEST_F(Method_Table_Test, without_a_gate_only_local_callers_are_served) {
    table_.add("echo", echo());
    table_.bind("handled", std::make_shared<Handler>());
    JSON_RPC_Reply answer;
    for (Rpc_Caller const& caller : {Rpc_Caller(), Rpc_Caller::admin(), Rpc_Caller::backupd()})
        for (char const* method : {"echo", "handled"}) {
            EXPECT_FALSE(table_.call(method, Object(), caller, 10s, answer));
            EXPECT_EQ(AGENT_RPC_REFUSED, answer.code);
            table_.handle(channel_, JSON_RPC_Object_var(new JSON_RPC_Request(++id_, method, {})),
                          caller);
            EXPECT_EQ(Value(AGENT_RPC_REFUSED), error("code"));
        }
}

TEST_F(Method_Table_Test, calls_that_the_gate_lets_through_are_audited_with_their_outcome) {
    std::vector<std::string> audited;
    table_.audit([&](Method_Call const& call, int code, std::string const& message) {
        audited.push_back(call.method + " " + std::to_string(code) + " " + message);
    });
    table_.gate([](Method_Call const& call, Method_Fault&) { return call.method != "closed"; });
    table_.add("good", echo());
    table_.add("closed", echo());
    table_.add("bad", [](Method_Call const&, Value&, Method_Fault& fault) {
        fault = {-7, "no such thing", {}};
        return false;
    });
    table_.bind("handled", std::make_shared<Handler>());
    JSON_RPC_Reply answer;
    for (char const* method : {"good", "closed", "bad", "handled"})
        (void)table_.call(method, Object(), Rpc_Caller::local(), 10s, answer);
    EXPECT_EQ((std::vector<std::string>{"good 0 ", "bad -7 no such thing", "handled 0 "}), audited);
    audited.clear();
    for (char const* method : {"good", "closed", "bad"}) {
        request(method, Object());
        (void)reply();
    }
    EXPECT_EQ((std::vector<std::string>{"good 0 ", "bad -7 no such thing"}), audited);
}

TEST_F(Method_Table_Test, readers_have_few_of_the_calls_that_wait_for_tools) {
    std::promise<void> open;
    std::shared_future<void> const opened = open.get_future().share();
    table_.gate([](Method_Call const&, Method_Fault&) { return true; });
    table_.may_wait_for_tools("tool", [](Value const&) { return std::optional<std::string>("x"); });
    table_.add("tool", [&](Method_Call const&, Value&, Method_Fault&) {
        opened.wait();
        return true;
    });
    Rpc_Caller reader{Rpc_Caller::READER, {}, {}, nullptr, SOME_UID};
    auto const ask = [&](Rpc_Caller const& caller) {
        return table_.handle(
            channel_, JSON_RPC_Object_var(new JSON_RPC_Request(++id_, "tool", Object())), caller);
    };
    for (size_t i = 0; i < Method_Table::TOOL_CALLS_OF_READERS; ++i)
        EXPECT_EQ(0, ask(reader));
    EXPECT_EQ(-1, ask(reader));
    Value const refusal = recording_->await(1).at(0); // those before it wait
    EXPECT_EQ(Value(JSON_RPC_BUSY),
              object_get_any(object_get_any(refusal.get_obj(), "error").get_obj(), "code"));
    EXPECT_EQ(0, ask(Rpc_Caller::local()));
    open.set_value();
    (void)recording_->await(static_cast<size_t>(id_));
}

TEST_F(Method_Table_Test, the_gate_is_asked_before_functions_handlers_and_notifications) {
    std::vector<std::string> asked;
    std::mutex mutex;
    std::atomic<int> served = 0;
    table_.gate([&](Method_Call const& call, Method_Fault& fault) {
        std::lock_guard const guard(mutex);
        asked.push_back(call.method + " of " + call.caller.text());
        fault = {-7, "not you", 5};
        return call.params.type() == json_spirit::obj_type && call.params.get_obj().count("let");
    });
    table_.add("count", [&](Method_Call const&, Value&, Method_Fault&) { return ++served > 0; });
    table_.bind("handled", std::make_shared<Handler>());
    table_.handle(channel_, JSON_RPC_Object_var(new JSON_RPC_Notify("count", Object())),
                  Rpc_Caller::backupd());
    request("handled", Object());
    EXPECT_EQ(Value(-7), error("code"));
    request("count", Object());
    EXPECT_EQ(Value("not you"), error("message"));
    EXPECT_EQ(Value(5), error("data"));
    JSON_RPC_Reply answer;
    EXPECT_FALSE(table_.call("handled", Object(), Rpc_Caller::admin(), 10s, answer));
    EXPECT_EQ(-7, answer.code);
    EXPECT_TRUE(table_.call("count", Object{{"let", 1}}, Rpc_Caller::admin(), 10s, answer));
    EXPECT_TRUE(table_.call("handled", Object{{"let", 1}}, Rpc_Caller::admin(), 10s, answer));
    auto const asked_of_all = [&] { // the notification has a thread of its own
        std::lock_guard const guard(mutex);
        return asked.size() >= 6;
    };
    while (!asked_of_all())
        std::this_thread::yield();
    table_.stop();
    EXPECT_EQ(1, served);
    EXPECT_EQ(6u, asked.size());
    EXPECT_EQ(1, std::count(asked.begin(), asked.end(), "count of the backup server"));
    EXPECT_LOGGED(LM_ERROR, "Failed to handle the notification 'count', not you");
}

namespace {

/** Waits for its cancellation, as one that waits for a tool does. */
Agent_Method wait_for_cancellation(std::atomic<size_t>& waiting) {
    return [&waiting](Method_Call const&, Value& result, Method_Fault&) {
        pollfd entry = {Cancellation::current()->handle(), POLLIN, 0};
        ++waiting;
        result = poll(&entry, 1, 30'000);
        --waiting;
        return true;
    };
}

std::optional<std::string> instance_of_call(Value const& params) {
    return object_get_str(params.get_obj(), "instance");
}

bool becomes(std::atomic<size_t> const& number, size_t value) {
    for (int i = 0; i < 3000 && number != value; ++i)
        std::this_thread::sleep_for(10ms);
    return number == value;
}

} // namespace

TEST_F(Method_Table_Test, calls_that_wait_for_tools_hold_up_nobody_and_few_wait_for_one_instance) {
    std::atomic<size_t> waiting = 0;
    table_.add("ask", wait_for_cancellation(waiting));
    table_.may_wait_for_tools("ask", instance_of_call);
    table_.add("echo", echo());
    // the table has two threads
    for (size_t i = 0; i < Method_Table::TOOL_CALLS_OF_INSTANCE; ++i)
        EXPECT_EQ(0, request("ask", Object{{"instance", "stuck"}}));
    EXPECT_TRUE(becomes(waiting, Method_Table::TOOL_CALLS_OF_INSTANCE));

    Recording_Channel* const other = new Recording_Channel;
    JSON_RPC_Channel_var const others(other);
    auto const ask = [&](std::string const& method, Value const& params) {
        return table_.handle(others, JSON_RPC_Object_var(new JSON_RPC_Request(1, method, params)),
                             Rpc_Caller::local());
    };
    EXPECT_EQ(0, ask("echo", Object()));
    EXPECT_EQ("echo",
              object_get_str(object_get_any(other->await(1).back().get_obj(), "result").get_obj(),
                             "method"));
    EXPECT_EQ(-1, ask("ask", Object{{"instance", "stuck"}}));
    Object const refusal = object_get_any(other->await(2).back().get_obj(), "error").get_obj();
    EXPECT_EQ(Value(JSON_RPC_BUSY), object_get_any(refusal, "code"));
    EXPECT_NE(std::string::npos,
              object_get_str(refusal, "message").find("the tools of the instance stuck"));
    JSON_RPC_Reply reply;
    EXPECT_FALSE(table_.call("ask", Object{{"instance", "stuck"}}, Rpc_Caller::local(), 1s, reply));
    EXPECT_EQ(JSON_RPC_BUSY, reply.code);
    EXPECT_EQ(0, ask("ask", Object{{"instance", "well"}}));
    EXPECT_TRUE(becomes(waiting, Method_Table::TOOL_CALLS_OF_INSTANCE + 1));

    table_.cancel();
    EXPECT_EQ(Method_Table::TOOL_CALLS_OF_INSTANCE,
              recording_->await(Method_Table::TOOL_CALLS_OF_INSTANCE).size());
    other->await(3);
    EXPECT_TRUE(becomes(waiting, 0));
    // the turns are free again
    while (ask("ask", Object{{"instance", "stuck"}}) != 0)
        std::this_thread::yield();
    EXPECT_TRUE(becomes(waiting, 1));
    table_.stop();
    EXPECT_EQ(0u, waiting);
}
