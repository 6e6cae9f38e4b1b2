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

TEST(utf8, local_text_is_converted_from_its_codeset) {
    EXPECT_EQ("M\xC3\xBCller", qmrt::local_to_utf8("M\xFCller", "ISO-8859-1"));
    EXPECT_EQ("\xE6\x95\xB0\xE6\x8D\xAE", qmrt::local_to_utf8("\xCA\xFD\xBE\xDD", "GB18030"));
    std::string const many(1000, '\xFC');
    EXPECT_EQ(2000u, qmrt::local_to_utf8(many, "ISO-8859-1").size());
}

TEST(utf8, local_text_that_is_utf8_already_stays) {
    EXPECT_EQ("gr\xC3\xBC\xC3\x9F", qmrt::local_to_utf8("gr\xC3\xBC\xC3\x9F", "ISO-8859-1"));
    EXPECT_EQ(std::string("a\0b", 3), qmrt::local_to_utf8(std::string_view("a\0b", 3), "GB18030"));
}

TEST(utf8, what_is_no_local_text_is_replaced_byte_by_byte) {
    EXPECT_EQ("a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD",
              qmrt::local_to_utf8("a\xFF"
                                  "b\x81",
                                  "GB18030"));
    // the tests run in the C locale, which is ASCII
    EXPECT_EQ("\xEF\xBF\xBD!", qmrt::local_to_utf8("\xFC!"));
    EXPECT_EQ("\xEF\xBF\xBD!", qmrt::local_to_utf8("\xFC!", "no such codeset"));
}

} // namespace
