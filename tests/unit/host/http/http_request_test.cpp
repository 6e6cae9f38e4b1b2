#include "host/http/http_request.h"

#include <gtest/gtest.h>

namespace {

TEST(HTTP_Request, knows_its_method_path_and_headers) {
    HTTP_Request request(HTTP_METHOD_POST, "/rds/v3/auth/mini-token", true);
    EXPECT_EQ(HTTP_METHOD_POST, request.method());
    EXPECT_STREQ("POST", request.method_name());
    EXPECT_EQ("/rds/v3/auth/mini-token", request.path());
    EXPECT_EQ("/rds/v3/auth/mini-token", request.target());
    EXPECT_TRUE(request.headers().put("A", "1"));
    EXPECT_EQ("1", request.headers().get("a"));
}

TEST(HTTP_Request, a_question_mark_at_the_end_of_the_path_only_announces_a_query) {
    HTTP_Request request(HTTP_METHOD_GET, "/rds/v3/jobs?", true);
    EXPECT_EQ("/rds/v3/jobs", request.path());
    EXPECT_EQ("/rds/v3/jobs", request.target());
    request.query_string_buffer() += "id=1";
    EXPECT_EQ("/rds/v3/jobs?id=1", request.target());
}

TEST(HTTP_Request, a_query_needs_no_question_mark_in_the_path) {
    HTTP_Request request(HTTP_METHOD_GET, "/d2/r/v2/resources", true);
    request.query_string_buffer() += "feature=backup";
    EXPECT_EQ("/d2/r/v2/resources?feature=backup", request.target());
}

TEST(HTTP_Request, a_query_in_the_path_is_the_beginning_of_the_buffer) {
    HTTP_Request const request(HTTP_METHOD_GET, "/a?b=1?c", true);
    EXPECT_EQ("/a", request.path());
    EXPECT_EQ("b=1?c", request.query_string());
}

TEST(HTTP_Request, a_plain_path_is_encoded_and_has_no_query) {
    HTTP_Request const request(HTTP_METHOD_GET, "/a b/100%?x", false);
    EXPECT_EQ("/a%20b/100%25%3fx", request.path());
    EXPECT_EQ("", request.query_string());
    EXPECT_TRUE(request.well_formed());
}

TEST(HTTP_Request, a_path_from_an_unchecked_name_cannot_break_out_of_the_first_line) {
    for (char const* path : {"/a b", "/a\r\nHost: evil", "/a\nb", "/a\tb", "/\xC3\xA4", "/a#b",
                             "/a\x7F", "/a?b c", "/a?b\r\nX: 1"})
        EXPECT_FALSE(HTTP_Request(HTTP_METHOD_GET, path, true).well_formed()) << path;
    EXPECT_TRUE(HTTP_Request(HTTP_METHOD_GET, "/a/../b;c=1/%20?d=%2f&e", true).well_formed());
}

TEST(HTTP_Request, a_path_that_is_not_absolute_is_not_well_formed) {
    for (char const* path : {"", "a", "?a=1", "http://evil/", "@evil/"})
        EXPECT_FALSE(HTTP_Request(HTTP_METHOD_GET, path, true).well_formed()) << path;
    EXPECT_FALSE(HTTP_Request(HTTP_METHOD_GET, nullptr, true).well_formed());
}

} // namespace
