#include "host/http/http_transfer.h"

#include "tests/support/https_server.h"

#include <gtest/gtest.h>

namespace {

HTTP_Request const REQUEST(HTTP_METHOD_GET, "/x", true);

class HTTP_Transfer_Test : public testing::Test {
protected:
    HTTP_Transfer_Settings settings(unsigned short port) {
        HTTP_Transfer_Settings result;
        result.host = "127.0.0.1";
        result.port = port;
        return result;
    }
    HTTP_Transfer transfer_;
    HTTP_Response response_;
};

TEST_F(HTTP_Transfer_Test, a_whole_answer_of_any_status_is_done) {
    Https_Server server({"", "127.0.0.1", false});
    server.on("GET /x", 503, "busy", {{"A", "1"}});
    EXPECT_EQ(HTTP_Transfer::DONE,
              transfer_.perform(settings(server.port()), REQUEST, nullptr, response_));
    EXPECT_EQ(503, response_.status());
    EXPECT_EQ("busy", response_.body());
    EXPECT_EQ("1", response_.headers().get("a"));
    EXPECT_EQ("", response_.error());
}

TEST_F(HTTP_Transfer_Test, a_connection_that_breaks_or_cannot_be_made_is_no_answer) {
    unsigned short port = 0;
    {
        Https_Server server({"", "127.0.0.1", false});
        port = server.port();
        server.on("GET /x", Https_Server::Steps().reset());
        EXPECT_EQ(HTTP_Transfer::NO_ANSWER,
                  transfer_.perform(settings(port), REQUEST, nullptr, response_));
        EXPECT_EQ(0, response_.status());
        EXPECT_NE("", response_.error());
    }
    EXPECT_EQ(HTTP_Transfer::NO_ANSWER,
              transfer_.perform(settings(port), REQUEST, nullptr, response_));
}

TEST_F(HTTP_Transfer_Test, a_failure_leaves_nothing_of_an_earlier_answer) {
    Https_Server server({"", "127.0.0.1", false});
    server.on("GET /x", 200, "first", {{"A", "1"}});
    server.on("GET /x", Https_Server::Steps()
                            .send("HTTP/1.1 200 OK\r\nB: 2\r\nContent-Length: 100\r\n\r\nhalf")
                            .close());
    transfer_.perform(settings(server.port()), REQUEST, nullptr, response_);
    ASSERT_EQ(200, response_.status());
    EXPECT_EQ(HTTP_Transfer::NO_ANSWER,
              transfer_.perform(settings(server.port()), REQUEST, nullptr, response_));
    EXPECT_EQ(0, response_.status());
    EXPECT_EQ("", response_.body());
    EXPECT_TRUE(response_.headers().fields().empty());
}

TEST_F(HTTP_Transfer_Test, a_bound_that_is_exceeded_is_a_failure) {
    Https_Server server({"", "127.0.0.1", false});
    server.on("GET /x", 200, "12345");
    HTTP_Transfer_Settings bounded = settings(server.port());
    bounded.max_body_size = 4;
    EXPECT_EQ(HTTP_Transfer::FAILED, transfer_.perform(bounded, REQUEST, nullptr, response_));
    EXPECT_EQ("response body is larger than 4 bytes", response_.error());
}

TEST_F(HTTP_Transfer_Test, connections_can_be_closed_and_are_made_anew) {
    Https_Server server({"", "127.0.0.1", false});
    server.on("GET /x", 200, "");
    transfer_.close();
    transfer_.perform(settings(server.port()), REQUEST, nullptr, response_);
    transfer_.perform(settings(server.port()), REQUEST, nullptr, response_);
    EXPECT_EQ(1, server.connections());
    transfer_.close();
    EXPECT_EQ(HTTP_Transfer::DONE,
              transfer_.perform(settings(server.port()), REQUEST, nullptr, response_));
    EXPECT_EQ(2, server.connections());
}

TEST(http_transfer_fault, a_host_is_a_name_or_an_address_and_nothing_more) {
    HTTP_Transfer_Settings settings;
    settings.port = 1;
    for (char const* host :
         {"a", "a-b.example", "10.0.0.1", "::1", "[::1]", "fe80::1%eth0", "a_b"}) {
        settings.host = host;
        EXPECT_EQ("", http_transfer_fault(settings, REQUEST)) << host;
    }
    for (char const* host : {"", "[]", "a/b", "user@host", "a b", "a\r\nb", "a?b", "a#b",
                             "\xC3\xA4", "::1/x", "[::1", "::1]", "a:80", "%41"}) {
        settings.host = host;
        bool const is_hex = std::string(host) == "a:80"; // an address as far as its characters go
        EXPECT_EQ(is_hex ? "" : "the host is not a valid name or address",
                  http_transfer_fault(settings, REQUEST))
            << host;
    }
}

TEST(http_transfer_fault, names_what_is_missing) {
    HTTP_Transfer_Settings settings;
    settings.host = "localhost";
    EXPECT_EQ("there is no port", http_transfer_fault(settings, REQUEST));
    settings.port = 80;
    EXPECT_EQ("the path or the query has characters that may not be there",
              http_transfer_fault(settings, HTTP_Request(HTTP_METHOD_GET, "/a b", true)));
    settings.streaming = true;
    EXPECT_EQ("streaming is on, but there is no receiver", http_transfer_fault(settings, REQUEST));
    settings.streaming = false;
    settings.pinned_key = "sha256//x";
    EXPECT_EQ("a key is pinned, but the connection has no TLS",
              http_transfer_fault(settings, REQUEST));
    settings.ssl = true;
    EXPECT_EQ("", http_transfer_fault(settings, REQUEST));
}

} // namespace
