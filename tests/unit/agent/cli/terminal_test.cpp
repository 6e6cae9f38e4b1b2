#include "agent/cli/terminal.h"

#include "json_spirit/text.h"

#include <gtest/gtest.h>

namespace {

class Terminal_Test : public testing::Test {
protected:
    Terminal_Test() { init_terminal_locale(); }
};

TEST_F(Terminal_Test, plain_text_stays) {
    EXPECT_EQ("a b, Größe 数据库", printable("a b, Größe 数据库"));
    EXPECT_EQ("", printable(""));
}

TEST_F(Terminal_Test, what_steers_a_terminal_is_shown) {
    EXPECT_EQ("\\x1b[2J\\x1b]0;x\\x07", printable("\x1b[2J\x1b]0;x\x07"));
    EXPECT_EQ("a\\nb\\r\\tc\\x7f", printable("a\nb\r\tc\x7f"));
    EXPECT_EQ("\\x00.", printable(std::string_view("\0.", 2)));
    EXPECT_EQ("\\x9b31m", printable("\xc2\x9b"
                                    "31m"));
}

TEST_F(Terminal_Test, what_turns_or_hides_text_is_shown) {
    EXPECT_EQ("\\u202egpj.exe", printable("\u202egpj.exe"));
    EXPECT_EQ("\\u2066\\u2028\\ufeff\\u200f", printable("\u2066\u2028\ufeff\u200f"));
}

TEST_F(Terminal_Test, bytes_that_are_no_text) {
    EXPECT_EQ("a\ufffdb", printable("a\xff"
                                    "b"));
    EXPECT_EQ("\ufffd\ufffd", printable("\xe6\x95"));
}

TEST_F(Terminal_Test, lines_keep_their_breaks_and_nothing_else) {
    EXPECT_EQ("a\n\tb\\r\\x1b[m\n", printable_lines("a\n\tb\r\x1b[m\n"));
}

TEST_F(Terminal_Test, json_stays_the_same_json) {
    json_spirit::Value const value(json_spirit::Object{{"a\x7f", "\xc2\x9b\u202ex\x1b"}});
    std::string const text = printable_json(json_spirit::to_text(value, true));
    EXPECT_EQ(std::string::npos, text.find_first_of("\x7f\x1b"));
    EXPECT_NE(std::string::npos, text.find("\\u009b\\u202ex"));
    json_spirit::Value back;
    ASSERT_TRUE(json_spirit::parse(text, back, nullptr));
    EXPECT_EQ(value, back);
}

TEST_F(Terminal_Test, widths) {
    EXPECT_EQ(0u, display_width(""));
    EXPECT_EQ(5u, display_width("Größe"));
    EXPECT_EQ(6u, display_width("数据库"));
    EXPECT_EQ(1u, display_width("…"));
    EXPECT_EQ(1u, display_width("e\u0301")) << "a combining mark takes no column";
}

TEST_F(Terminal_Test, texts_that_do_not_fit_end_with_an_ellipsis) {
    EXPECT_EQ("production", fit("production", 10, "…"));
    EXPECT_EQ("producti…", fit("production", 9, "…"));
    EXPECT_EQ("produc...", fit("production", 9, "..."));
    EXPECT_EQ("…", fit("production", 1, "…"));
    EXPECT_EQ("", fit("production", 0, "…"));
    EXPECT_EQ("p", fit("production", 1, ""));
    EXPECT_EQ("数…", fit("数据库", 4, "…")) << "half of a wide character is none";
}

} // namespace
