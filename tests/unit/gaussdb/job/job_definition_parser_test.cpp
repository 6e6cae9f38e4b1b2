#include "gaussdb/job/job_definition_parser.h"

#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"
#include "tests/unit/gaussdb/job/random_definitions.h"

#include <gtest/gtest.h>

namespace {

constexpr Job_Definition_Key TABLE[] = {{"ab", 2, 1}, {"abc", 3, 4}, {nullptr, 0, 0}};

TEST(Get_Key_Value_Entry, finds_a_key_by_its_whole_text) {
    EXPECT_EQ(&TABLE[0], &get_key_value_entry(TABLE, "abc", 2));
    EXPECT_EQ(&TABLE[1], &get_key_value_entry(TABLE, "abcd", 3));
}

TEST(Get_Key_Value_Entry, gives_the_closing_row_for_any_other_key) {
    for (std::string const key : {"", "a", "AB", "abcd", "b"})
        EXPECT_EQ(&TABLE[2], &get_key_value_entry(TABLE, key.data(), key.size())) << key;
}

TEST(Get_Key_Value_Entry, finds_a_key_by_its_bit) {
    EXPECT_EQ(&TABLE[1], &get_key_value_entry(TABLE, 4));
    EXPECT_EQ(&TABLE[2], &get_key_value_entry(TABLE, 2));
}

/** What holds for all four parsers. */
template <typename Kind>
class Job_Definition_Parser : public testing::Test {
protected:
    /** The warnings of required keys are not what is tested here. */
    ~Job_Definition_Parser() override {
        Log_Capture::instance().claim_all(LM_WARNING, "Failed to parse job definition source");
    }
    static int err(std::string_view text) { return Parse<Kind>(text).err(); }
};
using Kinds = testing::Types<Backup_Options, Restore_Options, Backup_Source, Restore_Source>;
TYPED_TEST_SUITE(Job_Definition_Parser, Kinds);

TYPED_TEST(Job_Definition_Parser, any_pieces_give_the_same_as_the_whole) {
    std::string_view const text = TypeParam::SAMPLE;
    Parse<TypeParam> const whole(text);
    ASSERT_TRUE(whole.ok) << whole.error();
    for (size_t size = 1; size < text.size(); ++size) {
        Parse<TypeParam> const pieces(text, size);
        ASSERT_TRUE(pieces.ok) << size << pieces.error();
        ASSERT_EQ(fields(whole.object()), fields(pieces.object())) << size;
    }
}

TYPED_TEST(Job_Definition_Parser, what_was_parsed_is_written_and_parsed_to_the_same_text) {
    Parse<TypeParam> const parsed(TypeParam::SAMPLE);
    std::string const once = generated(parsed.object());
    Parse<TypeParam> const again(once);
    ASSERT_TRUE(again.ok) << again.error();
    EXPECT_EQ(once, generated(again.object()));
}

TYPED_TEST(Job_Definition_Parser, a_text_cut_at_any_byte_is_incomplete_and_says_where) {
    std::string_view const text = TypeParam::SAMPLE;
    for (size_t length = 0; length < text.size(); ++length) {
        Parse<TypeParam> const parsed(text.substr(0, length));
        ASSERT_EQ(YAJL_ERR_INCOMPLETE, parsed.err()) << length;
        ASSERT_NE(std::string::npos,
                  parsed.error().find("near byte " + std::to_string(length) + " "))
            << parsed.error();
    }
}

TYPED_TEST(Job_Definition_Parser, a_hundred_thousand_levels_are_refused) {
    std::string arrays = "{\"x\":" + std::string(100000, '[');
    std::string maps;
    for (int level = 0; level < 100000; ++level)
        maps += "{\"x\":";
    for (std::string const& text : {arrays, maps}) {
        Parse<TypeParam> const parsed(text);
        EXPECT_EQ(YAJL_ERR_DEPTH, parsed.err());
        EXPECT_NE(std::string::npos, parsed.error().find("at key \"x\" near byte"))
            << parsed.error();
    }
}

TYPED_TEST(Job_Definition_Parser, a_string_of_a_gibibyte_is_refused_at_the_bound) {
    std::string const piece(1024 * 1024, 'x');
    for (std::string const start : {"{\"id\":\"", "{\"cache_dir\":\"", "{\"a\":1,\""}) {
        typename TypeParam::Parser parser;
        ASSERT_TRUE(parser.parse(start.data(), start.size()));
        int fed = 0;
        while (fed < 1024 && parser.parse(piece.data(), piece.size()))
            ++fed;
        EXPECT_EQ(16, fed);
        EXPECT_EQ(YAJL_ERR_LENGTH, parser.err());
        EXPECT_NE(std::string::npos, parser.error().find("near byte 1677")) << parser.error();
    }
}

TYPED_TEST(Job_Definition_Parser, a_number_of_many_digits_is_refused_at_the_bound) {
    std::string const text = "{\"channels\":" + std::string(17 * 1024 * 1024, '9') + "}";
    Parse<TypeParam> const parsed(text);
    EXPECT_EQ(YAJL_ERR_LENGTH, parsed.err());
    EXPECT_NE(std::string::npos, parsed.error().find("at key \"channels\"")) << parsed.error();
}

TYPED_TEST(Job_Definition_Parser, keys_and_strings_must_be_utf8) {
    for (char const* text : {"{\"\xFF\":1}", "{\"id\":\"\xC0\xAF\"}", "{\"x\":\"\xED\xA0\x80\"}"}) {
        Parse<TypeParam> const parsed(text);
        EXPECT_EQ(YAJL_ERR_UTF8, parsed.err()) << text;
        EXPECT_NE(std::string::npos, parsed.error().find("no UTF-8")) << parsed.error();
    }
}

TYPED_TEST(Job_Definition_Parser, what_is_no_json_is_refused) {
    for (char const* text : {"", " ", "{", "}", "{]", "{\"id\"}", "{'id':1}", "{\"id\":1,}", "nul",
                             "{\"id\":01}", "{\"id\":\"a\nb\"}", "\xEF\xBB\xBF{}",
                             "\x7f"
                             "ELF",
                             "id: x", "<id/>"})
        EXPECT_NE(0, TestFixture::err(text)) << text;
    std::string const nul("{\"id\":\0}", 8);
    EXPECT_EQ(YAJL_ERR_SYNTAX, TestFixture::err(nul));
}

TYPED_TEST(Job_Definition_Parser, something_behind_the_object_is_refused) {
    for (char const* more : {"x", "{}", "]", "\"", ","})
        EXPECT_EQ(YAJL_ERR_TRAILING, TestFixture::err(std::string(TypeParam::SAMPLE) + more))
            << more;
    EXPECT_EQ(0, TestFixture::err(std::string(TypeParam::SAMPLE) + " \r\n\t"));
}

TYPED_TEST(Job_Definition_Parser, a_flipped_byte_never_does_more_than_fail) {
    Random_Definitions random(5);
    std::string const sample = TypeParam::SAMPLE;
    for (size_t at = 0; at < sample.size(); ++at)
        for (int round = 0; round < 20; ++round) {
            std::string text = sample;
            text[at] = static_cast<char>(random.below(256));
            Parse<TypeParam> const parsed(text);
            ASSERT_EQ(parsed.ok, parsed.err() == 0) << text;
            ASSERT_EQ(parsed.ok, parsed.error().empty()) << text;
        }
}

} // namespace
