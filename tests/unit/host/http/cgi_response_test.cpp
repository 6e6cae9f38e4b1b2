#include "host/http/cgi_response.h"

#include "json_spirit/access.h"

#include <gtest/gtest.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

TEST(CGI_Response, writes_status_headers_and_body) {
    CGI_Response response;
    response.status(404);
    response.headers().put("X-A", "1");
    response.body("none\n");
    EXPECT_EQ("Status: 404\r\nX-A: 1\r\n\r\nnone\n", response.text());
}

TEST(CGI_Response, a_response_without_a_status_is_a_failure_of_the_server) {
    EXPECT_EQ("Status: 500\r\n\r\n", CGI_Response().text());
}

TEST(CGI_Response, a_json_body_brings_its_content_type) {
    CGI_Response response;
    response.json(201, Object{{"a", 1}});
    EXPECT_EQ("Status: 201\r\nContent-Type: application/json\r\n\r\n{\"a\":1}", response.text());
}

TEST(CGI_Response, a_value_nested_too_deeply_becomes_a_failure_of_the_server) {
    Value value;
    for (int depth = 0; depth < 101; ++depth)
        value = Array{value};
    CGI_Response response;
    response.json(200, value);
    EXPECT_EQ(500, response.status());
    EXPECT_EQ("", response.body());
    EXPECT_NE("", response.error());
}

TEST(CGI_Response, reads_what_it_wrote) {
    CGI_Response response;
    response.status(202);
    response.headers().put("X-A", "1");
    response.body(std::string("a\r\n\r\nb\0c", 8));
    CGI_Response back;
    ASSERT_TRUE(back.parse(response.text()));
    EXPECT_EQ(202, back.status());
    EXPECT_EQ("1", back.headers().get("X-A"));
    EXPECT_FALSE(back.headers().contains("Status"));
    EXPECT_EQ(response.body(), back.body());
}

TEST(CGI_Response, lines_may_end_in_lf_and_the_status_may_have_a_reason) {
    CGI_Response response;
    ASSERT_TRUE(response.parse("Status: 403 Forbidden, really\nX: y\n\nbody"));
    EXPECT_EQ(403, response.status());
    EXPECT_EQ("body", response.body());
}

TEST(CGI_Response, without_a_status_it_is_200_or_a_redirect) {
    CGI_Response response;
    ASSERT_TRUE(response.parse("Content-Type: text/plain\n\n"));
    EXPECT_EQ(200, response.status());
    ASSERT_TRUE(response.parse("Location: /elsewhere\n\n"));
    EXPECT_EQ(302, response.status());
}

TEST(CGI_Response, what_is_no_response_is_refused_and_changes_nothing) {
    CGI_Response response;
    response.status(200);
    response.body("old");
    for (char const* text :
         {"", "\n", "\r\n\r\n", "Status: 200", "Status: 200\n", "no field\n\n", "Status: 99\n\n",
          "Status: 600\n\n", "Status: abc\n\n", "Status: 2000\n\n", "Status:\n\n",
          "Status: -20\n\n", "A B: 1\n\n", "A: 1\nB", ": x\n\n", "A: \x01\n\n"}) {
        EXPECT_FALSE(response.parse(text)) << text;
        EXPECT_EQ(200, response.status());
        EXPECT_EQ("old", response.body());
    }
}

} // namespace
