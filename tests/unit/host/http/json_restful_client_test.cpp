#include "host/http/json_restful_client.h"

#include "qmrt/scoped_deleter.h"
#include "tests/support/scoped_env.h"
#include "tests/unit/host/http/json_restful_client_fixture.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using Steps = Https_Server::Steps;

namespace {

/** This process's sockets that are connected to that port of 127.0.0.1. */
std::vector<int> sockets_to(unsigned short port) {
    std::vector<int> result;
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == port)
            result.push_back(descriptor);
    }
    return result;
}

class JSON_RESTful_Client_Test : public JSON_RESTful_Client_Fixture {};

TEST_F(JSON_RESTful_Client_Test, a_json_answer_is_read) {
    server_.on("GET /x", 200, "{\"a\":[1,\"\xC3\xA4\"]}", {{"X-TRACE-ID", "t1"}});
    EXPECT_TRUE(get());
    EXPECT_EQ(200, response_.status());
    EXPECT_EQ("t1", response_.headers().get("x-trace-id"));
    EXPECT_EQ(Value(Object{{"a", Array{1, "\xC3\xA4"}}}), result_);
    EXPECT_EQ("", response_.error());
}

TEST_F(JSON_RESTful_Client_Test, the_result_may_be_left_out) {
    server_.on("GET /x", 200, "{}");
    EXPECT_TRUE(client_.get(HTTP_Request(HTTP_METHOD_GET, "/x", true), response_, nullptr));
    EXPECT_EQ("{}", response_.body());
}

TEST_F(JSON_RESTful_Client_Test, a_get_sends_target_and_headers_and_no_body) {
    server_.on("GET /x", 200, "{}");
    HTTP_Request request(HTTP_METHOD_GET, "/x?a=b%2fc&d", true);
    request.headers().put("X-Mini-Token", "t0ken");
    request.headers().put("X-Empty", "");
    EXPECT_TRUE(client_.get(request, response_, &result_));
    Https_Server::Request const seen = server_.requests().at(0);
    EXPECT_EQ("GET", seen.method);
    EXPECT_EQ("/x?a=b%2fc&d", seen.target);
    EXPECT_EQ("localhost:" + std::to_string(server_.port()), seen.header("host"));
    EXPECT_EQ("t0ken", seen.header("x-mini-token"));
    EXPECT_TRUE(seen.headers.contains("x-empty"));
    EXPECT_EQ("application/json", seen.header("accept"));
    EXPECT_FALSE(seen.headers.contains("content-type"));
    EXPECT_FALSE(seen.headers.contains("content-length"));
    EXPECT_EQ("", seen.body);
}

TEST_F(JSON_RESTful_Client_Test, a_post_sends_json_with_secrets_in_plain) {
    server_.on("POST /x", 201, "{\"id\":7}");
    EXPECT_TRUE(post(Object{{"password", secure_string("pa55")}, {"n", 1}}));
    EXPECT_EQ(201, response_.status());
    Https_Server::Request const seen = server_.requests().at(0);
    EXPECT_EQ("{\"n\":1,\"password\":\"pa55\"}", seen.body);
    EXPECT_EQ("application/json", seen.header("content-type"));
    EXPECT_NOT_LOGGED("pa55");
}

TEST_F(JSON_RESTful_Client_Test, a_put_and_a_delete) {
    server_.on("PUT /x", 200, "true");
    server_.on("DELETE /x", 200, "false");
    Value const body = Array{1};
    EXPECT_TRUE(client_.put(HTTP_Request(HTTP_METHOD_PUT, "/x", true), &body, response_, &result_));
    EXPECT_EQ(Value(true), result_);
    EXPECT_TRUE(client_.del(HTTP_Request(HTTP_METHOD_DELETE, "/x", true), response_, &result_));
    EXPECT_EQ(Value(false), result_);
    EXPECT_EQ("[1]", server_.requests().at(0).body);
    EXPECT_EQ("DELETE", server_.requests().at(1).method);
}

TEST_F(JSON_RESTful_Client_Test, a_post_or_put_without_a_body_has_an_empty_one) {
    server_.on("POST /x", 200, "");
    server_.on("PUT /x", 200, "");
    HTTP_Request const post_request(HTTP_METHOD_POST, "/x", true);
    HTTP_Request const put_request(HTTP_METHOD_PUT, "/x", true);
    EXPECT_TRUE(client_.post(post_request, nullptr, response_, &result_));
    EXPECT_TRUE(client_.put(put_request, nullptr, response_, &result_));
    for (Https_Server::Request const& seen : server_.requests()) {
        EXPECT_EQ("0", seen.header("content-length"));
        EXPECT_FALSE(seen.headers.contains("content-type"));
    }
}

TEST_F(JSON_RESTful_Client_Test, headers_of_the_request_come_before_our_own) {
    server_.on("POST /x", 200, "");
    HTTP_Request request(HTTP_METHOD_POST, "/x", true);
    request.headers().put("accept", "text/plain");
    request.headers().put("Content-Type", "text/x");
    Value const body = 1;
    EXPECT_TRUE(client_.post(request, &body, response_, &result_));
    Https_Server::Request const seen = server_.requests().at(0);
    EXPECT_EQ("text/plain", seen.header("accept"));
    EXPECT_EQ("text/x", seen.header("content-type"));
}

TEST_F(JSON_RESTful_Client_Test, a_large_body_goes_out_at_once) {
    server_.on("POST /x", 200, "");
    EXPECT_TRUE(post(std::string(3 * 1024 * 1024, 'x')));
    Https_Server::Request const seen = server_.requests().at(0);
    EXPECT_EQ(3u * 1024 * 1024 + 2, seen.body.size());
    EXPECT_FALSE(seen.headers.contains("expect"));
}

TEST_F(JSON_RESTful_Client_Test, an_empty_body_is_null_and_true) {
    server_.on("GET /x", 204, "");
    EXPECT_TRUE(get());
    EXPECT_EQ(204, response_.status());
    EXPECT_EQ(Value(), result_);
    server_.on("GET /y", 200, "");
    EXPECT_TRUE(get("/y"));
    EXPECT_EQ(Value(), result_);
}

TEST_F(JSON_RESTful_Client_Test,
       an_error_status_is_false_with_its_body_and_without_a_line_in_the_log) {
    server_.on("GET /x", 404, "{\"errCode\":\"DBS.06015006\"}");
    EXPECT_FALSE(get());
    EXPECT_EQ(404, response_.status());
    EXPECT_EQ(Value(Object{{"errCode", "DBS.06015006"}}), result_);
    EXPECT_NOT_LOGGED("Failed");
}

TEST_F(JSON_RESTful_Client_Test, an_answer_that_is_no_json_is_false_and_kept_as_text) {
    server_.on("GET /x", 200, "<html>ok</html>");
    EXPECT_FALSE(get());
    EXPECT_EQ(200, response_.status());
    EXPECT_EQ("<html>ok</html>", response_.body());
    EXPECT_EQ(Value("<html>ok</html>"), result_);
    EXPECT_IN("is no JSON", response_.error());
}

TEST_F(JSON_RESTful_Client_Test, the_text_of_an_error_page_is_cut_for_the_message) {
    server_.on("GET /x", 502, std::string(10000, 'x'));
    EXPECT_FALSE(get());
    EXPECT_EQ(Value(std::string(4096, 'x')), result_);
    EXPECT_EQ(10000u, response_.body().size());
}

TEST_F(JSON_RESTful_Client_Test, a_body_that_is_no_utf8_is_mended_for_the_message) {
    server_.on("GET /x",
               Steps().send("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n").bytes("22ff0022"));
    EXPECT_FALSE(get());
    EXPECT_EQ(Value(std::string("\"\xEF\xBF\xBD\0\"", 6)), result_);
}

TEST_F(JSON_RESTful_Client_Test, an_answer_nested_100000_deep_is_false) {
    server_.on("GET /x", 200, std::string(100000, '['));
    EXPECT_FALSE(get());
    EXPECT_EQ(200, response_.status());
    EXPECT_IN("nested deeper", response_.error());
}

TEST_F(JSON_RESTful_Client_Test, a_chunked_answer_is_put_together) {
    server_.on("GET /x", Steps()
                             .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
                             .send("3\r\n[1,\r\n")
                             .send("2\r\n2]\r\n0\r\n\r\n"));
    EXPECT_TRUE(get());
    EXPECT_EQ(Value(Array{1, 2}), result_);
    EXPECT_TRUE(get()) << "the connection is in order afterwards";
    EXPECT_EQ(1, server_.connections());
}

TEST_F(JSON_RESTful_Client_Test, headers_of_an_interim_answer_are_dropped) {
    server_.on("GET /x", Steps()
                             .send("HTTP/1.1 103 Early Hints\r\nX-Early: 1\r\n\r\n")
                             .send(Https_Server::answer(200, "{}", {{"X-Late", "2"}})));
    EXPECT_TRUE(get());
    EXPECT_EQ(200, response_.status());
    EXPECT_FALSE(response_.headers().contains("X-Early"));
    EXPECT_EQ("2", response_.headers().get("X-Late"));
}

TEST_F(JSON_RESTful_Client_Test, a_header_that_comes_twice_is_joined) {
    server_.on("GET /x", 200, "{}", {{"A", "1"}, {"a", "2"}});
    EXPECT_TRUE(get());
    EXPECT_EQ("1, 2", response_.headers().get("A"));
}

TEST_F(JSON_RESTful_Client_Test, the_connection_is_kept_open_between_requests) {
    server_.on("GET /x", 200, "{}");
    for (int count = 0; count < 3; ++count)
        EXPECT_TRUE(get());
    EXPECT_EQ(1, server_.connections());
    EXPECT_EQ(3u, server_.requests().size());
}

TEST_F(JSON_RESTful_Client_Test, a_kept_connection_that_the_server_closed_is_replaced_in_silence) {
    client_.retries(0);
    server_.on("GET /x", Steps().send(Https_Server::answer(200, "1")).close());
    EXPECT_TRUE(get());
    EXPECT_TRUE(get());
    EXPECT_EQ(2, server_.connections());
}

TEST_F(JSON_RESTful_Client_Test, a_post_never_goes_out_twice_on_a_dead_connection) {
    server_.on("GET /x", 200, "{}");
    server_.on("POST /x", Steps().close());
    EXPECT_TRUE(get());
    EXPECT_FALSE(post(1));
    EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request 'POST /x' to localhost:");
    ASSERT_EQ(2u, server_.requests().size());
    EXPECT_EQ(2, server_.requests().at(1).connection);
}

TEST_F(JSON_RESTful_Client_Test, a_redirect_is_not_followed) {
    server_.on("GET /x", 302, "", {{"Location", "/y"}});
    server_.on("GET /y", 200, "{}");
    EXPECT_FALSE(get());
    EXPECT_EQ(302, response_.status());
    EXPECT_EQ("/y", response_.headers().get("Location"));
    EXPECT_EQ(1u, server_.requests().size());
}

TEST_F(JSON_RESTful_Client_Test, what_is_logged_has_no_query_header_or_body) {
    server_.on("PUT /x", Steps().reset());
    client_.retries(0);
    HTTP_Request request(HTTP_METHOD_PUT, "/x?token=s3cret-query", true);
    request.headers().put("X-Mini-Token", "s3cret-header");
    Value const body = Object{{"password", "s3cret-body"}};
    EXPECT_FALSE(client_.put(request, &body, response_, &result_));
    EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request 'PUT /x' to localhost:");
    EXPECT_NOT_LOGGED("s3cret");
}

TEST_F(JSON_RESTful_Client_Test, another_endpoint_gets_the_next_request) {
    Https_Server other;
    server_.on("GET /x", 200, "1");
    other.on("GET /x", 200, "2");
    EXPECT_TRUE(get());
    client_.reset("127.0.0.1", other.port(), true);
    EXPECT_TRUE(get());
    EXPECT_EQ(Value(2), result_);
    EXPECT_EQ(1u, server_.requests().size());
}

TEST_F(JSON_RESTful_Client_Test, a_request_made_for_another_method_is_not_sent) {
    Value const body = 1;
    HTTP_Request const request(HTTP_METHOD_GET, "/x", true);
    EXPECT_FALSE(client_.put(request, &body, response_, &result_));
    EXPECT_LOGGED(LM_ERROR, "the request was made for another method");
    EXPECT_EQ(0, server_.connections());
}

TEST_F(JSON_RESTful_Client_Test, a_body_that_cannot_be_written_is_not_sent) {
    Value body;
    for (int depth = 0; depth < 101; ++depth)
        body = Array{body};
    EXPECT_FALSE(post(body));
    EXPECT_EQ(0, response_.status());
    EXPECT_LOGGED(LM_ERROR, "nested deeper than 100 levels");
    EXPECT_EQ(0, server_.connections());
}

TEST_F(JSON_RESTful_Client_Test,
       a_path_with_a_line_break_is_not_sent_and_forges_no_line_in_the_log) {
    EXPECT_FALSE(get("/x\r\nLM_ERROR forged"));
    EXPECT_EQ(0, response_.status());
    EXPECT_LOGGED(LM_ERROR, "'GET /x??LM_ERROR forged' to localhost:");
    EXPECT_EQ(0, server_.connections());
}

TEST_F(JSON_RESTful_Client_Test, without_a_host_nothing_is_sent) {
    client_.reset(nullptr, 80, false);
    EXPECT_IN("the host is not a valid name or address", get_without_answer());
    client_.reset("localhost/x?", 80, false);
    EXPECT_IN("the host is not a valid name or address", get_without_answer());
}

TEST_F(JSON_RESTful_Client_Test, no_proxy_of_the_environment_is_used_unless_asked_for) {
    Scoped_Env const proxy("https_proxy", "http://127.0.0.1:1");
    Scoped_Env const all("ALL_PROXY", "http://127.0.0.1:1");
    Scoped_Env const none("no_proxy", nullptr);
    server_.on("GET /x", 200, "{}");
    EXPECT_TRUE(get());
    client_.environment_proxy(true);
    client_.reset("127.0.0.1", server_.port(), true);
    get_without_answer();
}

TEST_F(JSON_RESTful_Client_Test, no_child_process_inherits_the_connection) {
    server_.on("GET /x", 200, "{}");
    EXPECT_TRUE(get());
    std::vector<int> const sockets = sockets_to(server_.port());
    ASSERT_EQ(1u, sockets.size());
    EXPECT_TRUE(fcntl(sockets[0], F_GETFD) & FD_CLOEXEC);
}

TEST_F(JSON_RESTful_Client_Test, the_connection_to_another_endpoint_is_closed) {
    server_.on("GET /x", 200, "{}");
    EXPECT_TRUE(get());
    client_.reset("localhost", server_.port(), true);
    EXPECT_EQ(1u, sockets_to(server_.port()).size()) << "the endpoint is the same";
    client_.reset("127.0.0.1", server_.port(), true);
    EXPECT_TRUE(sockets_to(server_.port()).empty());
}

TEST_F(JSON_RESTful_Client_Test, dots_in_the_path_go_out_as_they_are) {
    server_.on("GET /a/../x/./y", 200, "{}");
    EXPECT_TRUE(get("/a/../x/./y"));
}

TEST_F(JSON_RESTful_Client_Test, an_answer_that_takes_its_time_is_awaited) {
    server_.on("GET /x", Steps().gate("answer").send(Https_Server::answer(200, "1")));
    std::thread opener([&] {
        server_.await_requests(1);
        server_.open_gate("answer");
    });
    EXPECT_TRUE(get());
    opener.join();
}

TEST_F(JSON_RESTful_Client_Test, clients_on_two_threads_do_not_disturb_each_other) {
    constexpr int ROUNDS = 20;
    server_.on("GET /a", 200, "\"a\"");
    server_.on("GET /b", 200, "\"b\"");
    auto const run = [&](std::string const& name) {
        JSON_RESTful_Client client(true);
        client.ca_file(Test_Certificates::instance().certificate("ca"));
        client.reset("127.0.0.1", server_.port(), true);
        HTTP_Request const request(HTTP_METHOD_GET, ("/" + name).c_str(), true);
        for (int round = 0; round < ROUNDS; ++round) {
            HTTP_Response response;
            Value result;
            EXPECT_TRUE(client.get(request, response, &result)) << response.error();
            EXPECT_EQ(Value(name), result);
        }
    };
    std::thread first(run, "a");
    std::thread second(run, "b");
    first.join();
    second.join();
    EXPECT_EQ(2, server_.connections());
}

class JSON_RESTful_Client_IPv6_Test : public JSON_RESTful_Client_Fixture {
protected:
    JSON_RESTful_Client_IPv6_Test() : JSON_RESTful_Client_Fixture({"good", "::1", false}) {}
};

TEST_F(JSON_RESTful_Client_IPv6_Test, an_address_may_have_brackets_or_not) {
    server_.on("GET /x", 200, "{}");
    for (char const* host : {"::1", "[::1]"}) {
        client_.reset(host, server_.port(), true);
        EXPECT_TRUE(get()) << response_.error();
    }
    EXPECT_EQ("[::1]:" + std::to_string(server_.port()), server_.requests().at(0).header("host"));
}

} // namespace
