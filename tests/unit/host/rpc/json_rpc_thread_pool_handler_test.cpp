#include "host/rpc/json_rpc_thread_pool_handler.h"

#include "qmrt/scoped_deleter.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_channel.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <set>
#include <stdexcept>
#include <thread>

using json_spirit::Object;
using json_spirit::Value;

namespace {

/** Lets threads through once it is opened, and counts those that have come to it. */
class Gate {
public:
    void pass() {
        std::unique_lock lock(mutex_);
        ++arrived_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }
    void open() {
        std::lock_guard const guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void await(int count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return arrived_ >= count; });
    }
    int arrived() {
        std::lock_guard const guard(mutex_);
        return arrived_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int arrived_ = 0;
    bool open_ = false;
};

/** Answers each request with its method; "wait" passes the gate first, "throw" throws. */
class Handler : public JSON_RPC_Thread_Pool_Handler_Impl {
public:
    using JSON_RPC_Thread_Pool_Handler_Impl::JSON_RPC_Thread_Pool_Handler_Impl;
    ~Handler() override { fini(); }

    int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request) override {
        {
            std::lock_guard const guard(mutex);
            threads.insert(std::this_thread::get_id());
        }
        if (request.method() == "wait")
            gate.pass();
        if (request.method() == "throw")
            throw std::runtime_error("element without a name");
        if (!channel) {
            ++without_channel;
            return -1;
        }
        JSON_RPC_Response response(&request);
        response.result(request.method());
        return channel->send(response);
    }
    int handle_notify(JSON_RPC_Channel*, JSON_RPC_Notify& notify) override {
        if (notify.method() == "throw")
            throw std::runtime_error("in a notification");
        gate.pass();
        return 0;
    }

    Gate gate;
    std::mutex mutex;
    std::set<std::thread::id> threads;
    std::atomic<int> without_channel{0};
};

class JSON_RPC_Thread_Pool_Handler_Test : public testing::Test {
protected:
    int ask(JSON_RPC_Handler& handler, int id, std::string const& method) {
        return handler.handle_object(
            channel_, JSON_RPC_Object_var(new JSON_RPC_Request(id, method, Value())));
    }
    Recording_Channel& recorded() { return static_cast<Recording_Channel&>(*channel_); }
    /** The answer with that id among all so far. */
    Value answer(int id) {
        for (Value const& value : recorded().sent())
            if (value.get_obj().at("id") == Value(id))
                return value;
        return Value();
    }
    static Value error(int id, int code, char const* message) {
        return JSON_RPC_Response_Error(code, id, message, Value()).value();
    }

    JSON_RPC_Channel_var channel_{new Recording_Channel};
};

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, a_request_is_answered_on_another_thread) {
    Handler handler;
    EXPECT_EQ(0, ask(handler, 1, "m"));
    recorded().await(1);
    EXPECT_EQ(JSON_RPC_Response(1, "m").value(), answer(1));
    EXPECT_FALSE(handler.threads.contains(std::this_thread::get_id()));
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test,
       requests_are_handled_at_once_up_to_the_number_of_threads) {
    Handler handler(3, 10);
    for (int id = 0; id < 5; ++id)
        EXPECT_EQ(0, ask(handler, id, "wait"));
    handler.gate.await(3);
    EXPECT_EQ(3, handler.gate.arrived());
    handler.gate.open();
    recorded().await(5);
    EXPECT_EQ(3u, handler.threads.size());
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, messages_begin_in_the_order_in_which_they_came) {
    Handler handler(1, 100);
    for (int id = 0; id < 50; ++id)
        ask(handler, id, "m");
    std::vector<Value> const sent = recorded().await(50);
    for (int id = 0; id < 50; ++id)
        EXPECT_EQ(JSON_RPC_Response(id, "m").value(), sent[static_cast<size_t>(id)]);
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, too_many_requests_are_refused_and_told_so) {
    Handler handler(1, 2);
    EXPECT_EQ(0, ask(handler, 1, "wait"));
    handler.gate.await(1);
    EXPECT_EQ(0, ask(handler, 2, "m"));
    EXPECT_EQ(0, ask(handler, 3, "m"));
    EXPECT_EQ(-1, ask(handler, 4, "m"));
    EXPECT_LOGGED(LM_ERROR, "Refused a JSON-RPC message, Server is busy\n");
    EXPECT_EQ(error(4, JSON_RPC_BUSY, "Server is busy"), answer(4));
    handler.gate.open();
    recorded().await(4);
    EXPECT_EQ(JSON_RPC_Response(3, "m").value(), answer(3));
    EXPECT_EQ(0, ask(handler, 5, "m")) << "there is room again";
    recorded().await(5);
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, with_no_queue_a_request_needs_a_free_thread) {
    Handler handler(2, 0);
    EXPECT_EQ(0, ask(handler, 1, "wait"));
    EXPECT_EQ(0, ask(handler, 2, "wait"));
    EXPECT_EQ(-1, ask(handler, 3, "wait"));
    EXPECT_LOGGED(LM_ERROR, "Server is busy");
    handler.gate.open();
    recorded().await(3);
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test,
       an_exception_becomes_an_internal_error_and_the_thread_goes_on) {
    Handler handler(1, 10);
    ask(handler, 1, "throw");
    ask(handler, 2, "m");
    recorded().await(2);
    EXPECT_EQ(error(1, -32603, "Internal error"), answer(1));
    EXPECT_EQ(JSON_RPC_Response(2, "m").value(), answer(2));
    EXPECT_LOGGED(
        LM_ERROR,
        "The handler of JSON-RPC 'throw' ended with an exception, element without a name\n");
    EXPECT_EQ(1u, handler.threads.size());
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, an_exception_in_a_notification_is_only_logged) {
    Handler handler(1, 10);
    handler.handle_object(channel_, JSON_RPC_Object_var(new JSON_RPC_Notify("throw", Value())));
    ask(handler, 2, "m");
    recorded().await(1);
    EXPECT_LOGGED(LM_ERROR, "in a notification");
    EXPECT_EQ(1u, recorded().sent().size());
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, fini_refuses_what_waits_and_lets_what_runs_end) {
    Handler handler(1, 10);
    ask(handler, 1, "wait");
    handler.gate.await(1);
    ask(handler, 2, "m");
    std::thread closer([&] { handler.fini(); });
    recorded().await(1); // the refusal, while the first still runs
    EXPECT_EQ(error(2, JSON_RPC_BUSY, "Server is shutting down"), answer(2));
    handler.gate.open();
    closer.join();
    EXPECT_EQ(JSON_RPC_Response(1, "wait").value(), answer(1));
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, a_closed_handler_refuses_until_it_is_opened_again) {
    Handler handler;
    EXPECT_EQ(0, handler.init(0, nullptr));
    EXPECT_EQ(0, handler.fini());
    EXPECT_EQ(0, handler.fini());
    EXPECT_EQ(-1, ask(handler, 1, "m"));
    EXPECT_LOGGED(LM_ERROR, "Server is shutting down");
    EXPECT_EQ(error(1, JSON_RPC_BUSY, "Server is shutting down"), answer(1));
    EXPECT_EQ(0, handler.init(0, nullptr));
    EXPECT_EQ(0, ask(handler, 2, "m"));
    recorded().await(2);
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, the_requester_may_go_while_its_request_waits) {
    Handler handler(1, 10);
    handler.handle_object(channel_, JSON_RPC_Object_var(new JSON_RPC_Notify("hold", Value())));
    handler.gate.await(1);
    JSON_RPC_Channel_var requester(new Recording_Channel);
    handler.handle_object(requester, JSON_RPC_Object_var(new JSON_RPC_Request(1, "m", Value())));
    requester.reset(nullptr);
    ask(handler, 2, "m"); // behind it
    handler.gate.open();
    recorded().await(1);
    EXPECT_EQ(1, handler.without_channel);
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, a_handler_sees_no_channel_when_the_requester_has_gone) {
    Handler handler;
    JSON_RPC_Channel_ptr const weak(channel_);
    channel_.reset(nullptr);
    EXPECT_EQ(
        0, handler.handle_object(weak, JSON_RPC_Object_var(new JSON_RPC_Request(1, "m", Value()))));
    while (handler.without_channel == 0)
        std::this_thread::yield();
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, no_object_is_a_broken_precondition) {
    Handler handler;
    EXPECT_EQ(-1, handler.handle_object(channel_, JSON_RPC_Object_var()));
    EXPECT_CHECK_LOGGED("object.get() is NULL");
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, without_a_thread_a_request_is_refused) {
    pthread_attr_t usual;
    pthread_attr_t impossible;
    ASSERT_EQ(0, pthread_getattr_default_np(&usual));
    ASSERT_EQ(0, pthread_getattr_default_np(&impossible));
    // more stack than there is address space
    ASSERT_EQ(0, pthread_attr_setstacksize(&impossible, size_t{1} << 50));
    Handler handler;
    {
        ASSERT_EQ(0, pthread_setattr_default_np(&impossible));
        Scoped_Deleter const guard([&] { pthread_setattr_default_np(&usual); });
        EXPECT_EQ(-1, ask(handler, 1, "m"));
    }
    EXPECT_LOGGED(LM_ERROR, "Failed to make a JSON-RPC thread, errno=");
    EXPECT_LOGGED(LM_ERROR, "Refused a JSON-RPC message, Server has no thread left\n");
    EXPECT_EQ(error(1, JSON_RPC_BUSY, "Server has no thread left"), answer(1));
    EXPECT_EQ(0, ask(handler, 2, "m")) << "as soon as there are threads again";
    recorded().await(2);
}

/** Only what the base class does. */
class Silent_Handler : public JSON_RPC_Thread_Pool_Handler_Impl {
public:
    Silent_Handler() : JSON_RPC_Thread_Pool_Handler_Impl(1, 10) {}
    ~Silent_Handler() override { fini(); }
    using JSON_RPC_Thread_Pool_Handler_Impl::handle_object_i;
};

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, a_method_that_nobody_handles_is_not_found) {
    Silent_Handler handler;
    ask(handler, 1, "m");
    recorded().await(1);
    EXPECT_EQ(error(1, -32601, "Method not found"), answer(1));
    JSON_RPC_Request request(1, "m", Value());
    EXPECT_EQ(-1, handler.handle_request(nullptr, request));
    EXPECT_LOGGED(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, responses_reach_the_thread_that_waits_for_them) {
    Silent_Handler handler;
    recorded().on_send = [&](JSON_RPC_Object const& object) {
        Value const id = static_cast<JSON_RPC_Request const&>(object).id();
        JSON_RPC_Object* const reply =
            id == Value(1) ? static_cast<JSON_RPC_Object*>(new JSON_RPC_Response(id, "r"))
                           : new JSON_RPC_Response_Error(-5, id, "e", Value());
        handler.handle_object(channel_, JSON_RPC_Object_var(reply));
    };
    JSON_RPC_Reply reply;
    EXPECT_TRUE(
        channel_->request(JSON_RPC_Request(1, "m", Value()), std::chrono::seconds(60), reply));
    EXPECT_EQ(Value("r"), reply.result);
    EXPECT_FALSE(
        channel_->request(JSON_RPC_Request(2, "m", Value()), std::chrono::seconds(60), reply));
    EXPECT_EQ(-5, reply.code);
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, each_kind_of_message_has_its_default) {
    Silent_Handler handler;
    auto const handle = [&](JSON_RPC_Object* object) {
        return handler.handle_object_i(channel_, JSON_RPC_Object_var(object));
    };
    EXPECT_EQ(0, handle(new JSON_RPC_Notify("m", Value())));
    EXPECT_EQ(-1, handle(new JSON_RPC_Response(1, 2))) << "nobody waits for it";
    EXPECT_EQ(-1, handle(new JSON_RPC_Response_Error(1, 2, "", Value())));
    EXPECT_TRUE(recorded().sent().empty());
    EXPECT_EQ(-1, handle(new JSON_RPC_Object));
    EXPECT_LOGGED(LM_ERROR, "Refused a JSON-RPC object that is no message\n");
}

TEST_F(JSON_RPC_Thread_Pool_Handler_Test, many_senders_and_a_close_lose_no_request) {
    constexpr int SENDERS = 4;
    constexpr int EACH = 100;
    Handler handler(3, 20);
    std::vector<std::thread> senders;
    for (int sender = 0; sender < SENDERS; ++sender)
        senders.emplace_back([&, sender] {
            for (int round = 0; round < EACH; ++round)
                ask(handler, sender * EACH + round, "m");
        });
    recorded().await(50);
    handler.fini();
    for (std::thread& sender : senders)
        sender.join();
    Log_Capture::instance().claim_all(LM_ERROR, "Refused a JSON-RPC message");
    std::vector<Value> const sent = recorded().await(SENDERS * EACH);
    std::set<int64_t> ids;
    for (Value const& value : sent)
        ids.insert(value.get_obj().at("id").get_int64());
    EXPECT_EQ(static_cast<size_t>(SENDERS * EACH), sent.size()) << "each is answered once";
    EXPECT_EQ(static_cast<size_t>(SENDERS * EACH), ids.size());
}

} // namespace
