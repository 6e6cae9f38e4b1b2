#include "host/yajl/yajl_parser.h"

#include <array>
#include <gtest/gtest.h>
#include <random>
#include <stdexcept>

namespace {

/** Writes down what it is told. */
class Recorder : public YAJL_Parser<std::string> {
public:
    Recorder() : YAJL_Parser(std::make_unique<std::string>()) {}

    bool handle_boolean_i(bool value) override { return add(value ? "true" : "false"); }
    bool handle_number_i(char const* text, size_t length) override {
        return add("n:" + std::string(text, length));
    }
    bool handle_string_i(char const* text, size_t length) override {
        std::string const string(text, length);
        if (string == "throw")
            throw std::runtime_error("thrown by a handler");
        if (string == "coded") {
            err_ = YAJL_ERR_TYPE;
            return false;
        }
        if (string == "with words")
            return stop(YAJL_ERR_MISSING, "lack of\n'id'");
        if (string == "coded but true") {
            err_ = YAJL_ERR_PLACE;
            return true;
        }
        return add("s:" + string) && string != "stop";
    }
    bool handle_start_map_i() override { return add("{"); }
    bool handle_map_key_i(char const* text, size_t length) override {
        return add("k:" + std::string(text, length));
    }
    bool handle_end_map_i() override { return add("}"); }
    bool handle_start_array_i() override { return add("["); }
    bool handle_end_array_i() override { return add("]"); }
    bool handle_null_i() override { return add("null"); }

    bool feed(std::string_view text) { return parse(text.data(), text.size()); }
    std::string events;

private:
    bool add(std::string const& event) {
        events += event + " ";
        *result_ += event;
        return true;
    }
};

char const ALL[] = "{\"a\":[1,-2.5e3,true,false,null,\"x\\u00e4\\n\"],\"b\":{\"c\":\"\xC3\xA4\"}}";
char const ALL_EVENTS[] =
    "{ k:a [ n:1 n:-2.5e3 true false null s:x\xC3\xA4\n ] k:b { k:c s:\xC3\xA4 } } ";

/** The code and text of the fault that the whole text must give. */
std::pair<int, std::string> fault(std::string_view text) {
    Recorder parser;
    EXPECT_FALSE(parser.feed(text) && parser.complete()) << text.substr(0, 80);
    EXPECT_NE("", parser.error());
    return {parser.err(), parser.error()};
}

TEST(YAJL_Parser, tells_the_handlers_every_event) {
    Recorder parser;
    EXPECT_TRUE(parser.feed(ALL));
    EXPECT_TRUE(parser.complete());
    EXPECT_EQ(ALL_EVENTS, parser.events);
    EXPECT_EQ(0, parser.err());
    EXPECT_EQ("", parser.error());
}

TEST(YAJL_Parser, the_text_may_come_byte_by_byte) {
    Recorder parser;
    for (char const c : std::string_view(ALL))
        ASSERT_TRUE(parser.feed(std::string_view(&c, 1))) << parser.error();
    EXPECT_TRUE(parser.feed(""));
    EXPECT_TRUE(parser.complete());
    EXPECT_EQ(ALL_EVENTS, parser.events);
}

TEST(YAJL_Parser, the_text_may_come_in_two_pieces_cut_anywhere) {
    std::string_view const text = ALL;
    for (size_t cut = 0; cut <= text.size(); ++cut) {
        Recorder parser;
        EXPECT_TRUE(parser.feed(text.substr(0, cut)) && parser.feed(text.substr(cut)) &&
                    parser.complete())
            << cut << parser.error();
        EXPECT_EQ(ALL_EVENTS, parser.events);
    }
}

TEST(YAJL_Parser, a_number_alone_ends_with_the_text) {
    Recorder parser;
    EXPECT_TRUE(parser.feed("4"));
    EXPECT_TRUE(parser.feed("2"));
    EXPECT_EQ("", parser.events);
    EXPECT_TRUE(parser.complete());
    EXPECT_EQ("n:42 ", parser.events);
}

TEST(YAJL_Parser, the_result_stays_the_parsers_until_it_is_released) {
    Recorder parser;
    parser.feed("[1]");
    ASSERT_NE(nullptr, parser.result());
    EXPECT_EQ("[n:1]", *parser.result());
    std::unique_ptr<std::string> const released = parser.release();
    EXPECT_EQ("[n:1]", *released);
    EXPECT_EQ(nullptr, parser.result());
}

TEST(YAJL_Parser, a_text_cut_short_is_incomplete) {
    std::string_view const text = ALL;
    for (size_t length = 0; length < text.size(); ++length) {
        Recorder parser;
        EXPECT_TRUE(parser.feed(text.substr(0, length))) << length;
        EXPECT_FALSE(parser.complete()) << length;
        EXPECT_EQ(YAJL_ERR_INCOMPLETE, parser.err());
        EXPECT_FALSE(parser.complete());
    }
}

TEST(YAJL_Parser, what_is_no_json_is_a_fault_of_syntax) {
    for (char const* text : {"[1 2]", "{1:2}", "{\"a\" 1}", "'x'", "[1,]", "[01]", "+1", "nul]",
                             "\"\\x\"", "\"a\nb\"", "/* c */ 1", "\x01", "]", "\xEF\xBB\xBF{}"})
        EXPECT_EQ(YAJL_ERR_SYNTAX, fault(text).first) << text;
}

TEST(YAJL_Parser, something_behind_the_value_is_a_fault) {
    for (char const* text : {"{} x", "[][]", "1 2", "{}}", "01", "\"a\"\"b\"", "{}\"", "{} \"x"})
        EXPECT_EQ(YAJL_ERR_TRAILING, fault(text).first) << text;
    Recorder parser;
    EXPECT_TRUE(parser.feed("{} \n\t "));
    EXPECT_TRUE(parser.complete());
    EXPECT_FALSE(parser.feed(" "));
    EXPECT_EQ(YAJL_ERR_TRAILING, parser.err());
}

TEST(YAJL_Parser, strings_and_keys_must_be_utf8) {
    for (char const* text : {"\"\xFF\"", "\"\xC3\"", "\"\xC0\xAF\"", "\"\xED\xA0\x80\"",
                             "\"\xF4\x90\x80\x80\"", "{\"\xE6\x95\":1}"}) {
        auto const [code, message] = fault(text);
        EXPECT_EQ(YAJL_ERR_UTF8, code) << text;
        EXPECT_NE(std::string::npos, message.find("no UTF-8"));
    }
}

TEST(YAJL_Parser, nested_to_the_limit_and_beyond) {
    std::string const deep = std::string(100, '[') + std::string(100, ']');
    Recorder parser;
    EXPECT_TRUE(parser.feed(deep) && parser.complete()) << parser.error();
    auto const [code, message] = fault("[" + deep + "]");
    EXPECT_EQ(YAJL_ERR_DEPTH, code);
    EXPECT_NE(std::string::npos, message.find("nested deeper than 100 levels near byte 101"))
        << message;
    std::string objects;
    for (int depth = 0; depth < 100000; ++depth)
        objects += "{\"a\":";
    EXPECT_EQ(YAJL_ERR_DEPTH, fault(objects).first);
}

TEST(YAJL_Parser, a_string_key_or_number_may_be_as_long_as_the_bound) {
    for (char const* text : {"[\"12345\"]", "{\"12345\":1}", "[12345]", "[\"\\u0041\", 1]"}) {
        bool const escape = std::string(text).find('\\') != std::string::npos;
        Recorder fits;
        fits.max_string_size(escape ? 6 : 5);
        EXPECT_TRUE(fits.feed(text) && fits.complete()) << text << fits.error();
        Recorder long_one;
        long_one.max_string_size(escape ? 5 : 4);
        EXPECT_FALSE(long_one.feed(text)) << text;
        EXPECT_EQ(YAJL_ERR_LENGTH, long_one.err());
        EXPECT_NE(std::string::npos, long_one.error().find("is longer than"));
    }
}

TEST(YAJL_Parser, quotes_in_strings_and_backslashes_do_not_fool_the_bound) {
    Recorder parser;
    parser.max_string_size(6);
    EXPECT_TRUE(parser.feed("[\"\\\"\\\"\\\"\",\"\\\\\",\"ab\", \"\\\\\\\\\"] \n") &&
                parser.complete())
        << parser.error();
    EXPECT_EQ("[ s:\"\"\" s:\\ s:ab s:\\\\ ] ", parser.events);
}

TEST(YAJL_Parser, behind_an_escaped_quote_or_backslash_a_string_ends_where_it_does) {
    std::string const blanks(1000, ' ');
    for (char const* string : {"\"\\\"\"", "\"\\\\\"", "\"a\\\\\\\"\""}) {
        Recorder parser;
        parser.max_string_size(10);
        EXPECT_TRUE(parser.feed("[" + (string + blanks) + "," + blanks + "1]") && parser.complete())
            << string << parser.error();
    }
}

TEST(YAJL_Parser, the_bound_is_the_same_however_the_text_is_cut) {
    std::mt19937 random(1);
    for (int round = 0; round < 3000; ++round) {
        std::string text = "[";
        for (unsigned count = random() % 6; count > 0; --count)
            for (char const* part = std::array{"\"", "\"a\\\"b\"", "12345", "\\", ", ", "\"\\\\\"",
                                               "abc", "\"xyz\","}[random() % 8];
                 *part; ++part)
                text += *part;
        for (size_t limit = 0; limit < 8; ++limit) {
            Recorder whole, bytes, pairs;
            for (Recorder* const parser : {&whole, &bytes, &pairs})
                parser->max_string_size(limit);
            whole.feed(text);
            for (size_t at = 0; at < text.size(); ++at)
                bytes.feed(text.substr(at, 1));
            for (size_t at = 0; at < text.size(); at += 2)
                pairs.feed(text.substr(at, 2));
            ASSERT_EQ(whole.err() == YAJL_ERR_LENGTH, bytes.err() == YAJL_ERR_LENGTH) << text;
            ASSERT_EQ(whole.err() == YAJL_ERR_LENGTH, pairs.err() == YAJL_ERR_LENGTH) << text;
            ASSERT_EQ(whole.err(), bytes.err()) << text << whole.error() << bytes.error();
            ASSERT_EQ(whole.events, bytes.events) << text;
        }
    }
}

TEST(YAJL_Parser, any_number_of_blanks_and_short_strings_is_within_the_bound) {
    Recorder parser;
    parser.max_string_size(4);
    std::string text = "[" + std::string(1000, ' ');
    for (int count = 0; count < 1000; ++count)
        text += "\"abcd\",1234 , true,";
    EXPECT_TRUE(parser.feed(text + "null]") && parser.complete()) << parser.error();
}

TEST(YAJL_Parser, a_string_without_end_is_refused_at_the_bound_and_not_collected) {
    Recorder parser;
    std::string const piece(1024 * 1024, 'x');
    ASSERT_TRUE(parser.feed("[\""));
    size_t fed = 0;
    while (parser.feed(piece) && fed < 1024)
        ++fed;
    EXPECT_EQ(16u, fed);
    EXPECT_EQ(YAJL_ERR_LENGTH, parser.err());
    EXPECT_NE(std::string::npos,
              parser.error().find("longer than 16777216 bytes near byte 16777218"))
        << parser.error();
    EXPECT_EQ("[ ", parser.events);
}

TEST(YAJL_Parser, the_code_that_a_handler_sets_is_kept) {
    auto const [code, message] = fault("{\"a\":1,\"channels\":\"coded\"}");
    EXPECT_EQ(YAJL_ERR_TYPE, code);
    EXPECT_EQ("the value or key was refused at key \"channels\" near byte 25 (code 5)", message);
    EXPECT_EQ(YAJL_ERR_PLACE, fault("[\"coded but true\"]").first);
}

TEST(YAJL_Parser, the_words_of_a_handler_that_stops_begin_the_error) {
    auto const [code, message] = fault("{\"a\":\"with words\"}");
    EXPECT_EQ(YAJL_ERR_MISSING, code);
    EXPECT_EQ("lack of?'id' at key \"a\" near byte 17 (code 7)", message);
}

TEST(YAJL_Parser, a_handler_that_stops_without_a_code_gets_one) {
    EXPECT_EQ(YAJL_ERR_REFUSED, fault("[\"stop\"]").first);
}

TEST(YAJL_Parser, what_a_handler_throws_ends_the_parse) {
    auto const [code, message] = fault("{\"k\":[\"throw\"]}");
    EXPECT_EQ(YAJL_ERR_REFUSED, code);
    EXPECT_EQ("thrown by a handler at key \"k\" near byte 13 (code 12)", message);
}

TEST(YAJL_Parser, the_offset_counts_from_the_first_piece) {
    Recorder parser;
    ASSERT_TRUE(parser.feed("[1,    "));
    ASSERT_TRUE(parser.feed("2,"));
    EXPECT_FALSE(parser.feed("   x"));
    EXPECT_NE(std::string::npos, parser.error().find("near byte 13 ")) << parser.error();
    EXPECT_EQ(YAJL_ERR_SYNTAX, parser.err());
}

TEST(YAJL_Parser, the_key_of_a_level_that_is_closed_is_not_named) {
    EXPECT_EQ(std::string::npos, fault("[{\"inner\":1},\"coded\"]").second.find("inner"));
    EXPECT_NE(std::string::npos,
              fault("{\"outer\":{\"inner\":1},\"next\":\"coded\"}").second.find("\"next\""));
}

TEST(YAJL_Parser, a_hostile_key_cannot_forge_a_line_of_the_log) {
    auto const [code, message] =
        fault("{\"a\\nb\\u0000" + std::string(1000, 'x') + "\":\"coded\"}");
    EXPECT_EQ(YAJL_ERR_TYPE, code);
    EXPECT_NE(std::string::npos, message.find("\"a?b?x")) << message;
    EXPECT_LT(message.size(), 200u);
    EXPECT_EQ(std::string::npos, message.find('\n'));
}

TEST(YAJL_Parser, after_a_fault_nothing_more_is_parsed) {
    Recorder parser;
    EXPECT_FALSE(parser.feed("[\"stop\""));
    std::string const events = parser.events;
    std::string const error = parser.error();
    EXPECT_FALSE(parser.feed(",1]"));
    EXPECT_FALSE(parser.complete());
    EXPECT_EQ(events, parser.events);
    EXPECT_EQ(error, parser.error());
    EXPECT_EQ(YAJL_ERR_REFUSED, parser.err());
}

TEST(YAJL_Parser, a_parser_without_a_result_still_parses) {
    struct Plain : YAJL_Parser<int> {};
    Plain parser;
    EXPECT_TRUE(parser.parse("[1]", 3));
    EXPECT_TRUE(parser.complete());
    EXPECT_EQ(nullptr, parser.result());
}

TEST(YAJL_Parser, a_surrogate_pair_is_one_character) {
    Recorder parser;
    EXPECT_TRUE(parser.feed("[\"\\ud83d\\udcbe\"]") && parser.complete());
    EXPECT_EQ("[ s:\xF0\x9F\x92\xBE ] ", parser.events);
}

TEST(YAJL_Parser, half_of_a_surrogate_pair_is_refused_wherever_the_pieces_are_cut) {
    for (std::string const text :
         {"[\"\\ud800\"]", "[\"\\ud800\\n\"]", "[\"\\ud800\\u0041\"]", "[\"\\udc00\"]"})
        for (size_t cut = 0; cut <= text.size(); ++cut) {
            Recorder parser;
            EXPECT_FALSE(parser.feed(text.substr(0, cut)) && parser.feed(text.substr(cut)))
                << text << " cut at " << cut;
            EXPECT_EQ(YAJL_ERR_UTF8, parser.err());
        }
}

} // namespace
