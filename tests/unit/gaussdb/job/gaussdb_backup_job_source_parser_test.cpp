#include "gaussdb/job/gaussdb_backup_job_source_parser.h"

#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"

#include <gtest/gtest.h>

namespace {

using Parser = GaussDB_Backup_Job_Source_Parser;
using Source = GaussDB_Backup_Job_Source;

/** The code of a source that is complete but for what @a pairs do. */
int err_with(std::string const& pairs) {
    return Parse<Backup_Source>("{\"id\":\"x\",\"entries\":[],\"name\":\"n\"," + pairs + "}").err();
}

TEST(GaussDB_Backup_Job_Source_Parser, the_table_and_the_required_keys) {
    EXPECT_STREQ("id", Parser::key_table[0].key);
    EXPECT_EQ(1u, Parser::key_table[0].value);
    EXPECT_STREQ("name", Parser::key_table[1].key);
    EXPECT_EQ(2u, Parser::key_table[1].value);
    EXPECT_STREQ("entries", Parser::key_table[2].key);
    EXPECT_EQ(4u, Parser::key_table[2].value);
    EXPECT_EQ(nullptr, Parser::key_table[3].key);
    EXPECT_EQ(5u, Parser::COMMON_BITS);
}

TEST(GaussDB_Backup_Job_Source_Parser, a_whole_source) {
    Parse<Backup_Source> const parsed(
        R"({"entries":["gaussdb/c/schema/d/s","gaussdb/c"],"name":"n","id":"x"})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    EXPECT_EQ("x", parsed.object().id());
    EXPECT_EQ("n", parsed.object().name());
    EXPECT_EQ("c", parsed.object().instance_);
    EXPECT_EQ((std::vector<std::string>{"gaussdb/c/schema/d/s", "gaussdb/c"}),
              parsed.object().entries_);
    EXPECT_EQ((std::vector<std::string>{"s"}), parsed.object().schemas_["d"]);
}

TEST(GaussDB_Backup_Job_Source_Parser, texts_that_may_not_be_such_a_name_are_refused) {
    for (char const* text :
         {R"({"id":"../x","entries":[]})", R"({"id":"meta","entries":[]})",
          R"({"id":"a\nb","entries":[]})", R"({"id":"x","name":"a\nb","entries":[]})",
          R"({"id":"x","entries":["gaussdb/a\nb"]})",
          R"({"id":"x","entries":["gaussdb/a%0Ab"]})"}) {
        Parse<Backup_Source> const parsed(text);
        EXPECT_EQ(YAJL_ERR_NAME, parsed.err()) << text;
    }
    std::string const long_id(100'000, 'x');
    EXPECT_EQ(YAJL_ERR_NAME,
              Parse<Backup_Source>("{\"id\":\"" + long_id + "\",\"entries\":[]}").err());
}

TEST(GaussDB_Backup_Job_Source_Parser, without_entries_it_is_refused) {
    Parse<Backup_Source> const parsed(R"({"id": "x"})");
    EXPECT_EQ(7, parsed.err());
    EXPECT_LOGGED(LM_WARNING, "Failed to parse job definition source, lack of 'entries'.\n");
    EXPECT_EQ("lack of 'entries' near byte 11 (code 7)", parsed.error());
    EXPECT_NOT_LOGGED("'id'");
}

TEST(GaussDB_Backup_Job_Source_Parser, an_empty_object_lacks_both_id_first) {
    Parse<Backup_Source> const parsed("{}");
    EXPECT_EQ(7, parsed.err());
    std::string const log = Log_Capture::instance().dump();
    EXPECT_LT(log.find("lack of 'id'"), log.find("lack of 'entries'"));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "Failed to parse job definition"));
    EXPECT_EQ("lack of 'id', 'entries' near byte 2 (code 7)", parsed.error());
}

TEST(GaussDB_Backup_Job_Source_Parser, an_empty_list_of_entries_counts_as_given) {
    Parse<Backup_Source> const parsed(R"({"id": "x", "entries": []})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    EXPECT_EQ("", parsed.object().instance_);
    EXPECT_TRUE(parsed.object().entries_.empty());
}

TEST(GaussDB_Backup_Job_Source_Parser, the_name_is_not_required) {
    EXPECT_TRUE(Parse<Backup_Source>(R"({"id":"x","entries":["gaussdb/c"]})").ok);
}

TEST(GaussDB_Backup_Job_Source_Parser, an_empty_id_counts_as_given) {
    EXPECT_TRUE(Parse<Backup_Source>(R"({"id":"","entries":[]})").ok);
}

TEST(GaussDB_Backup_Job_Source_Parser, entries_given_as_a_string_are_refused) {
    Parse<Backup_Source> const parsed(R"({"id":"x","entries":"gaussdb/c"})");
    EXPECT_EQ(9, parsed.err());
    EXPECT_NE(std::string::npos, parsed.error().find("at key \"entries\"")) << parsed.error();
}

TEST(GaussDB_Backup_Job_Source_Parser, a_string_in_another_list_or_nested_map_is_refused) {
    for (char const* pairs : {R"("x":["a"])", R"("id":["a"])", R"("name":{"id":"a"})"})
        EXPECT_EQ(3, err_with(pairs)) << pairs;
}

TEST(GaussDB_Backup_Job_Source_Parser, a_string_below_the_second_level_is_refused) {
    for (char const* pairs : {R"("entries":[["a"]])", R"("entries":[{"a":"a"}])", R"("x":[["a"]])"})
        EXPECT_EQ(9, err_with(pairs)) << pairs;
}

TEST(GaussDB_Backup_Job_Source_Parser, strings_of_a_map_under_entries_are_entries_but_no_list) {
    Parse<Backup_Source> const parsed(R"({"id":"x","entries":{"id":"gaussdb/c"}})");
    EXPECT_EQ(7, parsed.err());
    EXPECT_LOGGED(LM_WARNING, "lack of 'entries'");
    EXPECT_EQ("x", parsed.object().id());
    EXPECT_EQ("c", parsed.object().instance_);
}

TEST(GaussDB_Backup_Job_Source_Parser, only_strings_become_entries) {
    Parse<Backup_Source> const parsed(
        R"({"id":"x","entries":[1,"gaussdb/c",-2.5,true,null,[],{},[3]]})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    EXPECT_EQ((std::vector<std::string>{"gaussdb/c"}), parsed.object().entries_);
}

TEST(GaussDB_Backup_Job_Source_Parser, a_scalar_of_each_other_kind_under_each_key_is_skipped) {
    for (char const* key : {"\"id\":", "\"name\":", "\"entries\":", "\"x\":"})
        for (char const* value : {"1", "2.5", "true", "false", "null"})
            EXPECT_EQ(0, err_with(std::string(key) + value)) << key << value;
}

TEST(GaussDB_Backup_Job_Source_Parser, a_required_key_of_another_kind_is_not_given) {
    EXPECT_EQ(7, Parse<Backup_Source>(R"({"id":5,"entries":[]})").err());
    EXPECT_LOGGED(LM_WARNING, "lack of 'id'");
    EXPECT_EQ(7, Parse<Backup_Source>(R"({"id":"x","entries":null})").err());
    EXPECT_LOGGED(LM_WARNING, "lack of 'entries'");
}

TEST(GaussDB_Backup_Job_Source_Parser, a_nested_map_does_not_answer_for_the_required_keys) {
    EXPECT_EQ(7, Parse<Backup_Source>(R"({"id":"x","x":{"entries":[]}})").err());
    EXPECT_LOGGED(LM_WARNING, "lack of 'entries'");
    EXPECT_EQ(0, err_with(R"("x":{})"));
}

TEST(GaussDB_Backup_Job_Source_Parser, entries_that_come_twice_are_all_kept) {
    Parse<Backup_Source> const parsed(
        R"({"id":"x","id":"y","entries":["gaussdb/a"],"entries":["gaussdb/b"]})");
    EXPECT_TRUE(parsed.ok) << parsed.error();
    EXPECT_EQ("y", parsed.object().id());
    EXPECT_EQ((std::vector<std::string>{"gaussdb/a", "gaussdb/b"}), parsed.object().entries_);
    EXPECT_EQ("a", parsed.object().instance_);
}

TEST(GaussDB_Backup_Job_Source_Parser, a_string_with_a_NUL_is_refused_and_not_stored) {
    for (char const* pairs :
         {R"("id":"a\u0000b")", R"("name":"\u0000")", R"("entries":["gaussdb/a\u0000b"])"}) {
        Parse<Backup_Source> const parsed("{" + std::string(pairs) + "}");
        EXPECT_EQ(YAJL_ERR_NUL, parsed.err()) << pairs;
        EXPECT_EQ(fields(Source()), fields(parsed.object()));
        EXPECT_NE(std::string::npos, parsed.error().find("at key \"")) << parsed.error();
    }
    EXPECT_EQ(0, err_with(R"("x":"\u0000")"));
}

TEST(GaussDB_Backup_Job_Source_Parser, a_string_alone_is_refused_and_a_top_array_skipped) {
    EXPECT_EQ(9, Parse<Backup_Source>("\"id\"").err());
    Parse<Backup_Source> const parsed(R"(["id",1])");
    EXPECT_TRUE(parsed.ok);
    EXPECT_EQ(fields(Source()), fields(parsed.object()));
}

TEST(GaussDB_Backup_Job_Source_Parser, an_end_or_key_without_a_beginning_is_3) {
    Parser key, map, array;
    EXPECT_FALSE(feed_key(key, "id"));
    EXPECT_EQ(3, key.err());
    EXPECT_FALSE(map.handle_end_map_i());
    EXPECT_EQ(3, map.err());
    EXPECT_FALSE(array.handle_end_array_i());
    EXPECT_EQ(3, array.err());
}

TEST(GaussDB_Backup_Job_Source_Parser, without_memory_for_the_source_strings_are_passed_over) {
    errno = 0;
    std::unique_ptr<Parser> parser;
    {
        Failing_New const no_memory(sizeof(Source));
        parser = std::make_unique<Parser>();
    }
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(nullptr, parser->result());
    EXPECT_TRUE(parser->handle_start_map_i());
    EXPECT_TRUE(feed_key(*parser, "id"));
    EXPECT_TRUE(feed_string(*parser, "x"));
    EXPECT_TRUE(feed_key(*parser, "entries"));
    EXPECT_TRUE(parser->handle_start_array_i());
    EXPECT_TRUE(feed_string(*parser, "gaussdb/c"));
    EXPECT_TRUE(parser->handle_end_array_i());
    EXPECT_FALSE(parser->handle_end_map_i()); // the id was not taken
    EXPECT_LOGGED(LM_WARNING, "lack of 'id'");
}

} // namespace
