#include "host/process/output_tail.h"

#include "qmrt/utf8.h"

#include <gtest/gtest.h>

namespace {

void feed(Output_Tail& tail, std::string const& text) {
    tail.feed(text.data(), text.size());
}

std::string tail_of(std::string const& text) {
    Output_Tail tail;
    feed(tail, text);
    return tail.lines();
}

TEST(Output_Tail, nothing_has_no_lines) {
    EXPECT_EQ("", Output_Tail().lines());
    EXPECT_EQ("", tail_of("\n\n \t\n"));
}

TEST(Output_Tail, gives_the_lines_that_hold_something) {
    EXPECT_EQ("a\nb c", tail_of("a\n\n  b c \r\n"));
    EXPECT_EQ("no break", tail_of("no break"));
}

TEST(Output_Tail, joins_what_came_in_pieces) {
    Output_Tail tail;
    for (char const c : std::string("first\nsecond\n"))
        feed(tail, std::string(1, c));
    EXPECT_EQ("first\nsecond", tail.lines());
}

TEST(Output_Tail, gives_the_last_ten) {
    std::string text;
    for (int i = 1; i <= 12; ++i)
        text += "line " + std::to_string(i) + "\n";
    std::string const lines = tail_of(text);
    EXPECT_EQ(0u, lines.find("line 3\n"));
    EXPECT_EQ(lines.size() - 7, lines.find("line 12"));
}

TEST(Output_Tail, a_long_line_shows_its_beginning) {
    EXPECT_EQ(std::string(300, 'x'), tail_of(std::string(300, 'x')));
    EXPECT_EQ(std::string(300, 'x') + "...", tail_of(std::string(301, 'x')));
    // not half a character
    EXPECT_EQ(std::string(299, 'x') + "...", tail_of(std::string(299, 'x') + "\xC3\xBC"));
}

TEST(Output_Tail, a_flood_leaves_the_end_only) {
    Output_Tail tail;
    for (int i = 0; i < 100000; ++i)
        feed(tail, "noise " + std::to_string(i) + "\n");
    feed(tail, "the reason\n");
    std::string const lines = tail.lines();
    EXPECT_NE(std::string::npos, lines.find("noise 99999\nthe reason"));
    EXPECT_LT(lines.size(), 200u);
}

TEST(Output_Tail, a_line_whose_beginning_is_lost_says_so) {
    EXPECT_EQ(0u, tail_of("begin" + std::string(5000, 'x')).find("...xxx"));
    Output_Tail tail;
    feed(tail, "old");
    feed(tail, std::string(5000, 'x'));
    EXPECT_EQ(0u, tail.lines().find("...xxx"));
}

TEST(Output_Tail, is_text_whatever_the_stream_was) {
    std::string binary;
    for (int i = 0; i < 256; ++i)
        binary += static_cast<char>(i);
    std::string const lines = tail_of(binary + "\n" + std::string("a\0b\x1b[31m", 8) + "\n");
    EXPECT_TRUE(qmrt::is_utf8(lines));
    EXPECT_EQ(std::string::npos, lines.find('\0'));
    EXPECT_EQ(std::string::npos, lines.find('\x1b'));
    EXPECT_NE(std::string::npos, lines.find("a b [31m"));
}

TEST(Output_Tail, clear_begins_anew) {
    Output_Tail tail;
    feed(tail, std::string(10000, 'x'));
    tail.clear();
    EXPECT_EQ("", tail.lines());
    feed(tail, "fresh");
    EXPECT_EQ("fresh", tail.lines());
}

} // namespace
