#include "gaussdb/job/gaussdb_backup_job_options_parser.h"

#include "tests/support/failing_new.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"

#include <climits>
#include <gtest/gtest.h>

namespace {

using Parser = GaussDB_Backup_Job_Options_Parser;
using Options = GaussDB_Backup_Job_Options;

struct Key {
    char const* text;
    char kind; ///< n(umber), s(tring), b(oolean)
    uint64_t bit;
};
constexpr Key KEYS[] = {
    {"compression", 's', 1},
    {"channels", 'n', 2},
    {"max_memory_usage", 'n', 4},
    {"buffer_size", 'n', 8},
    {"buffer_block_size", 'n', 16},
    {"compression_level", 'n', 32},
    {"mount", 'b', 64},
    {"cache_dir", 's', 128},
    {"clean_meta", 'b', 256},
    {"filesplit_size", 'n', 512},
    {"roach_compression_type", 'n', 1024},
    {"roach_compression_level", 'n', 2048},
    {"cpu_cores", 'n', 4096},
    {"master_timeout", 'n', 8192},
    {"cbm_recycle_level", 'n', 16384},
    {"logging_level", 's', 32768},
};

struct Value {
    char const* text;
    char kind;
};
constexpr Value VALUES[] = {{"7", 'n'},    {"-7", 'n'},   {"7.5", 'n'},   {"\"zstd\"", 's'},
                            {"\"\"", 's'}, {"true", 'b'}, {"false", 'b'}, {"null", '0'}};

int expect(std::string const& text, Options const& expected) {
    Parse<Backup_Options> const parsed(text);
    if (parsed.ok) {
        EXPECT_EQ(fields(expected), fields(parsed.object())) << text;
    }
    EXPECT_EQ(parsed.ok, parsed.err() == 0) << text;
    return parsed.err();
}

/** An object of one pair. */
std::string pair(std::string const& key, std::string const& value) {
    return "{\"" + key + "\":" + value + "}";
}

TEST(GaussDB_Backup_Job_Options_Parser, the_table_is_in_the_order_of_the_bits_and_closed) {
    size_t row = 0;
    for (Key const& key : KEYS) {
        Job_Definition_Key const& found = Parser::key_table_1[row++];
        EXPECT_STREQ(key.text, found.key);
        EXPECT_EQ(std::string(key.text).size(), found.len);
        EXPECT_EQ(key.bit, found.value);
    }
    EXPECT_EQ(nullptr, Parser::key_table_1[row].key);
    EXPECT_EQ(0u, Parser::key_table_1[row].value);
}

TEST(GaussDB_Backup_Job_Options_Parser, an_empty_object_gives_the_defaults) {
    EXPECT_EQ(0, expect("{}", Options()));
}

TEST(GaussDB_Backup_Job_Options_Parser, every_key_sets_its_own_field) {
    Parse<Backup_Options> const parsed(
        R"({"compression":"lzop","channels":1,"max_memory_usage":2,"buffer_size":3,)"
        R"("buffer_block_size":4,"compression_level":5,"mount":true,"cache_dir":"/c",)"
        R"("clean_meta":true,"filesplit_size":6,"roach_compression_type":7,)"
        R"("roach_compression_level":8,"cpu_cores":9,"master_timeout":10,)"
        R"("cbm_recycle_level":11,"logging_level":"DEBUG"})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    EXPECT_EQ(std::make_tuple(COMPR_LZOP, true, true, 1, 2, 3, 4, 5, 7, 8, 9, uint64_t{6}, 11, 10u,
                              "/c", "DEBUG"),
              fields(parsed.object()));
}

TEST(GaussDB_Backup_Job_Options_Parser, a_scalar_of_each_kind_under_each_key) {
    for (Key const& key : KEYS)
        for (Value const& value : VALUES) {
            Parse<Backup_Options> const parsed(pair(key.text, value.text));
            bool const refused = value.kind != '0' && value.kind != 'b' && value.kind != key.kind;
            EXPECT_EQ(refused ? 5 : 0, parsed.err()) << key.text << value.text;
            // only a value of the key's own kind may change anything
            if (value.kind != key.kind) {
                EXPECT_EQ(fields(Options()), fields(parsed.object())) << key.text << value.text;
            }
        }
}

TEST(GaussDB_Backup_Job_Options_Parser,
     a_string_in_an_array_or_nested_map_is_refused_at_any_depth) {
    for (Key const& key : KEYS)
        for (char const* nest : {"[\"a\"]", "[1,[\"a\"]]", "{\"channels\":\"a\"}",
                                 "{\"x\":[\"a\"]}", "[{\"cache_dir\":\"a\"}]"}) {
            EXPECT_EQ(9, expect(pair(key.text, nest), Options())) << key.text << nest;
            EXPECT_EQ(9, expect(pair("x", nest), Options())) << nest;
        }
}

TEST(GaussDB_Backup_Job_Options_Parser, other_scalars_in_arrays_and_nested_maps_have_no_effect) {
    for (Key const& key : KEYS)
        for (char const* nest : {"[]", "{}", "[7]", "[true]", "[null]", "[[7,true]]",
                                 "{\"channels\":7}", "{\"mount\":true}", "{\"compression\":7}",
                                 "[{\"channels\":7}]", "{\"x\":{\"mount\":true}}"}) {
            EXPECT_EQ(0, expect(pair(key.text, nest), Options())) << key.text << nest;
            EXPECT_EQ(0, expect(pair("x", nest), Options())) << nest;
        }
}

TEST(GaussDB_Backup_Job_Options_Parser, behind_a_nested_value_the_next_key_counts) {
    Options expected;
    expected.channels_ = 3;
    EXPECT_EQ(0, expect(R"({"mount":[true],"x":{"channels":9},"channels":3})", expected));
}

TEST(GaussDB_Backup_Job_Options_Parser, a_number_given_as_a_string_is_refused) {
    EXPECT_EQ(5, expect(R"({"channels": "4"})", Options()));
}

TEST(GaussDB_Backup_Job_Options_Parser, an_unknown_key_is_ignored) {
    Options expected;
    expected.channels_ = 2;
    EXPECT_EQ(0, expect(R"({"x": 1, "channels": 2})", expected));
    EXPECT_EQ(0, expect(R"({"x":"a","y":true,"z":null,"":1})", Options()));
}

TEST(GaussDB_Backup_Job_Options_Parser, an_array_of_strings_under_an_unknown_key_is_refused) {
    EXPECT_EQ(9, expect(R"({"x": [ "a" ]})", Options()));
}

TEST(GaussDB_Backup_Job_Options_Parser, keys_are_compared_whole_and_by_case) {
    for (char const* key : {"Channels", "channel", "channelss", " channels", "channels\\u0000"})
        EXPECT_EQ(0, expect(pair(key, "\"a\""), Options())) << key;
}

TEST(GaussDB_Backup_Job_Options_Parser, numbers_beyond_their_field_become_its_largest) {
    Options expected;
    expected.channels_ = INT_MAX;
    for (char const* number : {"2147483647", "2147483648", "-2147483649", "18446744073709551616"})
        EXPECT_EQ(0, expect(pair("channels", number), expected)) << number;
    expected = Options();
    expected.filesplit_size_ = UINT64_MAX;
    for (char const* number : {"18446744073709551615", "18446744073709551616", "-1"})
        EXPECT_EQ(0, expect(pair("filesplit_size", number), expected)) << number;
    expected = Options();
    expected.channels_ = INT_MIN;
    EXPECT_EQ(0, expect(pair("channels", "-2147483648"), expected));
}

TEST(GaussDB_Backup_Job_Options_Parser, the_timeout_is_read_as_an_int) {
    Options expected;
    expected.master_timeout_ = INT_MAX;
    EXPECT_EQ(0, expect(pair("master_timeout", "4294967295"), expected));
    expected.master_timeout_ = UINT_MAX;
    EXPECT_EQ(0, expect(pair("master_timeout", "-1"), expected));
}

TEST(GaussDB_Backup_Job_Options_Parser, of_a_real_number_the_digits_before_the_dot_count) {
    Options expected;
    expected.channels_ = 3;
    for (char const* number : {"3.9", "3e2", "3E-2"})
        EXPECT_EQ(0, expect(pair("channels", number), expected)) << number;
}

TEST(GaussDB_Backup_Job_Options_Parser, an_unknown_compression_is_none) {
    for (char const* name : {"\"\"", "\"none\"", "\"gzip\"", "\"ZSTD\"", "\"zstd \""}) {
        Options expected;
        EXPECT_EQ(0, expect("{\"compression\":\"auto\",\"compression\":" + std::string(name) + "}",
                            expected));
    }
}

TEST(GaussDB_Backup_Job_Options_Parser, of_a_key_that_comes_twice_the_last_value_counts) {
    Options expected;
    expected.channels_ = 2;
    EXPECT_EQ(0, expect(R"({"channels":1,"channels":2})", expected));
}

TEST(GaussDB_Backup_Job_Options_Parser, null_is_ignored) {
    Options expected;
    expected.channels_ = 1;
    EXPECT_EQ(0, expect(R"({"channels":1,"channels":null})", expected));
}

TEST(GaussDB_Backup_Job_Options_Parser, a_string_with_a_NUL_is_refused_and_not_stored) {
    for (char const* key : {"cache_dir", "logging_level"}) {
        Parse<Backup_Options> const parsed(pair(key, "\"/a\\u0000b\""));
        EXPECT_EQ(YAJL_ERR_NUL, parsed.err());
        EXPECT_NE(std::string::npos, parsed.error().find(key)) << parsed.error();
        EXPECT_EQ(fields(Options()), fields(parsed.object()));
    }
}

TEST(GaussDB_Backup_Job_Options_Parser, the_error_says_what_is_wrong_with_which_key_and_where) {
    EXPECT_EQ("a value of another type than a string is wanted at key \"channels\" near byte 23 "
              "(code 5)",
              Parse<Backup_Options>(R"({"x":1,  "channels":"4"})").error());
    EXPECT_EQ("a string where none is wanted at key \"x\" near byte 9 (code 9)",
              Parse<Backup_Options>(R"({"x":["a"]})").error());
}

TEST(GaussDB_Backup_Job_Options_Parser, a_scalar_alone_is_no_object) {
    for (char const* text : {"1 ", "true", "false"})
        EXPECT_EQ(3, expect(text, Options())) << text;
    EXPECT_EQ(9, expect("\"channels\"", Options()));
}

TEST(GaussDB_Backup_Job_Options_Parser, the_values_of_a_top_array_have_no_effect) {
    EXPECT_EQ(0, expect(R"([1,true,"a",null])", Options()));
    EXPECT_EQ(9, expect(R"([{"channels":"a"}])", Options()));
    EXPECT_EQ(0, expect(R"([{"channels":1}])", Options()));
}

TEST(GaussDB_Backup_Job_Options_Parser, an_end_or_key_without_a_beginning_is_3) {
    Parser key, map, array;
    EXPECT_FALSE(feed_key(key, "channels"));
    EXPECT_EQ(3, key.err());
    EXPECT_FALSE(map.handle_end_map_i());
    EXPECT_EQ(3, map.err());
    EXPECT_FALSE(array.handle_end_array_i());
    EXPECT_EQ(3, array.err());
}

TEST(GaussDB_Backup_Job_Options_Parser, without_memory_for_the_options_every_value_is_refused) {
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
    EXPECT_TRUE(parser->handle_end_map_i());
}

TEST(GaussDB_Backup_Job_Options_Parser, released_options_are_out_of_its_reach) {
    Parser parser;
    std::string const text = "{\"channels\":1,";
    ASSERT_TRUE(parser.parse(text.data(), text.size()));
    std::unique_ptr<Job_Options> const options = parser.release();
    EXPECT_FALSE(parser.parse("\"channels\":2}", 13));
    EXPECT_EQ(YAJL_ERR_REFUSED, parser.err());
    EXPECT_EQ(1, dynamic_cast<Options&>(*options).channels_);
}

} // namespace
