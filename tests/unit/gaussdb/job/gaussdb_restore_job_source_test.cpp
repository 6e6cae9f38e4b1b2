#include "gaussdb/job/gaussdb_restore_job_source.h"

#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"
#include "tests/unit/gaussdb/job/random_definitions.h"

#include <gtest/gtest.h>

namespace {

using Source = GaussDB_Restore_Job_Source;
using Tables = std::map<std::string, std::forward_list<Table_Mapping>>;
using Entries = std::vector<std::string>;

Source with_entries(Entries const& entries) {
    Source source;
    for (std::string const& entry : entries)
        source.add_entry(std::string(entry));
    EXPECT_EQ(entries, source.entries_);
    return source;
}

TEST(GaussDB_Restore_Job_Source, a_table_is_filed_under_its_database) {
    Source const source = with_entries({"gaussdb/c/table/db/s/t/s2/t2"});
    EXPECT_EQ((Tables{{"db", {{"s", "t", "s2", "t2"}}}}), source.tables_);
}

TEST(GaussDB_Restore_Job_Source, of_two_tables_of_a_database_the_later_one_comes_first) {
    Source const source = with_entries({"gaussdb/c/table/db/s/t1/s/t1", "gaussdb/c/table/x/s/t/s/t",
                                        "gaussdb/c/table/db/s/t2/s/t2"});
    EXPECT_EQ((Tables{{"db", {{"s", "t2", "s", "t2"}, {"s", "t1", "s", "t1"}}},
                      {"x", {{"s", "t", "s", "t"}}}}),
              source.tables_);
}

TEST(GaussDB_Restore_Job_Source, seven_segments_are_no_table_and_are_kept) {
    EXPECT_EQ(Tables(), with_entries({"gaussdb/c/table/db/s/t/s2"}).tables_);
}

TEST(GaussDB_Restore_Job_Source, nine_segments_are_no_table) {
    EXPECT_EQ(Tables(), with_entries({"gaussdb/c/table/db/s/t/s2/t2/"}).tables_);
}

TEST(GaussDB_Restore_Job_Source, another_type_is_no_table) {
    for (char const* type : {"Table", "schema", ""})
        EXPECT_EQ(Tables(),
                  with_entries({"gaussdb/c/" + std::string(type) + "/db/s/t/s2/t2"}).tables_);
}

TEST(GaussDB_Restore_Job_Source, names_are_decoded_after_they_were_divided) {
    Source const source = with_entries({"gaussdb/c/table/d%2Fd/s%20s/%E6%95%B0/x%25/%2e%2E"});
    EXPECT_EQ((Tables{{"d/d", {{"s s", "\xE6\x95\xB0", "x%", ".."}}}}), source.tables_);
}

TEST(GaussDB_Restore_Job_Source, an_entry_of_any_other_form_is_kept) {
    EXPECT_EQ(Tables(), with_entries({"", "/", "gaussdb", "gaussdb/c", "\n"}).tables_);
}

TEST(GaussDB_Restore_Job_Source, nothing_but_an_id_is_written_of_an_empty_source) {
    Source source;
    EXPECT_EQ(R"({"id":""})", generated(source));
}

TEST(GaussDB_Restore_Job_Source, everything_but_the_tables_is_written_in_this_order) {
    Source source = with_entries({"gaussdb/c/table/d/s/t/s/t", "gaussdb/a"});
    source.restore_as_ = "gaussdb/r";
    source.original_ = "o";
    source.backup_key_ = "k";
    source.catalog_uuid_ = "u";
    source.name("n");
    source.id("i");
    EXPECT_EQ(R"({"id":"i","name":"n","catalog_id":"u","backup_key":"k","original":"o",)"
              R"("restore_as":"gaussdb/r","entries":["gaussdb/c/table/d/s/t/s/t","gaussdb/a"]})",
              generated(source));
}

TEST(GaussDB_Restore_Job_Source, a_null_generator_is_refused) {
    EXPECT_EQ(-1, Source().generate(nullptr));
    EXPECT_CHECK_LOGGED("generator is NULL");
}

TEST(GaussDB_Restore_Job_Source, what_is_generated_parses_to_the_same_with_its_tables) {
    Random_Definitions random(4);
    for (int round = 0; round < 5000; ++round) {
        Source source = random.restore_source();
        Parse<Restore_Source> const parsed(generated(source));
        ASSERT_TRUE(parsed.ok) << generated(source) << parsed.error();
        ASSERT_EQ(fields(source), fields(parsed.object()));
        ASSERT_EQ(source.tables_, parsed.object().tables_);
    }
}

} // namespace
