#include "host/http/http_headers.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

TEST(HTTP_Headers, names_are_the_same_in_either_case) {
    HTTP_Headers headers;
    EXPECT_TRUE(headers.put("X-Mini-Token", "abc"));
    EXPECT_EQ("abc", headers.get("x-mini-TOKEN"));
    EXPECT_TRUE(headers.contains("X-MINI-TOKEN"));
    EXPECT_FALSE(headers.contains("X-Mini-Toke"));
}

TEST(HTTP_Headers, put_replaces_an_earlier_value) {
    HTTP_Headers headers;
    headers.put("A", "1");
    headers.put("B", "2");
    EXPECT_TRUE(headers.put("a", "3"));
    ASSERT_EQ(2u, headers.fields().size());
    EXPECT_EQ("A", headers.fields()[0].name);
    EXPECT_EQ("3", headers.fields()[0].value);
}

TEST(HTTP_Headers, an_absent_header_reads_as_empty) {
    HTTP_Headers const headers;
    EXPECT_EQ("", headers.get("X-TRACE-ID"));
    EXPECT_FALSE(headers.contains("X-TRACE-ID"));
}

TEST(HTTP_Headers, a_value_with_a_line_break_cannot_add_a_header) {
    HTTP_Headers headers;
    headers.put("A", "good");
    for (std::string const& value :
         {std::string("x\r\nB: 1"), std::string("x\nB: 1"), std::string("x\rB"),
          std::string("x\0y", 3), std::string("\x01"), std::string("\x7F")}) {
        EXPECT_FALSE(headers.put("A", value));
        EXPECT_LOGGED(LM_ERROR, "Refused HTTP header A, its value has control characters\n");
    }
    EXPECT_EQ("good", headers.get("A"));
    EXPECT_EQ(1u, headers.fields().size());
}

TEST(HTTP_Headers, the_refused_value_is_not_in_the_log) {
    HTTP_Headers headers;
    EXPECT_FALSE(headers.put("X-Mini-Token", "s3cret\r\n"));
    EXPECT_LOGGED(LM_ERROR, "X-Mini-Token");
    EXPECT_NOT_LOGGED("s3cret");
}

TEST(HTTP_Headers, a_name_that_is_no_token_is_refused) {
    HTTP_Headers headers;
    for (std::string const name : {"", "A B", "A:", "A\r\nB", "A\n", "\xC3\xA4", "(A)", "A\t"}) {
        EXPECT_FALSE(headers.put(name, "1")) << name;
        EXPECT_LOGGED(LM_ERROR, "its name is no token");
    }
    EXPECT_TRUE(headers.fields().empty());
}

TEST(HTTP_Headers, blanks_around_a_value_are_dropped_and_inside_kept) {
    HTTP_Headers headers;
    headers.put("A", " \t a  b\t ");
    EXPECT_EQ("a  b", headers.get("A"));
    EXPECT_TRUE(headers.put("B", "  "));
    EXPECT_TRUE(headers.contains("B"));
    EXPECT_EQ("", headers.get("B"));
}

TEST(HTTP_Headers, add_joins_a_second_value_and_refuses_in_silence) {
    HTTP_Headers headers;
    EXPECT_TRUE(headers.add("Via", "a"));
    EXPECT_TRUE(headers.add("VIA", "b"));
    EXPECT_EQ("a, b", headers.get("Via"));
    EXPECT_FALSE(headers.add("Via", "c\n"));
    EXPECT_FALSE(headers.add("V ia", "c"));
    EXPECT_EQ("a, b", headers.get("Via"));
}

TEST(HTTP_Headers, remove_takes_a_header_away) {
    HTTP_Headers headers;
    headers.put("A", "1");
    headers.put("B", "2");
    headers.remove("a");
    headers.remove("none");
    EXPECT_FALSE(headers.contains("A"));
    EXPECT_EQ("2", headers.get("B"));
    headers.clear();
    EXPECT_TRUE(headers.fields().empty());
}

} // namespace
