#include "agent/rpc/rpc_server.h"
#include "agent/rpc/unix_client.h"
#include "host/rpc/json_rpc_thread_pool_handler.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/agent/rpc/raw_client.h"

#include <future>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <thread>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using namespace std::chrono_literals;

namespace {

constexpr auto CALL_TIME = 30s;

/** Lets waiting methods through once it is opened. */
struct Gate {
    void open() {
        if (!opened.exchange(true))
            promise.set_value();
    }
    void wait() const { future.wait(); }
    ~Gate() { open(); }
    std::atomic<bool> opened = false;
    std::promise<void> promise;
    std::shared_future<void> future = promise.get_future().share();
};

class Unix_Server_Test : public testing::Test {
protected:
    Unix_Server_Test() {
        methods_.add("echo", [](Method_Call const& call, Value& result, Method_Fault&) {
            result = call.params;
            return true;
        });
        methods_.add("who", [](Method_Call const& call, Value& result, Method_Fault&) {
            result = call.caller.text();
            return true;
        });
        methods_.add("wait", [this](Method_Call const& call, Value& result, Method_Fault&) {
            ++waiting_;
            gate_.wait();
            result = call.params;
            return true;
        });
        methods_.add("large", [](Method_Call const& call, Value& result, Method_Fault&) {
            result = std::string(
                static_cast<size_t>(object_get_any(call.params.get_obj(), "size").get_int()), 'x');
            return true;
        });
        options_.socket_path = files_.path("agent.sock");
    }
    ~Unix_Server_Test() override { gate_.open(); }

    void start() {
        server_ = std::make_unique<Rpc_Server>(methods_, routes_, options_);
        std::string error;
        ASSERT_TRUE(server_->start(error)) << error;
    }
    Raw_Client raw() { return Raw_Client(options_.socket_path); }

    /** Another client is served: nobody has held the server up. */
    void expect_service() {
        Unix_Client client;
        std::string error;
        ASSERT_TRUE(client.connect(options_.socket_path, error)) << error;
        JSON_RPC_Reply reply;
        EXPECT_TRUE(client.call("echo", Object{{"a", 1}}, CALL_TIME, reply)) << reply.message;
        EXPECT_EQ(Value(Object{{"a", 1}}), reply.result);
    }
    void await_connections(size_t count) {
        auto const end = std::chrono::steady_clock::now() + CALL_TIME;
        while (server_->connections() != count && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        EXPECT_EQ(count, server_->connections());
    }

    Temporary_Directory files_;
    Gate gate_;
    std::atomic<int> waiting_ = 0;
    Method_Table methods_{4, 512};
    Rest_Routes routes_;
    Rpc_Server_Options options_;
    std::unique_ptr<Rpc_Server> server_;
};

Value parsed(std::string const& text) {
    Value value;
    EXPECT_TRUE(json_spirit::parse(text, value, nullptr)) << text;
    return value;
}

Value code_of(std::string const& line) {
    Value const reply = parsed(line);
    return object_get_any(object_get_any(reply.get_obj(), "error").get_obj(), "code");
}

} // namespace

TEST_F(Unix_Server_Test, only_the_agents_user_may_open_the_socket) {
    start();
    struct stat status {};
    ASSERT_EQ(0, stat(options_.socket_path.c_str(), &status));
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(0600u, status.st_mode & 07777);
    expect_service();
}

namespace {

constexpr uid_t SOMEBODY = 61234; ///< a user without an entry
constexpr char READERS[] = "nogroup";

/** As another user: a socket of this host, with a group among the others or as the first one. */
class Unix_Readers_Test : public Unix_Server_Test {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can become another user";
        ASSERT_EQ(0, chmod(files_.path("").c_str(), 0755));
        group_ = getgrnam(READERS)->gr_gid;
        options_.readers = READERS;
    }
    /** What a user is to the agent; "closed" if it is sent away, "denied" if not even let in. */
    std::string who_is(uid_t uid, gid_t gid, std::vector<gid_t> const& others) {
        std::string answer = "denied";
        on_own_thread([&] {
            if (syscall(SYS_setgroups, others.size(), others.data()) != 0 ||
                syscall(SYS_setresgid, gid, gid, gid) != 0 ||
                syscall(SYS_setresuid, uid, uid, uid) != 0)
                return;
            try {
                Raw_Client client = raw();
                (void)client.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"who\"}\n");
                answer = client.line();
            } catch (std::runtime_error const&) {
            }
        });
        return answer == "denied" || answer == "closed"
                   ? answer
                   : object_get_any(parsed(answer).get_obj(), "result").get_str();
    }

    gid_t group_ = 0;
};

} // namespace

TEST_F(Unix_Readers_Test, users_of_the_group_are_readers_whichever_of_their_groups_it_is) {
    methods_.gate([](Method_Call const&, Method_Fault&) { return true; });
    start();
    EXPECT_EQ("reader with uid 61234", who_is(SOMEBODY, group_, {}));
    EXPECT_EQ("reader with uid 61234", who_is(SOMEBODY, SOMEBODY, {5, group_}));
    EXPECT_EQ("the local administrator", who_is(0, 0, {}));
    EXPECT_EQ("the local administrator", who_is(0, group_, {group_}));
    EXPECT_EQ("denied", who_is(SOMEBODY, SOMEBODY, {5}));
}

TEST_F(Unix_Readers_Test, the_mode_of_the_socket_alone_lets_nobody_in) {
    start();
    ASSERT_EQ(0, chmod(options_.socket_path.c_str(), 0666));
    EXPECT_EQ("closed", who_is(SOMEBODY, SOMEBODY, {5}));
    EXPECT_EQ("the local administrator", who_is(0, 0, {}));
}

TEST_F(Unix_Readers_Test, without_the_group_there_are_no_readers) {
    options_.readers = "no-such-group";
    start();
    EXPECT_LOGGED(LM_INFO, "Only root can look: the group no-such-group does not exist\n");
    EXPECT_EQ("denied", who_is(SOMEBODY, group_, {group_}));
    ASSERT_EQ(0, chmod(options_.socket_path.c_str(), 0666));
    EXPECT_EQ("closed", who_is(SOMEBODY, group_, {group_}));
    EXPECT_EQ("the local administrator", who_is(0, 0, {}));
}

TEST_F(Unix_Readers_Test, readers_take_neither_the_room_nor_the_memory_of_administrators) {
    options_.limits.readers = 3;
    options_.limits.connections_of_reader = 2;
    start();
    on_own_thread([&] {
        ASSERT_TRUE(become(SOMEBODY, group_));
        Raw_Client first = raw(), second = raw(), third = raw();
        EXPECT_TRUE(third.closed()) << "more than the share of one user";
        EXPECT_LOGGED(LM_WARNING, "Refused a connection from user 61234, there are 2 of readers\n");
        (void)first.send(std::string(70'000, ' ') + "\n");
        EXPECT_NE(std::string::npos, first.line().find("the message is too large"));
        EXPECT_LOGGED(LM_WARNING, "Closed a local connection, its message is larger than 65536");
        second.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"who\"}\n");
        EXPECT_NE(std::string::npos, second.line().find("-32005")) << "no gate: local callers only";
    });
    expect_service();
}

TEST_F(Unix_Server_Test, what_a_handler_answers_is_audited) {
    std::mutex mutex;
    std::vector<std::string> audited;
    methods_.audit([&](Method_Call const& call, int code, std::string const& message) {
        std::lock_guard const guard(mutex);
        audited.push_back(call.method + " " + std::to_string(code) + " " + message + " uid " +
                          std::to_string(call.caller.uid.value_or(1)));
    });
    class Handler : public JSON_RPC_Thread_Pool_Handler_Impl {
    public:
        ~Handler() override { fini(); }
        int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request) override {
            return request.method() == "good"
                       ? channel->send(JSON_RPC_Response(&request))
                       : channel->send_error(-7, request.id(), "no such thing");
        }
    };
    auto const handler = std::make_shared<Handler>();
    methods_.bind("good", handler);
    methods_.bind("bad", handler);
    start();
    Raw_Client client = raw();
    for (std::string const method : {"good", "bad"}) {
        client.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"" + method + "\"}\n");
        (void)client.line();
    }
    std::lock_guard const guard(mutex);
    std::string const uid = " uid " + std::to_string(geteuid());
    EXPECT_EQ((std::vector<std::string>{"good 0 " + uid, "bad -7 no such thing" + uid}), audited);
}

TEST_F(Unix_Server_Test, stop_removes_the_socket_and_tells_clients) {
    start();
    Raw_Client client = raw();
    EXPECT_TRUE(client.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"who\"}\n"));
    EXPECT_EQ(R"({"id":1,"jsonrpc":"2.0","result":"the local administrator"})", client.line());
    server_->stop();
    server_->stop();
    EXPECT_TRUE(client.closed());
    struct stat status {};
    EXPECT_EQ(-1, stat(options_.socket_path.c_str(), &status));
    start();
    expect_service();
}

TEST_F(Unix_Server_Test, a_socket_that_nobody_serves_is_replaced) {
    start();
    std::string const kept = files_.path("kept");
    ASSERT_EQ(0, rename(options_.socket_path.c_str(), kept.c_str()));
    server_->stop();
    ASSERT_EQ(0, rename(kept.c_str(), options_.socket_path.c_str()));
    start();
    expect_service();
}

TEST_F(Unix_Server_Test, a_second_server_is_refused_and_the_first_goes_on) {
    start();
    std::string error;
    Rpc_Server second(methods_, routes_, options_);
    EXPECT_FALSE(second.start(error));
    EXPECT_NE(std::string::npos, error.find("another agent serves")) << error;
    expect_service();
    ASSERT_EQ(0, unlink((options_.socket_path + ".lock").c_str()));
    Rpc_Server third(methods_, routes_, options_);
    EXPECT_FALSE(third.start(error));
    EXPECT_NE(std::string::npos, error.find("somebody answers")) << error;
    expect_service();
}

TEST_F(Unix_Server_Test, a_file_in_the_way_is_left_alone) {
    files_.write("agent.sock", "precious");
    std::string error;
    Rpc_Server server(methods_, routes_, options_);
    EXPECT_FALSE(server.start(error));
    EXPECT_NE(std::string::npos, error.find("no socket")) << error;
    EXPECT_EQ("precious", files_.read("agent.sock"));
}

TEST_F(Unix_Server_Test, a_path_that_cannot_be_served_is_an_error) {
    for (std::string const& path : {std::string(200, 'x'), files_.path("no/such/agent.sock")}) {
        options_.socket_path = path;
        std::string error;
        Rpc_Server server(methods_, routes_, options_);
        EXPECT_FALSE(server.start(error));
        EXPECT_NE("", error);
    }
}

TEST_F(Unix_Server_Test, a_socket_that_another_has_made_meanwhile_is_not_removed) {
    start();
    ASSERT_EQ(0, unlink(options_.socket_path.c_str()));
    files_.write("agent.sock", "another's");
    server_->stop();
    EXPECT_EQ("another's", files_.read("agent.sock"));
}

TEST_F(Unix_Server_Test, malformed_messages_are_answered_and_the_connection_goes_on) {
    start();
    Raw_Client client = raw();
    client.send(
        "{\n[]\n[1,\"x\"]\n{\"a\":1}\n\n \r\n{\"jsonrpc\":\"2.0\",\"id\":{},\"method\":1}\n");
    EXPECT_EQ(Value(JSON_RPC_PARSE_ERROR), code_of(client.line()));
    EXPECT_EQ(Value(JSON_RPC_INVALID_REQUEST), code_of(client.line()));
    EXPECT_EQ(2u, parsed(client.line()).get_array().size());
    EXPECT_EQ(Value(JSON_RPC_INVALID_REQUEST), code_of(client.line()));
    EXPECT_EQ(Value(JSON_RPC_INVALID_REQUEST), code_of(client.line()));
    client.send(std::string("\0\xff\xfe\n", 4));
    EXPECT_EQ(Value(JSON_RPC_PARSE_ERROR), code_of(client.line()));
    client.send("{\"jsonrpc\":\"2.0\",\"id\":\"q\",\"method\":\"who\"}\r\n");
    EXPECT_EQ(R"({"id":"q","jsonrpc":"2.0","result":"the local administrator"})", client.line());
    expect_service();
}

TEST_F(Unix_Server_Test, deep_nesting_is_an_error_and_no_stack_overflow) {
    start();
    Raw_Client client = raw();
    client.send(std::string(1'000'000, '[') + "\n");
    EXPECT_EQ(Value(JSON_RPC_PARSE_ERROR), code_of(client.line()));
    expect_service();
}

TEST_F(Unix_Server_Test, a_batch_is_answered_by_one_array) {
    start();
    Raw_Client client = raw();
    client.send(R"([{"jsonrpc":"2.0","id":1,"method":"echo","params":{"a":1}},)"
                R"({"jsonrpc":"2.0","method":"echo"},7,)"
                R"({"jsonrpc":"2.0","id":2,"method":"none"}])"
                "\n");
    Value const reply = parsed(client.line());
    ASSERT_EQ(3u, reply.get_array().size());
    std::map<std::string, bool> seen;
    for (Value const& one : reply.get_array())
        seen[json_spirit::to_text(object_get_any(one.get_obj(), "id"))] =
            one.get_obj().contains("result");
    EXPECT_EQ((std::map<std::string, bool>{{"1", true}, {"2", false}, {"null", false}}), seen);
}

TEST_F(Unix_Server_Test, a_batch_of_notifications_and_a_notification_give_nothing) {
    start();
    Raw_Client client = raw();
    client.send(
        "[{\"jsonrpc\":\"2.0\",\"method\":\"echo\"},{\"jsonrpc\":\"2.0\",\"method\":\"x\"}]\n"
        "{\"jsonrpc\":\"2.0\",\"method\":\"nothing\"}\n"
        "{\"jsonrpc\":\"2.0\",\"id\":3,\"method\":\"who\"}\n");
    EXPECT_EQ(R"({"id":3,"jsonrpc":"2.0","result":"the local administrator"})", client.line());
}

TEST_F(Unix_Server_Test, a_batch_larger_than_allowed_is_refused_as_one) {
    options_.limits.batch_messages = 10;
    start();
    Raw_Client client = raw();
    client.send("[1,1,1,1,1,1,1,1,1,1,1]\n[\"a,b,c,\\\"[,,,,,,,,,,,,\",[1,1,1,1,1,1,1,1,1,1,1]]\n");
    EXPECT_EQ(Value(JSON_RPC_INVALID_REQUEST), code_of(client.line()));
    EXPECT_EQ(2u, parsed(client.line()).get_array().size()) << "what is inside does not count";
}

TEST_F(Unix_Server_Test, a_batch_beyond_the_requests_in_flight_is_answered_whole) {
    options_.limits.in_flight = 3;
    start();
    std::string text = "[";
    for (int i = 0; i < 500; ++i)
        text += std::string(i ? "," : "") + R"({"jsonrpc":"2.0","id":)" + std::to_string(i) +
                (i % 2 ? R"(,"method":"echo"})" : R"(,"method":"none"})");
    Raw_Client client = raw();
    client.send(text + "]\n");
    EXPECT_EQ(500u, parsed(client.line()).get_array().size());
}

TEST_F(Unix_Server_Test, no_more_is_read_while_too_many_requests_are_in_flight) {
    options_.limits.in_flight = 2;
    start();
    Raw_Client client = raw();
    for (int i = 0; i < 6; ++i)
        client.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"wait\"}\n");
    while (waiting_ < 2)
        std::this_thread::yield();
    expect_service(); // has seen the six lines by now, if it ever will
    EXPECT_EQ(2, waiting_);
    gate_.open();
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(R"({"id":1,"jsonrpc":"2.0","result":{}})", client.line());
}

TEST_F(Unix_Server_Test, a_message_that_is_too_large_ends_the_connection) {
    options_.limits.message_bytes = 1000;
    start();
    Raw_Client client = raw();
    client.send(std::string(1200, 'x'));
    EXPECT_EQ(Value(JSON_RPC_INVALID_REQUEST), code_of(client.line()));
    EXPECT_TRUE(client.closed());
    Raw_Client other = raw();
    other.send(std::string(70'000, 'x') + "\n");
    EXPECT_TRUE(other.closed());
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "larger than 1000 bytes"));
    expect_service();
}

TEST_F(Unix_Server_Test, a_large_message_within_the_limit_is_served) {
    start();
    Unix_Client client;
    std::string error;
    ASSERT_TRUE(client.connect(options_.socket_path, error)) << error;
    JSON_RPC_Reply reply;
    Value const params = Object{{"a", std::string(8'000'000, 'y')}};
    ASSERT_TRUE(client.call("echo", params, CALL_TIME, reply)) << reply.message;
    EXPECT_EQ(params, reply.result);
}

TEST_F(Unix_Server_Test, one_who_sends_a_message_bit_by_bit_is_closed) {
    options_.limits.message = 50ms;
    start();
    Raw_Client client = raw();
    auto const end = std::chrono::steady_clock::now() + CALL_TIME;
    while (client.send("{") && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    EXPECT_TRUE(client.closed());
    expect_service();
    Log_Capture::instance().claim_all(LM_WARNING, "larger than");
}

TEST_F(Unix_Server_Test, one_who_is_idle_is_closed_but_not_while_it_waits_for_an_answer) {
    options_.limits.idle = 50ms;
    start();
    Raw_Client idle = raw();
    Raw_Client waiting = raw();
    waiting.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"wait\"}\n");
    EXPECT_TRUE(idle.closed());
    Raw_Client second = raw();
    EXPECT_TRUE(second.closed());
    gate_.open();
    EXPECT_EQ(R"({"id":1,"jsonrpc":"2.0","result":{}})", waiting.line());
    EXPECT_TRUE(waiting.closed());
}

TEST_F(Unix_Server_Test, one_who_does_not_read_is_closed) {
    options_.limits.unsent_bytes = 1'000'000;
    start();
    Raw_Client client = raw();
    for (int i = 0; i < 8; ++i)
        client.send(
            "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"large\",\"params\":{\"size\":900000}}\n");
    await_connections(0);
    expect_service();
}

TEST_F(Unix_Server_Test, one_who_does_not_read_a_little_is_closed_after_a_while) {
    options_.limits.message = 50ms;
    start();
    Raw_Client client = raw();
    client.send(
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"large\",\"params\":{\"size\":3000000}}\n");
    await_connections(0);
    expect_service();
}

TEST_F(Unix_Server_Test, a_slow_reader_gets_all_of_a_large_answer) {
    start();
    Raw_Client client = raw();
    client.send(
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"large\",\"params\":{\"size\":9000000}}\n");
    EXPECT_EQ(9'000'000 + std::string(R"({"id":1,"jsonrpc":"2.0","result":""})").size(),
              client.line().size());
}

TEST_F(Unix_Server_Test, one_who_has_closed_its_side_gets_its_answers) {
    start();
    Raw_Client client = raw();
    client.send(
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"wait\"}\n"
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"large\",\"params\":{\"size\":3000000}}\n{");
    client.half_close();
    while (waiting_ < 1)
        std::this_thread::yield();
    gate_.open();
    size_t bytes = client.line().size() + client.line().size();
    EXPECT_LT(3'000'000u, bytes);
    EXPECT_TRUE(client.closed());
    await_connections(0);
}

TEST_F(Unix_Server_Test, those_who_connect_and_vanish_leave_nothing_behind) {
    start();
    for (int i = 0; i < 100; ++i) {
        Raw_Client client = raw();
        client.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"wait\"}\n{\"half");
    }
    Raw_Client many = raw();
    gate_.open();
    await_connections(1);
    expect_service();
}

TEST_F(Unix_Server_Test, more_connections_than_allowed_are_refused_until_one_goes) {
    options_.limits.connections = 3;
    start();
    std::vector<Raw_Client> clients;
    for (int i = 0; i < 3; ++i)
        clients.push_back(raw());
    await_connections(3);
    Raw_Client fourth = raw();
    EXPECT_TRUE(fourth.closed());
    EXPECT_TRUE(raw().closed());
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_WARNING, "Refused a connection"));
    clients.pop_back();
    await_connections(2);
    expect_service();
}

TEST_F(Unix_Server_Test, stop_does_not_wait_for_a_request_that_is_being_handled) {
    start();
    Raw_Client client = raw();
    client.send("{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"wait\"}\n");
    while (waiting_ < 1)
        std::this_thread::yield();
    server_->stop();
    EXPECT_TRUE(client.closed());
}

TEST_F(Unix_Server_Test, many_clients_at_once_get_each_its_own_answers) {
    start();
    auto const run = [this](int client_number) {
        Unix_Client client;
        std::string error;
        ASSERT_TRUE(client.connect(options_.socket_path, error)) << error;
        for (int i = 0; i < 100; ++i) {
            Value const params = Object{{"client", client_number}, {"i", i}};
            JSON_RPC_Reply reply;
            ASSERT_TRUE(client.call("echo", params, CALL_TIME, reply)) << reply.message;
            ASSERT_EQ(params, reply.result);
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back(run, i);
    for (std::thread& thread : threads)
        thread.join();
}

namespace {

/** Waits as one that waits for a tool does. @return true when it was cancelled */
bool await_cancellation(std::chrono::milliseconds limit) {
    pollfd entry = {Cancellation::current()->handle(), POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(limit.count())) == 1;
}

} // namespace

TEST_F(Unix_Server_Test, a_client_that_goes_takes_its_questions_along) {
    std::promise<bool> cancelled;
    methods_.add("ask", [&](Method_Call const&, Value& result, Method_Fault&) {
        ++waiting_;
        cancelled.set_value(await_cancellation(CALL_TIME));
        result = true;
        return true;
    });
    options_.limits.message = 200ms; // so that connections are looked after often
    start();
    {
        auto client = raw();
        client.send(R"({"jsonrpc":"2.0","id":1,"method":"ask"})"
                    "\n");
        while (waiting_ == 0)
            std::this_thread::yield();
    }
    EXPECT_TRUE(cancelled.get_future().get());
}

TEST_F(Unix_Server_Test, one_that_only_sends_no_more_waits_for_its_answer) {
    options_.limits.message = 20ms;
    methods_.add("ask", [&](Method_Call const&, Value& result, Method_Fault&) {
        result = await_cancellation(300ms);
        return true;
    });
    start();
    auto client = raw();
    client.send(R"({"jsonrpc":"2.0","id":1,"method":"ask"})"
                "\n");
    client.half_close();
    EXPECT_EQ(R"({"id":1,"jsonrpc":"2.0","result":false})", client.line());
}

TEST_F(Unix_Server_Test, large_messages_that_are_not_answered_have_a_bound) {
    options_.limits.message_bytes = 600'000;
    options_.limits.unfinished_bytes = 1'000'000;
    start();
    std::string const large = R"({"jsonrpc":"2.0","id":1,"method":"wait","params":{"a":")" +
                              std::string(550'000, 'x') + "\"}}";
    Raw_Client first = raw();
    first.send(large + "\n"); // being handled
    while (waiting_ < 1)
        std::this_thread::yield();
    Raw_Client second = raw();
    second.send(large);
    EXPECT_NE(std::string::npos, second.line().find("Server is busy: too many large messages"));
    EXPECT_TRUE(second.closed());
    EXPECT_LOGGED(LM_WARNING, "(limits.unfinished_size)");
    expect_service(); // small ones are free
    gate_.open();
    EXPECT_GT(first.line().size(), 550'000u);
    // what was answered has given its room back
    for (int i = 0; i < 5; ++i) {
        first.send(large + "\n");
        EXPECT_GT(first.line().size(), 550'000u);
    }
}
