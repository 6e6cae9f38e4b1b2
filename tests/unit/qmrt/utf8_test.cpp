#include "qmrt/utf8.h"

#include <gtest/gtest.h>

namespace {

TEST(utf8, well_formed_text) {
    for (std::string const text : {"", "plain", "gr\xC3\xBC\xC3\x9F", "\xE6\x95\xB0\xE6\x8D\xAE",
                                   "\xF0\x9F\x92\xBE", "\xED\x9F\xBF", "\xEE\x80\x80",
                                   "\xF4\x8F\xBF\xBF", "eight by\xC3\xA4te words and more"}) {
        EXPECT_TRUE(qmrt::is_utf8(text)) << text;
        EXPECT_EQ(text, qmrt::to_utf8(text));
    }
}

TEST(utf8, ill_formed_text) {
    for (std::string const text :
         {"\x80", "\xC3", "\xC0\xAF", "\xC1\xBF", "\xE0\x80\xAF", "\xED\xA0\x80",
          "\xF0\x80\x80\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\xE6\x95",
          "abcdefgh\xFE", "\xC3\x28"})
        EXPECT_FALSE(qmrt::is_utf8(text)) << text;
}

TEST(utf8, each_stray_byte_becomes_the_replacement_character) {
    EXPECT_EQ("a\xEF\xBF\xBD"
              "b",
              qmrt::to_utf8("a\xFF"
                            "b"));
    EXPECT_EQ("\xEF\xBF\xBD\xEF\xBF\xBD", qmrt::to_utf8("\xE6\x95"));
    EXPECT_EQ("\xEF\xBF\xBD(", qmrt::to_utf8("\xC3("));
}

TEST(to_one_line, control_characters_cannot_forge_a_line) {
    EXPECT_EQ("a?b??c?", qmrt::to_one_line(std::string_view("a\nb\r\0c\x7F", 7)));
    EXPECT_EQ("\xC3\xA4 \xEF\xBF\xBD", qmrt::to_one_line("\xC3\xA4 \xFF"));
    EXPECT_EQ("", qmrt::to_one_line(""));
}

} // namespace
