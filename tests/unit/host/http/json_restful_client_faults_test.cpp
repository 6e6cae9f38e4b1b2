#include "host/http/json_restful_client.h"

#include "host/process/cancellation.h"
#include "tests/unit/host/http/json_restful_client_fixture.h"

using json_spirit::Object;
using json_spirit::Value;
using Steps = Https_Server::Steps;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds SHORT{150};

class JSON_RESTful_Client_Faults_Test : public JSON_RESTful_Client_Fixture {};

TEST_F(JSON_RESTful_Client_Faults_Test, a_cancellation_ends_only_requests_that_are_to_heed_it) {
    auto const cancellation = std::make_shared<Cancellation>("given up");
    cancellation->cancel();
    Cancellation_Scope const scope(cancellation);
    server_.on("GET /x", 200, "{}");
    EXPECT_TRUE(get()) << "such as one that cleans up after a cancelled run";
    client_.cancellable(true);
    EXPECT_EQ("given up", get_without_answer());
    client_.cancellable(false);
    EXPECT_TRUE(get());
}

TEST_F(JSON_RESTful_Client_Faults_Test, a_refused_connection_is_tried_again_after_growing_pauses) {
    {
        Https_Server gone;
        client_.reset("127.0.0.1", gone.port(), true);
    }
    client_.retries(7);
    EXPECT_IN("onnect", get_without_answer());
    EXPECT_EQ((std::vector<long>{200, 400, 800, 1600, 3200, 5000, 5000}), client_.pauses);
}

TEST_F(JSON_RESTful_Client_Faults_Test, a_request_is_tried_again_twice_unless_told_otherwise) {
    server_.on("GET /x", Steps().reset());
    get_without_answer();
    EXPECT_EQ(3u, server_.requests().size());
}

TEST_F(JSON_RESTful_Client_Faults_Test, with_no_retries_there_is_one_request) {
    server_.on("GET /x", Steps().reset());
    client_.retries(0);
    get_without_answer();
    client_.retries(-1);
    get_without_answer();
    EXPECT_EQ(2u, server_.requests().size());
    EXPECT_TRUE(client_.pauses.empty());
}

TEST_F(JSON_RESTful_Client_Faults_Test, a_second_try_that_succeeds_leaves_no_error) {
    server_.on("GET /x", Steps().reset());
    server_.on("GET /x", 200, "1");
    EXPECT_TRUE(get());
    EXPECT_EQ(Value(1), result_);
    EXPECT_EQ("", response_.error());
    EXPECT_EQ(std::vector<long>{200}, client_.pauses);
}

TEST_F(JSON_RESTful_Client_Faults_Test, an_answer_cut_short_is_none_and_is_tried_again) {
    server_.on("GET /x", Steps().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n[1,").close());
    server_.on("GET /x", 200, "[1]");
    EXPECT_TRUE(get());
    EXPECT_EQ(2u, server_.requests().size());
    server_.on("GET /y", Steps().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n[1,").close());
    EXPECT_FALSE(get("/y"));
    EXPECT_LOGGED(LM_ERROR, "'GET /y'");
    EXPECT_EQ(0, response_.status());
    EXPECT_EQ("", response_.body());
}

TEST_F(JSON_RESTful_Client_Faults_Test, a_post_is_not_tried_again) {
    server_.on("POST /x", Steps().reset());
    EXPECT_FALSE(post(1));
    EXPECT_EQ(0, response_.status());
    EXPECT_LOGGED(LM_ERROR, "'POST /x'");
    EXPECT_EQ(1u, server_.requests().size());
    EXPECT_TRUE(client_.pauses.empty());
}

TEST_F(JSON_RESTful_Client_Faults_Test, an_error_status_is_not_tried_again) {
    server_.on("GET /x", 503, "{}");
    EXPECT_FALSE(get());
    EXPECT_EQ(1u, server_.requests().size());
}

TEST_F(JSON_RESTful_Client_Faults_Test, a_reset_under_a_large_upload_does_not_kill_the_process) {
    server_.on("POST /x", Steps().reset());
    Https_Server plain({"", "127.0.0.1", false});
    plain.on("POST /x", Steps().reset());
    Value const large = std::string(8 * 1024 * 1024, 'x');
    for (auto const& [port, ssl] : {std::pair(server_.port(), true), {plain.port(), false}}) {
        client_.reset("127.0.0.1", port, ssl);
        EXPECT_FALSE(post(large));
        EXPECT_LOGGED(LM_ERROR, "'POST /x'");
    }
}

TEST_F(JSON_RESTful_Client_Faults_Test, an_answer_that_does_not_come_in_time_is_given_up) {
    server_.on("GET /x", Steps().gate("never"));
    client_.total_timeout(SHORT);
    EXPECT_IN("timed out", get_without_answer());
    EXPECT_EQ(1u, server_.requests().size()) << "a time-out is not tried again";
}

TEST_F(JSON_RESTful_Client_Faults_Test, a_body_that_stops_half_way_is_given_up) {
    server_.on("GET /x",
               Steps().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n[1,").gate("never"));
    client_.total_timeout(SHORT);
    EXPECT_IN("timed out", get_without_answer());
}

TEST_F(JSON_RESTful_Client_Faults_Test, after_a_time_out_the_client_is_as_good_as_new) {
    server_.on("GET /x", Steps().gate("never"));
    server_.on("GET /x", 200, "2");
    client_.total_timeout(SHORT);
    get_without_answer();
    client_.total_timeout(milliseconds(0));
    EXPECT_TRUE(get());
    EXPECT_EQ(Value(2), result_);
}

TEST_F(JSON_RESTful_Client_Faults_Test, an_endless_body_is_cut_off_at_the_bound) {
    server_.on("GET /x", Steps()
                             .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
                             .endless("a\r\n[[[[[[[[[[\r\n"));
    client_.max_body_size(100'000);
    EXPECT_EQ("response body is larger than 100000 bytes", get_without_answer());
}

TEST_F(JSON_RESTful_Client_Faults_Test, a_body_may_be_as_large_as_the_bound) {
    server_.on("GET /x", 200, "12345");
    client_.max_body_size(5);
    EXPECT_TRUE(get());
    client_.max_body_size(4);
    EXPECT_EQ("response body is larger than 4 bytes", get_without_answer());
}

TEST_F(JSON_RESTful_Client_Faults_Test, the_body_of_an_error_is_bounded_too) {
    server_.on("GET /x", 500, "12345");
    client_.max_body_size(4);
    EXPECT_EQ("response body is larger than 4 bytes", get_without_answer());
}

TEST_F(JSON_RESTful_Client_Faults_Test, endless_headers_are_cut_off) {
    server_.on("GET /x", Steps().send("HTTP/1.1 200 OK\r\n").endless("X-A: 0123456789\r\n"));
    EXPECT_EQ("response headers are larger than 262144 bytes", get_without_answer());
    server_.on("GET /y", Steps().send("HTTP/1.1 200 OK\r\nX-A: ").endless("0123456789"));
    EXPECT_FALSE(get("/y"));
    EXPECT_LOGGED(LM_ERROR, "'GET /y'");
}

TEST_F(JSON_RESTful_Client_Faults_Test, headers_of_100_kilobytes_are_read) {
    server_.on("GET /x", 200, "{}",
               {{"A", std::string(50'000, 'a')}, {"B", std::string(50'000, 'b')}});
    EXPECT_TRUE(get());
    EXPECT_EQ(50'000u, response_.headers().get("B").size());
}

TEST_F(JSON_RESTful_Client_Faults_Test, what_is_no_http_is_no_answer) {
    for (char const* text : {"SSH-2.0-OpenSSH_9.2\r\n", "\r\n\r\n", "HTTP/1.1 abc\r\n\r\n",
                             "HTTP/1.1 200 OK\r\nContent-Length: -5\r\n\r\n",
                             "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"}) {
        Https_Server server;
        server.on("GET /x", Steps().send(text).close());
        client_.reset("127.0.0.1", server.port(), true);
        EXPECT_NE("", get_without_answer()) << text;
    }
}

class JSON_RESTful_Client_Handshake_Test : public JSON_RESTful_Client_Fixture {
protected:
    JSON_RESTful_Client_Handshake_Test()
        : JSON_RESTful_Client_Fixture({"good", "127.0.0.1", true}) {}
};

TEST_F(JSON_RESTful_Client_Handshake_Test, a_handshake_that_hangs_is_given_up_as_a_connection) {
    client_.connect_timeout(SHORT);
    client_.total_timeout(milliseconds(0));
    EXPECT_IN("timeout", get_without_answer());
    EXPECT_TRUE(client_.pauses.empty());
}

class JSON_RESTful_Client_Streaming_Test : public JSON_RESTful_Client_Fixture {
protected:
    JSON_RESTful_Client_Streaming_Test() {
        client_.streaming(true);
        client_.body_sink([this](char const* data, size_t size) {
            received_.append(data, size);
            if (on_piece_)
                on_piece_();
            return accepting_;
        });
    }
    std::string received_;
    bool accepting_ = true;
    std::function<void()> on_piece_;
};

TEST_F(JSON_RESTful_Client_Streaming_Test, the_body_is_handed_on_as_it_comes) {
    // the server goes on only after the receiver has got the first piece
    server_.on(
        "GET /x",
        Steps().send("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nabc").gate("first").send("def"));
    on_piece_ = [this] { server_.open_gate("first"); };
    EXPECT_TRUE(get());
    EXPECT_EQ("abcdef", received_);
    EXPECT_EQ("", response_.body());
    EXPECT_EQ(Value(), result_);
    EXPECT_EQ(200, response_.status());
}

TEST_F(JSON_RESTful_Client_Streaming_Test, no_bound_counts) {
    server_.on("GET /x", 200, std::string(100'000, 'x'));
    client_.max_body_size(10);
    EXPECT_TRUE(get());
    EXPECT_EQ(100'000u, received_.size());
}

TEST_F(JSON_RESTful_Client_Streaming_Test, the_receiver_can_end_it) {
    server_.on("GET /x", Steps()
                             .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
                             .endless("3\r\nabc\r\n"));
    accepting_ = false;
    EXPECT_EQ("the receiver refused the response's body", get_without_answer());
}

TEST_F(JSON_RESTful_Client_Streaming_Test, the_body_of_an_error_is_collected) {
    server_.on("GET /x", 404, "{\"a\":1}");
    EXPECT_FALSE(get());
    EXPECT_EQ("", received_);
    EXPECT_EQ(Value(Object{{"a", 1}}), result_);
}

TEST_F(JSON_RESTful_Client_Streaming_Test, what_was_handed_on_is_not_asked_for_again) {
    server_.on("GET /x", Steps().send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc").close());
    get_without_answer();
    EXPECT_EQ("abc", received_);
    EXPECT_EQ(1u, server_.requests().size());
}

TEST_F(JSON_RESTful_Client_Streaming_Test, before_the_first_byte_it_is_tried_again) {
    server_.on("GET /x", Steps().reset());
    server_.on("GET /x", 200, "abc");
    EXPECT_TRUE(get());
    EXPECT_EQ("abc", received_);
}

TEST_F(JSON_RESTful_Client_Streaming_Test, silence_ends_it) {
    server_.on("GET /x",
               Steps().send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc").gate("never"));
    client_.total_timeout(SHORT);
    EXPECT_EQ("nothing came for 150 ms", get_without_answer());
    EXPECT_EQ("abc", received_);
}

TEST_F(JSON_RESTful_Client_Streaming_Test, needs_a_receiver) {
    client_.body_sink(nullptr);
    EXPECT_EQ("streaming is on, but there is no receiver", get_without_answer());
    EXPECT_EQ(0, server_.connections());
}

TEST_F(JSON_RESTful_Client_Streaming_Test, switched_off_the_body_is_collected_again) {
    server_.on("GET /x", 200, "[]");
    client_.streaming(false);
    EXPECT_TRUE(get());
    EXPECT_EQ("", received_);
    EXPECT_EQ("[]", response_.body());
}

} // namespace
