#include "gaussdb/job/gaussdb_restore_job_source_parser.h"

#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"

#include <gtest/gtest.h>

namespace {

using Parser = GaussDB_Restore_Job_Source_Parser;
using Source = GaussDB_Restore_Job_Source;

constexpr struct {
    char const* key;
    uint64_t bit;
} KEYS[] = {{"id", 1},        {"name", 2},        {"catalog_id", 4}, {"backup_key", 8},
            {"original", 16}, {"restore_as", 32}, {"entries", 128}};

int err_with(std::string const& pairs) {
    return Parse<Restore_Source>("{\"id\":\"x\",\"restore_as\":\"y\"," + pairs + "}").err();
}

TEST(GaussDB_Restore_Job_Source_Parser, texts_that_may_not_be_such_a_name_are_refused) {
    for (char const* pairs : {R"("catalog_id":"../x")", R"("backup_key":"../../1_1")",
                              R"("original":"gaussdb/a\nb")", R"("restore_as":"gaussdb/%0A")"})
        EXPECT_EQ(YAJL_ERR_NAME, err_with(pairs)) << pairs;
}

TEST(GaussDB_Restore_Job_Source_Parser, the_table_and_the_required_keys) {
    size_t row = 0;
    for (auto const& [key, bit] : KEYS) {
        Job_Definition_Key const& found = Parser::key_table[row++];
        EXPECT_STREQ(key, found.key);
        EXPECT_EQ(std::string(key).size(), found.len);
        EXPECT_EQ(bit, found.value);
    }
    EXPECT_EQ(nullptr, Parser::key_table[row].key);
    EXPECT_EQ(33u, Parser::COMMON_BITS);
}

TEST(GaussDB_Restore_Job_Source_Parser, every_key_sets_its_own_field) {
    Parse<Restore_Source> const parsed(
        R"({"id":"1","name":"2","catalog_id":"3","backup_key":"4","original":"5",)"
        R"("restore_as":"6","entries":["gaussdb/c/table/d/s/t/s2/t2","8"]})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    using List = std::vector<std::string>;
    EXPECT_EQ(std::make_tuple("1", "2", "3", "4", "5", "6",
                              List{"gaussdb/c/table/d/s/t/s2/t2", "8"}, List{"d|s|t|s2|t2"}),
              fields(parsed.object()));
}

TEST(GaussDB_Restore_Job_Source_Parser, without_a_target_it_is_refused) {
    Parse<Restore_Source> const parsed(R"({"id": "x"})");
    EXPECT_EQ(7, parsed.err());
    EXPECT_LOGGED(LM_WARNING, "Failed to parse job definition source, lack of 'restore_as'.\n");
    EXPECT_EQ("lack of 'restore_as' near byte 11 (code 7)", parsed.error());
}

TEST(GaussDB_Restore_Job_Source_Parser, an_empty_object_lacks_both_id_first) {
    EXPECT_EQ(7, Parse<Restore_Source>("{}").err());
    std::string const log = Log_Capture::instance().dump();
    EXPECT_LT(log.find("lack of 'id'"), log.find("lack of 'restore_as'"));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "Failed to parse job definition"));
}

TEST(GaussDB_Restore_Job_Source_Parser, id_and_target_are_enough) {
    Parse<Restore_Source> const parsed(R"({"id": "x", "restore_as": "y"})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    EXPECT_EQ("", parsed.object().backup_key_);
    EXPECT_EQ("y", parsed.object().restore_as_);
}

TEST(GaussDB_Restore_Job_Source_Parser, two_tables_of_a_database_come_in_reverse) {
    Parse<Restore_Source> const parsed(
        R"({"id":"x","restore_as":"y","entries":["gaussdb/c/table/d/s/1/s/1",)"
        R"("gaussdb/c/table/d/s/2/s/2","gaussdb/c/table/d/s/7/s"]})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    EXPECT_EQ((std::forward_list<Table_Mapping>{{"s", "2", "s", "2"}, {"s", "1", "s", "1"}}),
              parsed.object().tables_["d"]);
    EXPECT_EQ(3u, parsed.object().entries_.size());
}

TEST(GaussDB_Restore_Job_Source_Parser, entries_given_as_a_string_are_refused) {
    EXPECT_EQ(9, err_with(R"("entries":"gaussdb/c")"));
}

TEST(GaussDB_Restore_Job_Source_Parser, a_string_in_another_list_or_map_is_refused_below_each_key) {
    for (auto const& [key, bit] : KEYS) {
        std::string const quoted = "\"" + std::string(key) + "\":";
        int const expected = std::string(key) == "entries" ? 0 : 3;
        EXPECT_EQ(expected, err_with(quoted + "[\"a\"]")) << key;
        EXPECT_EQ(expected, err_with(quoted + "{\"id\":\"a\"}")) << key;
        EXPECT_EQ(9, err_with(quoted + "[[\"a\"]]")) << key;
        for (char const* skipped : {"1", "true", "null", "[]", "{}", "[1,[true]]"})
            EXPECT_EQ(0, err_with(quoted + skipped)) << key << skipped;
    }
}

TEST(GaussDB_Restore_Job_Source_Parser, an_unknown_key_is_skipped) {
    EXPECT_EQ(0, err_with(R"("x":"a","ID":"b","":1,"y":[1])"));
    EXPECT_EQ(3, err_with(R"("x":["a"])"));
}

TEST(GaussDB_Restore_Job_Source_Parser, a_string_with_a_NUL_is_refused_and_not_stored) {
    for (auto const& [key, bit] : KEYS) {
        bool const list = std::string(key) == "entries";
        Parse<Restore_Source> const parsed("{\"" + std::string(key) +
                                           (list ? "\":[\"a\\u0000\"]}" : "\":\"a\\u0000\"}"));
        EXPECT_EQ(YAJL_ERR_NUL, parsed.err()) << key;
        EXPECT_NE(std::string::npos, parsed.error().find(key)) << parsed.error();
        EXPECT_EQ(fields(Source()), fields(parsed.object()));
    }
}

TEST(GaussDB_Restore_Job_Source_Parser, of_a_key_that_comes_twice_the_last_value_counts) {
    Parse<Restore_Source> const parsed(R"({"id":"x","restore_as":"a","restore_as":"b"})");
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ("b", parsed.object().restore_as_);
}

} // namespace
