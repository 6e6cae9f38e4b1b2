#include "host/process/line_splitter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Reader {
    explicit Reader(size_t max_line = Line_Splitter::MAX_LINE) : splitter(max_line) {}
    void feed(std::string const& text) {
        splitter.feed(text.data(), text.size(), [&](char const* line, size_t length) {
            EXPECT_EQ('\0', line[length]);
            lines.emplace_back(line, length);
        });
    }
    void finish() {
        splitter.finish([&](char const* line, size_t length) { lines.emplace_back(line, length); });
    }
    Line_Splitter splitter;
    std::vector<std::string> lines;
};

TEST(Line_Splitter, parts_at_line_breaks) {
    Reader reader;
    reader.feed("a\nbc\n\nd\r\n");
    EXPECT_THAT(reader.lines, ElementsAre("a", "bc", "", "d\r"));
    reader.finish();
    EXPECT_EQ(4u, reader.lines.size());
}

TEST(Line_Splitter, joins_the_pieces_of_a_line) {
    Reader reader;
    for (std::string const piece : {"ab", "", "c", "\n", "d", "e\nf\ng"})
        reader.feed(piece);
    EXPECT_THAT(reader.lines, ElementsAre("abc", "de", "f"));
}

TEST(Line_Splitter, a_last_line_without_a_break_counts) {
    Reader reader;
    reader.feed("a\nb");
    EXPECT_THAT(reader.lines, ElementsAre("a"));
    reader.finish();
    EXPECT_THAT(reader.lines, ElementsAre("a", "b"));
    reader.finish();
    EXPECT_EQ(2u, reader.lines.size());
}

TEST(Line_Splitter, an_empty_stream_has_no_line) {
    Reader reader;
    reader.feed("");
    reader.finish();
    EXPECT_THAT(reader.lines, IsEmpty());
}

TEST(Line_Splitter, any_other_byte_may_be_in_a_line) {
    Reader reader;
    reader.feed(std::string("a\0b\xFF\x1b\n\0\n", 8));
    EXPECT_THAT(reader.lines, ElementsAre(std::string("a\0b\xFF\x1b", 5), std::string("\0", 1)));
}

TEST(Line_Splitter, a_line_of_the_limit_is_whole) {
    Reader reader(8);
    reader.feed("12345678\n1234");
    reader.feed("5678\n");
    EXPECT_THAT(reader.lines, ElementsAre("12345678", "12345678"));
    EXPECT_FALSE(reader.splitter.has_cut());
}

TEST(Line_Splitter, a_longer_line_comes_in_pieces_of_the_limit) {
    Reader reader(8);
    reader.feed("123456789\nx\n");
    EXPECT_THAT(reader.lines, ElementsAre("12345678", "9", "x"));
    EXPECT_TRUE(reader.splitter.has_cut());
    reader.lines.clear();
    reader.feed("aaaaaaaabbbbbbbbc");
    EXPECT_THAT(reader.lines, ElementsAre("aaaaaaaa", "bbbbbbbb"));
    reader.finish();
    EXPECT_THAT(reader.lines, ElementsAre("aaaaaaaa", "bbbbbbbb", "c"));
}

} // namespace
