#include "agent/rpc/rpc_server.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/https_server.h"
#include "tests/support/log_capture.h"
#include "tests/unit/agent/rpc/tls_client.h"

#include <algorithm>
#include <future>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

using json_spirit::Object;
using json_spirit::Value;
using namespace std::chrono_literals;

namespace {

constexpr char KEY[] = "the-groups-key";
constexpr char ECHO[] = R"({"jsonrpc":"2.0","id":1,"method":"echo","params":{"a":"\u00e4"}})";
constexpr char ECHOED[] = "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":{\"a\":\"\xC3\xA4\"}}";

class Tls_Server_Test : public testing::Test {
protected:
    Tls_Server_Test() {
        methods_.add("echo", [](Method_Call const& call, Value& result, Method_Fault&) {
            result = call.params;
            return true;
        });
        methods_.add("who", [](Method_Call const& call, Value& result, Method_Fault&) {
            result = call.caller.text();
            return true;
        });
        methods_.add("large", [](Method_Call const&, Value& result, Method_Fault&) {
            result = std::string(3'000'000, 'x');
            return true;
        });
        methods_.gate([](Method_Call const&, Method_Fault&) { return true; });
        routes_.add(HTTP_METHOD_PUT, "/r", [](Rest_Request const& request, Value& answer) {
            answer = Object{{"q", request.parameter("q")}, {"body", request.body}};
            return 200;
        });
        options_.network = true;
        options_.address = "127.0.0.1";
        options_.certificate = Test_Certificates::instance().certificate("good");
        options_.private_key = Test_Certificates::instance().key("good");
        options_.access_key = secure_string(std::string_view(KEY));
        options_.limits.denied = 1ms;
        options_.limits.denied_most = 1ms;
    }

    void start() {
        server_ = std::make_unique<Rpc_Server>(methods_, routes_, options_);
        std::string error;
        ASSERT_TRUE(server_->start(error)) << error;
    }
    std::unique_ptr<Tls_Client> client(bool handshake = true, int newest_tls = 0) {
        return std::make_unique<Tls_Client>(server_->port(),
                                            Test_Certificates::instance().certificate("ca"),
                                            handshake, newest_tls);
    }
    std::unique_ptr<Tls_Client> websocket() {
        auto result = client();
        EXPECT_EQ(101, result->upgrade(KEY));
        return result;
    }
    /** Another client is served: nobody has held the server up. */
    void expect_service() {
        auto const other = websocket();
        EXPECT_TRUE(other->text(ECHO));
        EXPECT_EQ(ECHOED, other->read_text());
    }
    void await_connections(size_t count) {
        auto const end = std::chrono::steady_clock::now() + 30s;
        while (server_->connections() != count && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        EXPECT_EQ(count, server_->connections());
    }
    void expect_denials(size_t count) {
        EXPECT_EQ(count, Log_Capture::instance().claim_all(LM_WARNING, "without the right key"));
        EXPECT_NOT_LOGGED(KEY);
    }

    Method_Table methods_;
    Rest_Routes routes_;
    Rpc_Server_Options options_;
    std::unique_ptr<Rpc_Server> server_;
};

} // namespace

TEST_F(Tls_Server_Test, messages_are_served_over_a_websocket) {
    start();
    auto const one = websocket();
    one->text(ECHO);
    EXPECT_EQ(ECHOED, one->read_text());
    one->text(R"({"jsonrpc":"2.0","id":2,"method":"who"})");
    EXPECT_EQ(R"({"id":2,"jsonrpc":"2.0","result":"an administrator on the network"})",
              one->read_text());
    one->text("{");
    EXPECT_NE(std::string::npos, one->read_text().find("-32700"));
    one->text("[" + std::string(ECHO) + "," + ECHO + "]");
    EXPECT_EQ("[" + std::string(ECHOED) + "," + ECHOED + "]", one->read_text());
}

TEST_F(Tls_Server_Test, a_message_in_fragments_with_a_ping_between_is_one) {
    start();
    auto const one = websocket();
    std::string const text = ECHO;
    one->frame(0x01, text.substr(0, 10));
    one->frame(0x89, "ping");
    one->frame(0x00, text.substr(10, 5));
    one->frame(0x80, text.substr(15));
    EXPECT_EQ(ECHOED, one->read_text());
}

TEST_F(Tls_Server_Test, resources_are_served_over_the_same_port_and_connection) {
    start();
    auto const one = client();
    for (int i = 0; i < 2; ++i) {
        std::string const answer = one->http("PUT", "/r?q=a%20b", KEY, R"({"x":1})");
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 200")) << answer;
        EXPECT_TRUE(answer.ends_with(R"({"body":{"x":1},"q":"a b"})")) << answer;
    }
    std::string const missing = one->http("GET", "/nothing", KEY);
    EXPECT_TRUE(missing.starts_with("HTTP/1.1 404")) << missing;
    EXPECT_TRUE(missing.ends_with(R"({"error":"there is no such resource"})")) << missing;
    EXPECT_TRUE(one->http("GET", "/r", KEY).starts_with("HTTP/1.1 405"));
    EXPECT_TRUE(one->http("PUT", "/r?q=%zz", KEY).starts_with("HTTP/1.1 400"));
    EXPECT_TRUE(one->http("PUT", "/r", KEY, "{no json").starts_with("HTTP/1.1 400"));
    EXPECT_TRUE(one->http("PUT", "/r", KEY, "1").starts_with("HTTP/1.1 200"));
}

TEST_F(Tls_Server_Test, who_has_not_the_key_is_told_no_more_than_that) {
    start();
    for (char const* key : {"", "wrong", "the-groups-ke", "the-groups-key-and-more"}) {
        EXPECT_EQ(401, client()->upgrade(key)) << key;
        std::string const answer = client()->http("PUT", "/r", key, "1");
        EXPECT_TRUE(answer.starts_with("HTTP/1.1 401")) << answer;
        EXPECT_TRUE(answer.ends_with("\r\n\r\n")) << answer;
    }
    EXPECT_TRUE(client()->http("GET", "/nothing", "wrong").starts_with("HTTP/1.1 401"))
        << "nor what there is";
    EXPECT_LOGGED(LM_WARNING, "127.0.0.1");
    expect_denials(8);
    expect_service();
}

TEST_F(Tls_Server_Test, those_without_the_key_wait_and_hold_up_nobody) {
    options_.limits.denied = 1h;
    options_.limits.denied_most = 1h;
    start();
    std::vector<std::unique_ptr<Tls_Client>> denied;
    for (int i = 0; i < 10; ++i) {
        denied.push_back(client());
        denied.back()->send("GET / HTTP/1.1\r\nHost: x\r\n\r\n");
    }
    while (server_->connections() < 10)
        std::this_thread::yield();
    expect_service();
    server_->stop(); // does not wait for them either
    for (auto const& one : denied)
        EXPECT_EQ("", one->receive());
    Log_Capture::instance().claim_all(LM_WARNING, "without the right key");
}

TEST_F(Tls_Server_Test, plain_http_on_the_port_is_closed) {
    start();
    auto const plain = client(false);
    plain->send("GET / HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer the-groups-key\r\n\r\n");
    EXPECT_TRUE(plain->closed());
    expect_service();
}

TEST_F(Tls_Server_Test, an_old_tls_is_refused) {
    start();
    EXPECT_FALSE(client(true, TLS1_1_VERSION)->secure());
    EXPECT_TRUE(client(true, TLS1_2_VERSION)->secure());
    EXPECT_TRUE(client(true, TLS1_3_VERSION)->secure());
}

TEST_F(Tls_Server_Test, one_who_does_not_finish_its_handshake_is_closed) {
    options_.limits.message = 50ms;
    start();
    auto const silent = client(false);
    auto const half = client(false);
    half->send("\x16\x03\x01");
    EXPECT_TRUE(silent->closed());
    EXPECT_TRUE(half->closed());
    await_connections(0);
}

TEST_F(Tls_Server_Test, one_who_does_not_finish_its_request_is_closed) {
    options_.limits.message = 100ms;
    start();
    auto const head = client();
    head->send("GET / HTT");
    auto const body = client();
    body->send("PUT /r HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer the-groups-key\r\n"
               "Content-Length: 100\r\n\r\nabc");
    EXPECT_TRUE(head->closed());
    EXPECT_TRUE(body->closed());
    expect_service();
}

TEST_F(Tls_Server_Test, one_who_does_not_finish_a_message_is_closed) {
    options_.limits.message = 100ms;
    start();
    auto const one = websocket();
    one->frame(0x01, "{\"jsonrpc\"");
    EXPECT_EQ("closed", one->read_text());
    expect_service();
}

TEST_F(Tls_Server_Test, headers_bodies_and_messages_that_are_too_large_end_the_connection) {
    options_.limits.message_bytes = 100'000;
    start();
    auto const head = client();
    head->send("GET / HTTP/1.1\r\nX: " + std::string(20'000, 'x') + "\r\n\r\n");
    EXPECT_TRUE(head->closed());
    EXPECT_EQ("", client()->http("PUT", "/r", KEY, std::string(100'001, '1')));
    auto const one = websocket();
    one->text(std::string(100'001, 'x'));
    EXPECT_EQ("closed", one->read_text());
    await_connections(0);
    EXPECT_LOGGED(LM_DEBUG, "Connection of an administrator on the network has ended");
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "its request is too large"));
    expect_service();
}

TEST_F(Tls_Server_Test, broken_frames_end_their_connection_only) {
    start();
    for (std::string const& bytes :
         {std::string("\x83\x80\0\0\0\0", 6), std::string("\xf1\x80\0\0\0\0", 6),
          std::string("\x81\x01x", 3), std::string("\x80\x80\0\0\0\0", 6),
          std::string("\x81\xff\xff\xff\xff\xff\xff\xff\xff\xff\0\0\0\0", 14),
          std::string("\x89\xfe\x01\0\0\0\0\0", 8), std::string("\x81\x82\0\0\0\0\xff\xfe", 8)}) {
        auto const one = websocket();
        one->send(bytes);
        EXPECT_EQ("closed", one->read_text());
    }
    auto const binary = websocket();
    binary->frame(0x82, ECHO);
    EXPECT_NE(std::string::npos, binary->read_text().find("-32700"));
    expect_service();
}

TEST_F(Tls_Server_Test, those_who_vanish_leave_nothing_behind) {
    start();
    for (int i = 0; i < 20; ++i) {
        auto const one = i % 2 ? websocket() : client();
        one->send(i % 3 ? "\x81" : "GET / HTTP");
        if (i % 4 < 2)
            one->reset();
    }
    await_connections(0);
    expect_service();
}

TEST_F(Tls_Server_Test, one_who_does_not_read_is_closed) {
    options_.limits.unsent_bytes = 5'000'000;
    start();
    auto const one = websocket();
    for (int i = 0; i < 10; ++i)
        one->text(R"({"jsonrpc":"2.0","id":1,"method":"large"})");
    await_connections(0);
    expect_service();
}

TEST_F(Tls_Server_Test, one_who_answers_no_ping_is_closed) {
    options_.limits.ping = 20ms;
    start();
    auto const silent = websocket();
    await_connections(0); // it reads nothing, so it answers nothing
}

TEST_F(Tls_Server_Test, one_address_cannot_take_all_connections) {
    options_.limits.connections_per_address = 2;
    start();
    auto const first = websocket();
    auto const second = websocket();
    EXPECT_EQ(503, client()->upgrade(KEY));
    EXPECT_LOGGED(LM_WARNING, "Refused a connection from user ");
    first->text(ECHO);
    EXPECT_EQ(ECHOED, first->read_text());
}

TEST_F(Tls_Server_Test, what_cannot_be_served_is_said) {
    Test_Certificates const& certificates = Test_Certificates::instance();
    auto const refusal = [this](auto change) {
        Rpc_Server_Options options = options_;
        change(options);
        Rpc_Server server(methods_, routes_, options);
        std::string error;
        EXPECT_FALSE(server.start(error));
        EXPECT_EQ(0, server.port());
        return error;
    };
    EXPECT_NE(std::string::npos, refusal([](auto& o) { o.access_key.clear(); }).find("access key"));
    EXPECT_NE(std::string::npos, refusal([](auto& o) { o.certificate = "/no"; }).find("/no"));
    EXPECT_NE(std::string::npos, refusal([](auto& o) { o.private_key = "/no"; }).find("/no"));
    EXPECT_NE(std::string::npos, refusal([&](auto& o) {
                                     o.private_key = certificates.key("expired");
                                 }).find("private key"));
    EXPECT_NE(std::string::npos, refusal([](auto& o) { o.address = "nowhere"; }).find("nowhere"));
    start();
    EXPECT_NE(std::string::npos,
              refusal([this](auto& o) { o.port = server_->port(); }).find("cannot listen"));
    EXPECT_NE(std::string::npos, refusal([this](auto& o) {
                                     o.port = server_->port();
                                 }).find("`ss -ltnp` shows the program that has the port"));
}

TEST_F(Tls_Server_Test, a_client_that_goes_takes_its_questions_along) {
    std::atomic<int> asked = 0;
    std::promise<bool> cancelled[2];
    auto const ask = [&] {
        pollfd entry = {Cancellation::current()->handle(), POLLIN, 0};
        std::promise<bool>& result = cancelled[asked++];
        result.set_value(poll(&entry, 1, 30'000) == 1);
    };
    methods_.add("ask", [&](Method_Call const&, Value&, Method_Fault&) {
        ask();
        return true;
    });
    routes_.add(HTTP_METHOD_GET, "/ask", [&](Rest_Request const&, Value&) {
        ask();
        return 200;
    });
    start();
    {
        auto const gone = websocket();
        gone->text(R"({"jsonrpc":"2.0","id":1,"method":"ask"})");
        while (asked != 1)
            std::this_thread::yield();
    }
    EXPECT_TRUE(cancelled[0].get_future().get());
    {
        auto const gone = client();
        gone->send(std::string("GET /ask HTTP/1.1\r\nHost: h\r\nAuthorization: Bearer ") + KEY +
                   "\r\n\r\n");
        while (asked != 2)
            std::this_thread::yield();
    }
    EXPECT_TRUE(cancelled[1].get_future().get());
}

TEST_F(Tls_Server_Test, those_without_the_key_take_only_their_own_room) {
    options_.limits.strangers_of_origin = 3;
    start();
    auto const keyed = websocket();
    std::vector<std::unique_ptr<Tls_Client>> strangers;
    for (int i = 0; i < 3; ++i)
        strangers.push_back(client(false));
    await_connections(4);
    EXPECT_FALSE(client()->secure());
    EXPECT_FALSE(client()->secure());
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(
                      LM_WARNING, "Refused a connection from user " + std::to_string(getuid()) +
                                      ", there are 3 that have not shown the access key"));
    keyed->text(ECHO);
    EXPECT_EQ(ECHOED, keyed->read_text());
    strangers.clear();
    await_connections(1);
    expect_service();
}

TEST_F(Tls_Server_Test, one_who_has_not_shown_the_key_in_time_is_closed) {
    options_.limits.key = 200ms;
    options_.limits.denied = options_.limits.denied_most = 1h;
    start();
    auto const keyed = websocket();
    auto const silent = client(false);
    auto const secure = client();
    auto const slow = client();
    slow->send("GET / HTTP/1.1\r\nHost: x\r\n");
    auto const wrong = client();
    EXPECT_TRUE(wrong->http("GET", "/r", "wrong").starts_with("HTTP/1.1 401"))
        << "the answer waits no longer than that";
    EXPECT_TRUE(silent->closed());
    EXPECT_TRUE(secure->closed());
    EXPECT_TRUE(slow->closed());
    expect_denials(1);
    keyed->text(ECHO);
    EXPECT_EQ(ECHOED, keyed->read_text());
}

TEST_F(Tls_Server_Test, large_requests_that_are_not_answered_have_a_bound) {
    options_.limits.message_bytes = 600'000;
    options_.limits.unfinished_bytes = 1'000'000;
    start();
    std::string const head =
        std::string("PUT /r HTTP/1.1\r\nHost: h\r\nAuthorization: Bearer ") + KEY + "\r\n";
    auto first = client();
    first->send(head + "Content-Length: 600000\r\n\r\n\"");
    while (client()
               ->http("PUT", "/r", KEY, '"' + std::string(500'000, 'x') + '"')
               .starts_with("HTTP/1.1 200"))
        std::this_thread::yield(); // the first one's head has not been read yet
    auto const in_pieces = client();
    in_pieces->send(head + "Transfer-Encoding: chunked\r\n\r\n");
    EXPECT_TRUE(in_pieces->receive().starts_with("HTTP/1.1 503"));
    auto const message = websocket();
    message->text('"' + std::string(500'000, 'x') + '"');
    EXPECT_EQ("closed", message->read_text());
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_WARNING, "(limits.unfinished_size)"));
    expect_service(); // small ones are free
    first.reset();
    await_connections(0);
    EXPECT_TRUE(client()
                    ->http("PUT", "/r", KEY, '"' + std::string(500'000, 'x') + '"')
                    .starts_with("HTTP/1.1 200"));
}
