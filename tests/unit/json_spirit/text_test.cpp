#include "json_spirit/text.h"

#include "json_spirit/access.h"
#include "qmrt/file.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <sys/stat.h>

using namespace json_spirit;

namespace {

Value parsed(std::string_view text) {
    Value value = "not parsed";
    std::string error;
    EXPECT_TRUE(parse(text, value, &error)) << text << ": " << error;
    return value;
}

/** The error of a text that must not parse; the target must stay as it was. */
std::string fault(std::string_view text) {
    Value value = "untouched";
    std::string error;
    EXPECT_FALSE(parse(text, value, &error)) << text;
    EXPECT_EQ(Value("untouched"), value);
    EXPECT_NE("", error);
    return error;
}

TEST(json_text, every_kind_of_value) {
    EXPECT_EQ(Value(Object{{"a", 1}, {"b", Array{true, false, Value(), 1.5, "x"}}}),
              parsed(" { \"a\" : 1 , \"b\" : [ true, false, null, 1.5, \"x\" ] } "));
    EXPECT_EQ(Value("x"), parsed("\"x\""));
    EXPECT_EQ(Value(Array{}), parsed("[]"));
    EXPECT_EQ(Value(Object{}), parsed("{}"));
}

TEST(json_text, whole_numbers_are_exact_over_both_64_bit_ranges) {
    for (char const* text : {"-9223372036854775808", "9223372036854775807", "9223372036854775808",
                             "18446744073709551615", "0", "-1"})
        EXPECT_EQ(text, to_text(parsed(text)));
    EXPECT_EQ(Value(INT64_MIN), parsed("-9223372036854775808"));
    EXPECT_EQ(Value(UINT64_MAX), parsed("18446744073709551615"));
    EXPECT_EQ(int_type, parsed("18446744073709551615").type());
}

TEST(json_text, larger_whole_numbers_become_reals) {
    EXPECT_EQ(Value(18446744073709551616.0), parsed("18446744073709551616"));
    EXPECT_EQ(Value(-9223372036854775809.0), parsed("-9223372036854775809"));
}

TEST(json_text, a_number_beyond_any_real_is_refused) {
    EXPECT_NE(std::string::npos, fault("1e999").find("out of range"));
    EXPECT_NE(std::string::npos, fault("[" + std::string(1000, '9') + "]").find("out of range"));
}

TEST(json_text, a_number_too_small_for_any_real_is_zero) {
    EXPECT_EQ(Value(0.0), parsed("1e-400"));
    EXPECT_EQ(Value(-0.0), parsed("-1.5e-9999"));
    EXPECT_EQ(Value(5e-324), parsed("4.9e-324"));
}

TEST(json_text, reals_read_back_the_same_and_stay_reals) {
    for (double const value :
         {0.1, 1.0, -0.0, 1e300, 5e-324, 123456789.123, 1.7976931348623157e308}) {
        Value const back = parsed(to_text(Value(value)));
        EXPECT_EQ(real_type, back.type()) << value;
        EXPECT_EQ(value, back.get_real());
    }
    EXPECT_EQ("0.1", to_text(Value(0.1)));
    EXPECT_EQ("1.0", to_text(Value(1.0)));
}

TEST(json_text, the_text_of_a_real_alone) {
    EXPECT_EQ("0.5", real_to_text(0.5));
    EXPECT_EQ("-3.0", real_to_text(-3));
    EXPECT_EQ("1e+300", real_to_text(1e300));
    EXPECT_EQ("null", real_to_text(std::nan("")));
    EXPECT_EQ("null", real_to_text(-std::numeric_limits<double>::infinity()));
}

TEST(json_text, what_is_no_number_is_written_as_null) {
    EXPECT_EQ("null", to_text(Value(std::nan(""))));
    EXPECT_EQ("null", to_text(Value(std::numeric_limits<double>::infinity())));
}

TEST(json_text, of_equal_keys_the_last_counts) {
    EXPECT_EQ(Value(Object{{"a", 3}}), parsed("{\"a\":1,\"a\":[2],\"a\":3}"));
    EXPECT_EQ(Value(Object{{"a", Object{{"x", 1}}}}), parsed("{\"a\":{\"y\":2},\"a\":{\"x\":1}}"));
}

TEST(json_text, nesting_to_the_limit_and_beyond) {
    std::string const deep = std::string(MAX_DEPTH, '[') + std::string(MAX_DEPTH, ']');
    EXPECT_EQ(deep, to_text(parsed(deep)));
    EXPECT_NE(std::string::npos, fault("[" + deep + "]").find("nested deeper than 100 levels"));
}

TEST(json_text, a_document_nested_100000_deep_is_an_error) {
    fault(std::string(100000, '['));
    fault(std::string(100000, '[') + std::string(100000, ']'));
    std::string objects;
    for (int depth = 0; depth < 100000; ++depth)
        objects += "{\"a\":";
    fault(objects);
}

TEST(json_text, a_value_nested_too_deeply_is_not_written) {
    Value value;
    for (int depth = 0; depth < MAX_DEPTH + 1; ++depth)
        value = Array{value};
    EXPECT_THROW(to_text(value), Error);
    EXPECT_STREQ("nested deeper than 100 levels", JSON_Dump(value).c_str());
}

TEST(json_text, faults_say_what_and_where) {
    for (char const* text :
         {"",        " ",        "{",     "[1,",  "{\"a\"",    "{\"a\":}", "[1 2]",     "nul",
          "tru",     "'x'",      "{a:1}", "[1,]", "01",        "+1",       ".5",        "1.",
          "\"\\x\"", "\"a\nb\"", "1 2",   "{} x", "/* c */ 1", "// c\n1",  "\"unended", "[\"\t\"]"})
        EXPECT_NE(std::string::npos, fault(text).find("near byte")) << text;
}

TEST(json_text, nothing_but_blanks_may_follow_the_value) {
    for (char const* text : {"{}\"", "{}\"abc", "1\"", "[] \"x", "\"a\"\"", "{} {", "null\"e"})
        EXPECT_NE(std::string::npos, fault(text).find("near byte")) << text;
    for (char const* text : {"1", " 1 ", "-2.5\n", "\"a\" ", "{}\r\n\t ", "[1]", "true", "null "})
        parsed(text);
}

TEST(json_text, text_cut_at_every_byte_is_a_fault) {
    std::string const text = "{\"a\":[1,-2.5e3,true,null,\"x\\u00e4\"],\"b\":{\"c\":\"\xC3\xA4\"}}";
    parsed(text);
    for (size_t length = 0; length < text.size(); ++length)
        fault(text.substr(0, length));
}

TEST(json_text, text_must_be_utf8) {
    EXPECT_EQ(Value("\xC3\xA4\xF0\x9F\x92\xBE"), parsed("\"\xC3\xA4\xF0\x9F\x92\xBE\""));
    for (char const* text : {"\"\xFF\"", "\"\xC3\"", "\"\xC0\xAF\"", "\"\xED\xA0\x80\"",
                             "\"\xF4\x90\x80\x80\"", "{\"\xE6\x95\":1}"})
        EXPECT_EQ("text is not UTF-8", fault(text));
}

TEST(json_text, an_escape_of_half_a_surrogate_pair_is_refused) {
    for (char const* text :
         {"\"x\\uDDDDy\"", "\"\\udc00\"", "{\"\\uDFFF\":1}", "\"\\ud800\"", "\"\\ud800\\n\"",
          "\"\\ud800x\"", "\"\\ud800\\u0041\"", "\"\\ud83d\\ud83d\\udcbe\""})
        EXPECT_NE(std::string::npos, fault(text).find("half of a surrogate pair")) << text;
    EXPECT_EQ(Value("\xED\x9F\xBF\xEE\x80\x80"), parsed("\"\\uD7FF\\uE000\""));
}

TEST(json_text, escapes_and_nul) {
    EXPECT_EQ(Value("\xC3\xA4\n\"\\/\t\xF0\x9F\x92\xBE"),
              parsed("\"\\u00e4\\n\\\"\\\\\\/\\t\\ud83d\\udcbe\""));
    Value const nul(std::string("a\0b", 3));
    EXPECT_EQ(nul, parsed("\"a\\u0000b\""));
    EXPECT_EQ(nul, parsed(to_text(nul)));
    EXPECT_EQ("{\"k\\u0000\":1}", to_text(Object{{std::string("k\0", 2), 1}}));
}

TEST(json_text, bytes_that_are_no_utf8_are_written_as_the_replacement_character) {
    EXPECT_EQ("\"a\xEF\xBF\xBD\"", to_text(Value("a\xFF")));
    EXPECT_EQ("{\"\xEF\xBF\xBD\":1}", to_text(Object{{"\xFE", 1}}));
}

TEST(json_text, a_secret_is_written_for_the_wire_and_hidden_in_a_dump) {
    Value const value = Object{{"password", secure_string("pa55")}};
    EXPECT_EQ("{\"password\":\"pa55\"}", to_text(value));
    EXPECT_STREQ("{\"password\":\"******\"}", JSON_Dump(value).c_str());
}

TEST(json_text, pretty_text_reads_back_the_same) {
    Value const value = Object{{"a", Array{1, Object{{"b", "c"}}}}};
    EXPECT_EQ(value, parsed(to_text(value, true)));
    EXPECT_NE(std::string::npos, JSON_Dump(value, true).str().find("\n  \"a\": ["));
}

/** A random value of bounded depth. */
Value random_value(std::mt19937_64& random, int depth) {
    auto const pick = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
    auto const text = [&] {
        std::string result;
        for (unsigned left = pick(12); left > 0; --left)
            result += static_cast<char>(pick(128));
        return result + (pick(2) ? "\xC3\xA4" : "");
    };
    switch (pick(depth > 0 ? 8 : 6)) {
    case 0:
        return Value(static_cast<int64_t>(random()));
    case 1:
        return Value(static_cast<uint64_t>(random()));
    case 2:
        return Value(static_cast<double>(random()) / static_cast<double>(1 + pick(1000000)));
    case 3:
        return Value(pick(2) == 1);
    case 4:
        return Value();
    case 5:
        return Value(text());
    case 6: {
        Array array;
        for (unsigned left = pick(5); left > 0; --left)
            array.push_back(random_value(random, depth - 1));
        return array;
    }
    default: {
        Object object;
        for (unsigned left = pick(5); left > 0; --left)
            object[text()] = random_value(random, depth - 1);
        return object;
    }
    }
}

TEST(json_text, what_is_written_reads_back_equal) {
    std::mt19937_64 random(20261121);
    for (int round = 0; round < 5000; ++round) {
        Value const value = random_value(random, 4);
        std::string const text = to_text(value);
        ASSERT_EQ(value, parsed(text)) << text;
        ASSERT_EQ(text, to_text(parsed(text)));
    }
}

class Json_File_Test : public testing::Test {
protected:
    Temporary_Directory files_;
    std::string path_ = files_.path("file.json");
};

TEST_F(Json_File_Test, a_value_goes_to_a_file_and_back) {
    Value const value = Object{{"a", Array{1, "x"}}};
    mode_t const old = umask(077);
    EXPECT_TRUE(dump_json(path_.c_str(), value, 0, false, 0640));
    umask(old);
    EXPECT_EQ("{\"a\":[1,\"x\"]}", files_.read("file.json"));
    struct stat status;
    stat(path_.c_str(), &status);
    EXPECT_EQ(0640u, status.st_mode & 07777);
    Value back;
    EXPECT_TRUE(load_json(path_.c_str(), back));
    EXPECT_EQ(value, back);
}

TEST_F(Json_File_Test, a_file_that_cannot_be_written_is_logged_unless_silent) {
    EXPECT_FALSE(dump_json("/nonexistent/x", Value(1), 0, false, 0640));
    EXPECT_LOGGED(LM_ERROR, "Failed to write /nonexistent/x, errno=2,");
    EXPECT_FALSE(dump_json("/nonexistent/x", Value(1), 1, false, 0640));
}

TEST_F(Json_File_Test, a_failed_write_leaves_the_old_content) {
    files_.write("file.json", "1");
    Value value;
    for (int depth = 0; depth < MAX_DEPTH + 1; ++depth)
        value = Array{value};
    EXPECT_FALSE(dump_json(path_.c_str(), value, 0, false, 0640));
    EXPECT_LOGGED(LM_ERROR, "nested deeper");
    EXPECT_EQ("1", files_.read("file.json"));
}

TEST_F(Json_File_Test, a_file_that_cannot_be_read_or_parsed_is_logged) {
    Value value = 7;
    EXPECT_FALSE(load_json(path_.c_str(), value));
    EXPECT_LOGGED(LM_ERROR, "Failed to read " + path_ + ", errno=2,");
    EXPECT_FALSE(load_json(files_.path().c_str(), value));
    EXPECT_LOGGED(LM_ERROR, "Failed to read " + files_.path() + ", errno=21,");
    files_.write("file.json", "{");
    EXPECT_FALSE(load_json(path_.c_str(), value));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse JSON " + path_);
    EXPECT_FALSE(load_json(path_.c_str(), value, 0));
    EXPECT_EQ(Value(7), value);
}

TEST(loads_json, parses_or_logs) {
    Value value;
    EXPECT_TRUE(loads_json("[1]x", 3, value, 1));
    EXPECT_EQ(Value(Array{1}), value);
    EXPECT_FALSE(loads_json("[1]x", 4, value, 1));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse JSON, ");
    EXPECT_FALSE(loads_json("[1]x", 4, value, 0));
    EXPECT_FALSE(loads_json(nullptr, 0, value, 0));
    EXPECT_EQ(Value(Array{1}), value);
}

} // namespace
