#include "host/http/http_encode.h"

#include <gtest/gtest.h>
#include <iterator>

namespace {

std::string encoded(std::string const& text, unsigned flags) {
    return http_encode_string(text, flags);
}

TEST(http_encode, letters_digits_and_four_marks_stay) {
    std::string const text = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~";
    for (unsigned flags = 0; flags < 8; ++flags)
        EXPECT_EQ(text, encoded(text, flags));
}

TEST(http_encode, every_other_byte_becomes_two_hexadecimal_digits) {
    for (int value = 0; value < 256; ++value) {
        char const c = static_cast<char>(value);
        if (std::isalnum(value) || std::string("-_.~/").find(c) != std::string::npos)
            continue;
        char expected[4];
        snprintf(expected, sizeof expected, "%%%02x", value);
        EXPECT_EQ(expected, encoded(std::string(1, c), 0));
    }
}

TEST(http_encode, the_slash_flag_decides_on_slashes) {
    EXPECT_EQ("a/b", encoded("a/b", 0));
    EXPECT_EQ("a%2fb", encoded("a/b", HUT_FLAG_SLASH));
}

TEST(http_encode, the_space_flag_decides_on_spaces) {
    EXPECT_EQ("a%20b", encoded("a b", 0));
    EXPECT_EQ("a+b", encoded("a b", HUT_FLAG_SPACE));
    EXPECT_EQ("%2b", encoded("+", HUT_FLAG_SPACE));
}

TEST(http_encode, the_uppercase_flag_decides_on_the_digits) {
    EXPECT_EQ("%c3%a4%2f", encoded("\xC3\xA4/", HUT_FLAG_SLASH));
    EXPECT_EQ("%C3%A4%2F", encoded("\xC3\xA4/", HUT_FLAG_SLASH | HUT_FLAG_UPPERCASE));
}

TEST(http_encode, a_time_with_a_zone_in_a_query) {
    EXPECT_EQ("2024-05-06T07%3a08%3a09%2b0800",
              encoded("2024-05-06T07:08:09+0800", HUT_FLAG_SLASH | HUT_FLAG_SPACE));
}

TEST(http_encode, the_iterator_behind_the_last_character_comes_back) {
    char text[16] = "";
    char* const end = http_encode_string_i("a:", 2, text, 0);
    EXPECT_EQ(text + 4, end);
    EXPECT_EQ(text, http_encode_string_i(nullptr, 0, text, 0));
}

TEST(http_decode, undoes_the_encoding_of_every_byte_under_every_flag) {
    std::string all;
    for (int value = 0; value < 256; ++value)
        all += static_cast<char>(value);
    for (unsigned flags = 0; flags < 8; ++flags) {
        std::string back;
        ASSERT_TRUE(http_decode_string(encoded(all, flags), flags, back));
        EXPECT_EQ(all, back) << flags;
    }
}

TEST(http_decode, a_plus_is_a_space_only_where_the_flag_says_so) {
    std::string out;
    EXPECT_TRUE(http_decode_string("a+b", HUT_FLAG_SPACE, out));
    EXPECT_EQ("a b", out);
    EXPECT_TRUE(http_decode_string("a+b", 0, out));
    EXPECT_EQ("a+b", out);
}

TEST(http_decode, a_broken_escape_is_refused_and_leaves_the_target_alone) {
    for (char const* text : {"%", "a%", "%4", "%4g", "%g4", "%%41", "%-1", "% 1"}) {
        std::string out = "untouched";
        EXPECT_FALSE(http_decode_string(text, 0, out)) << text;
        EXPECT_EQ("untouched", out);
    }
}

TEST(http_parse_query, keys_and_values_in_order) {
    HTTP_Query query;
    ASSERT_TRUE(http_parse_query("feature=backup&a+b=%2f&flag&empty=&x=1=2&x=3", query));
    EXPECT_EQ((HTTP_Query{{"feature", "backup"},
                          {"a b", "/"},
                          {"flag", ""},
                          {"empty", ""},
                          {"x", "1=2"},
                          {"x", "3"}}),
              query);
}

TEST(http_parse_query, nothing_between_two_ampersands_is_nothing) {
    HTTP_Query query{{"old", "1"}};
    EXPECT_TRUE(http_parse_query("", query));
    EXPECT_TRUE(query.empty());
    EXPECT_TRUE(http_parse_query("&&a=1&", query));
    EXPECT_EQ((HTTP_Query{{"a", "1"}}), query);
}

TEST(http_parse_query, a_broken_escape_refuses_the_whole) {
    HTTP_Query query{{"old", "1"}};
    EXPECT_FALSE(http_parse_query("a=1&b=%zz", query));
    EXPECT_FALSE(http_parse_query("a=1&%=2", query));
    EXPECT_EQ((HTTP_Query{{"old", "1"}}), query);
}

} // namespace
