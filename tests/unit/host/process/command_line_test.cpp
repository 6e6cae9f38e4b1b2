#include "host/process/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> split(std::string_view line) {
    std::vector<std::string> words = {"left over"};
    std::string error;
    EXPECT_TRUE(split_command_line(line, words, error)) << line << ": " << error;
    EXPECT_EQ("", error);
    return words;
}

std::string error_of(std::string_view line) {
    std::vector<std::string> words = {"as before"};
    std::string error;
    EXPECT_FALSE(split_command_line(line, words, error)) << line;
    EXPECT_THAT(words, ElementsAre("as before"));
    return error;
}

TEST(split_command_line, blanks_tabs_and_line_breaks_part_words) {
    EXPECT_THAT(split("gs_om -t status"), ElementsAre("gs_om", "-t", "status"));
    EXPECT_THAT(split(" \t a\tb\n c  "), ElementsAre("a", "b", "c"));
    EXPECT_THAT(split("a\rb"), ElementsAre("a\rb"));
}

TEST(split_command_line, a_line_of_blanks_has_no_words) {
    EXPECT_THAT(split(""), IsEmpty());
    EXPECT_THAT(split(" \t\n"), IsEmpty());
}

TEST(split_command_line, single_quotes_take_all_as_it_stands) {
    EXPECT_THAT(split(R"('a "b" \n $HOME' x)"), ElementsAre(R"(a "b" \n $HOME)", "x"));
}

TEST(split_command_line, in_double_quotes_a_backslash_counts_before_five_bytes_only) {
    EXPECT_THAT(split(R"("\$a \`b \"c \\d \e \'f")"), ElementsAre(R"($a `b "c \d \e \'f)"));
    EXPECT_THAT(split("\"a\\\nb\""), ElementsAre("ab"));
    EXPECT_THAT(split("\"it's\""), ElementsAre("it's"));
}

TEST(split_command_line, outside_of_quotes_a_backslash_takes_the_next_byte) {
    EXPECT_THAT(split(R"(a\ b \'c \" \\ \d)"), ElementsAre("a b", "'c", "\"", "\\", "d"));
}

TEST(split_command_line, a_backslash_before_a_line_break_continues_the_line) {
    EXPECT_THAT(split("a\\\nb c"), ElementsAre("ab", "c"));
    EXPECT_THAT(split("a \\\n b"), ElementsAre("a", "b"));
    EXPECT_THAT(split("\\\n"), IsEmpty());
}

TEST(split_command_line, neighbours_are_joined) {
    EXPECT_THAT(split(R"(a'b'"c"\d)"), ElementsAre("abcd"));
    EXPECT_THAT(split(R"(--x='a b'/"c d")"), ElementsAre("--x=a b/c d"));
}

TEST(split_command_line, a_prepared_statement_is_one_word_in_a_local_argument) {
    EXPECT_THAT(
        split(R"(gsql -t -c "select count(1) from pgxc_node where node_host!='"'localhost'"'")"),
        ElementsAre("gsql", "-t", "-c",
                    "select count(1) from pgxc_node where node_host!='localhost'"));
}

TEST(split_command_line, and_reaches_the_remote_shell_quoted) {
    EXPECT_THAT(
        split(R"(ssh -o ConnectTimeout=4 h 'source /etc/profile; gsql -d postgres -p 25308 )"
              R"(-t -c "select 1 where node_host!='"'localhost'"'"')"),
        ElementsAre("ssh", "-o", "ConnectTimeout=4", "h",
                    "source /etc/profile; gsql -d postgres -p 25308 -t -c "
                    "\"select 1 where node_host!='localhost'\""));
}

TEST(split_command_line, empty_words_are_kept) {
    EXPECT_THAT(split(R"(a '' "" b''"")"), ElementsAre("a", "", "", "b"));
}

TEST(split_command_line, nothing_is_expanded) {
    EXPECT_THAT(split("echo $HOME `id` $(id) * ~ a|b ; # c {1,2} > f &"),
                ElementsAre("echo", "$HOME", "`id`", "$(id)", "*", "~", "a|b", ";", "#", "c",
                            "{1,2}", ">", "f", "&"));
}

TEST(split_command_line, bytes_beyond_ascii_stay) {
    EXPECT_THAT(split("a\xFF\xA0'\x80 \x01'"), ElementsAre("a\xFF\xA0\x80 \x01"));
}

TEST(split_command_line, a_quote_without_its_end_is_an_error) {
    EXPECT_THAT(error_of("a 'b"), HasSubstr("a ' in it has no end"));
    EXPECT_THAT(error_of("a \"b"), HasSubstr("a \" in it has no end"));
    EXPECT_THAT(error_of("a \"b\\\""), HasSubstr("a \" in it has no end"));
    EXPECT_THAT(error_of("a \"b\\"), HasSubstr("a \" in it has no end"));
    EXPECT_THAT(error_of("'a'b'"), HasSubstr("a ' in it has no end"));
}

TEST(split_command_line, a_backslash_at_the_very_end_is_an_error) {
    EXPECT_THAT(error_of("a \\"), HasSubstr("ends with a backslash"));
    EXPECT_THAT(split("a '\\'"), ElementsAre("a", "\\"));
}

TEST(split_command_line, a_NUL_is_an_error) {
    EXPECT_THAT(error_of(std::string_view("a\0b", 3)), HasSubstr("NUL"));
}

TEST(split_command_line, a_huge_line_is_split_too) {
    std::string line;
    for (int i = 0; i < 100000; ++i)
        line += "'w'" + std::to_string(i) + " ";
    std::vector<std::string> const words = split(line);
    ASSERT_EQ(100000u, words.size());
    EXPECT_EQ("w99999", words.back());
}

TEST(quote_word, gives_back_any_word_through_splitting) {
    for (std::string const word :
         {"", "plain", "a b", "it's", "''", "\\", "a\nb", "\"", "$x`y`", "'\\''", "\xFF\x01"})
        EXPECT_THAT(split("x" + std::string(" ") + quote_word(word) + " y"),
                    ElementsAre("x", word, "y"));
}

TEST(quote_word, quotes_so_that_words_can_be_joined) {
    EXPECT_EQ("'it'\\''s'", quote_word("it's"));
    EXPECT_THAT(split("--name=" + quote_word("a b")), ElementsAre("--name=a b"));
}

} // namespace
