#include "gaussdb/job/gaussdb_restore_job_options_parser.h"

#include "tests/support/failing_new.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"

#include <climits>
#include <gtest/gtest.h>

namespace {

using Parser = GaussDB_Restore_Job_Options_Parser;
using Options = GaussDB_Restore_Job_Options;

struct Key {
    char const* text;
    char kind; ///< n(umber), s(tring), b(oolean)
    uint64_t bit;
};
constexpr Key KEYS[] = {
    {"channels", 'n', 1},          {"max_memory_usage", 'n', 2}, {"buffer_size", 'n', 4},
    {"buffer_block_size", 'n', 8}, {"mount", 'b', 16},           {"xml_config_path", 's', 32},
    {"master_timeout", 'n', 64},   {"logging_level", 's', 128},  {"restore_time", 's', 256}};

struct Value {
    char const* text;
    char kind;
};
constexpr Value VALUES[] = {{"7", 'n'},    {"-7", 'n'},   {"7.5", 'n'},   {"\"now\"", 's'},
                            {"\"\"", 's'}, {"true", 'b'}, {"false", 'b'}, {"null", '0'}};

int expect(std::string const& text, Options const& expected) {
    Parse<Restore_Options> const parsed(text);
    if (parsed.ok) {
        EXPECT_EQ(fields(expected), fields(parsed.object())) << text;
    }
    EXPECT_EQ(parsed.ok, parsed.err() == 0) << text;
    return parsed.err();
}

std::string pair(std::string const& key, std::string const& value) {
    return "{\"" + key + "\":" + value + "}";
}

TEST(GaussDB_Restore_Job_Options_Parser, the_table_is_in_the_order_of_the_bits_and_closed) {
    size_t row = 0;
    for (Key const& key : KEYS) {
        Job_Definition_Key const& found = Parser::key_table_1[row++];
        EXPECT_STREQ(key.text, found.key);
        EXPECT_EQ(std::string(key.text).size(), found.len);
        EXPECT_EQ(key.bit, found.value);
    }
    EXPECT_EQ(nullptr, Parser::key_table_1[row].key);
}

TEST(GaussDB_Restore_Job_Options_Parser, an_empty_object_gives_the_defaults) {
    EXPECT_EQ(0, expect("{}", Options()));
}

TEST(GaussDB_Restore_Job_Options_Parser, every_key_sets_its_own_field) {
    Parse<Restore_Options> const parsed(
        R"({"channels":1,"max_memory_usage":2,"buffer_size":3,"buffer_block_size":4,"mount":true,)"
        R"("xml_config_path":"/x","master_timeout":5,"logging_level":"L","restore_time":"T"})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    EXPECT_EQ(std::make_tuple(1, 2, 3, 4, 5u, true, "/x", "L", "T"), fields(parsed.object()));
}

TEST(GaussDB_Restore_Job_Options_Parser, a_scalar_of_each_kind_under_each_key_at_each_depth) {
    for (Key const& key : KEYS)
        for (Value const& value : VALUES) {
            std::string const flat = pair(key.text, value.text);
            Parse<Restore_Options> const parsed(flat);
            bool const refused = value.kind != '0' && value.kind != 'b' && value.kind != key.kind;
            EXPECT_EQ(refused ? 5 : 0, parsed.err()) << flat;
            if (value.kind != key.kind) {
                EXPECT_EQ(fields(Options()), fields(parsed.object())) << flat;
            }
            // levels do not matter
            std::string const array = pair(key.text, "[" + std::string(value.text) + "]");
            for (std::string const& nested :
                 {array, pair("x", flat), pair("channels", flat), pair("x", array),
                  pair("x", "[" + flat + "]"), pair(key.text, pair(key.text, value.text))}) {
                Parse<Restore_Options> const same(nested);
                EXPECT_EQ(parsed.err(), same.err()) << nested;
                EXPECT_EQ(fields(parsed.object()), fields(same.object())) << nested;
            }
        }
}

TEST(GaussDB_Restore_Job_Options_Parser, a_number_for_a_string_is_refused) {
    EXPECT_EQ(5, expect(R"({"restore_time": 5})", Options()));
}

TEST(GaussDB_Restore_Job_Options_Parser, an_unknown_key_with_a_scalar_is_skipped) {
    Options expected;
    expected.channels_ = 2;
    EXPECT_EQ(0,
              expect(R"({"x":1,"y":"a","z":true,"n":null,"Channels":3,"channels":2})", expected));
}

TEST(GaussDB_Restore_Job_Options_Parser, the_last_value_of_an_array_counts) {
    Options expected;
    expected.channels_ = 3;
    EXPECT_EQ(0, expect(R"({"channels":[1,[2],3,[]]})", expected));
}

TEST(GaussDB_Restore_Job_Options_Parser, behind_a_nested_map_the_outer_key_is_not_changed) {
    Options expected;
    expected.mount_ = true;
    expected.channels_ = 4;
    EXPECT_EQ(0, expect(R"({"channels":[{"mount":true},4]})", expected));
}

TEST(GaussDB_Restore_Job_Options_Parser, numbers_beyond_their_field_become_its_largest) {
    Options expected;
    expected.channels_ = INT_MAX;
    expected.master_timeout_ = INT_MAX;
    EXPECT_EQ(0,
              expect(R"({"channels":99999999999999999999,"master_timeout":4294967295})", expected));
}

TEST(GaussDB_Restore_Job_Options_Parser, of_a_key_that_comes_twice_the_last_value_counts) {
    Options expected;
    expected.restore_time_ = "b";
    EXPECT_EQ(0, expect(R"({"restore_time":"a","restore_time":"b"})", expected));
}

TEST(GaussDB_Restore_Job_Options_Parser, a_string_with_a_NUL_is_refused_and_not_stored) {
    for (char const* key : {"xml_config_path", "logging_level", "restore_time"}) {
        Parse<Restore_Options> const parsed(pair(key, "\"/a\\u0000b\""));
        EXPECT_EQ(YAJL_ERR_NUL, parsed.err());
        EXPECT_NE(std::string::npos, parsed.error().find(key)) << parsed.error();
        EXPECT_EQ(fields(Options()), fields(parsed.object()));
    }
}

TEST(GaussDB_Restore_Job_Options_Parser, a_value_outside_of_a_map_is_refused_without_a_code) {
    for (char const* text : {"1 ", "true", "\"a\"", "[1]", "[[true]]", "[\"a\"]"})
        EXPECT_EQ(YAJL_ERR_REFUSED, expect(text, Options())) << text;
    Parser parser;
    EXPECT_FALSE(feed_string(parser, "a"));
    EXPECT_FALSE(feed_number(parser, "1"));
    EXPECT_FALSE(parser.handle_boolean_i(true));
    EXPECT_EQ(0, parser.err());
}

TEST(GaussDB_Restore_Job_Options_Parser, an_array_is_not_noticed) {
    Parser parser;
    EXPECT_TRUE(parser.handle_end_array_i());
    EXPECT_TRUE(parser.handle_start_array_i());
    EXPECT_FALSE(feed_key(parser, "channels"));
    EXPECT_EQ(3, parser.err());
}

TEST(GaussDB_Restore_Job_Options_Parser, an_end_without_a_beginning_is_3) {
    Parser parser;
    EXPECT_FALSE(parser.handle_end_map_i());
    EXPECT_EQ(3, parser.err());
}

TEST(GaussDB_Restore_Job_Options_Parser, without_memory_for_the_options_every_value_is_refused) {
    errno = 0;
    std::unique_ptr<Parser> parser;
    {
        Failing_New const no_memory(sizeof(Options));
        parser = std::make_unique<Parser>();
    }
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(nullptr, parser->result());
    EXPECT_TRUE(parser->handle_start_map_i());
    EXPECT_TRUE(feed_key(*parser, "x"));
    EXPECT_FALSE(feed_string(*parser, "a"));
    EXPECT_FALSE(feed_number(*parser, "1"));
    EXPECT_FALSE(parser->handle_boolean_i(true));
    EXPECT_EQ(0, parser->err());
}

} // namespace
