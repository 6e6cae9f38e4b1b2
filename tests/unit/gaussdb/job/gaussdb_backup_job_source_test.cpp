#include "gaussdb/job/gaussdb_backup_job_source.h"

#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"
#include "tests/unit/gaussdb/job/random_definitions.h"

#include <gtest/gtest.h>

namespace {

using Source = GaussDB_Backup_Job_Source;
using Schemas = std::map<std::string, std::vector<std::string>>;
using Entries = std::vector<std::string>;

Source with_entries(Entries const& entries) {
    Source source;
    for (std::string const& entry : entries)
        source.add_entry(std::string(entry));
    EXPECT_EQ(entries, source.entries_);
    return source;
}

TEST(GaussDB_Backup_Job_Source, a_whole_instance_names_the_instance_only) {
    Source const source = with_entries({"gaussdb/cluster"});
    EXPECT_EQ("cluster", source.instance_);
    EXPECT_EQ(Schemas(), source.schemas_);
}

TEST(GaussDB_Backup_Job_Source, a_slash_at_the_beginning_is_no_segment) {
    EXPECT_EQ("cluster", with_entries({"/gaussdb/cluster"}).instance_);
}

TEST(GaussDB_Backup_Job_Source, a_schema_is_filed_under_its_database) {
    Source const source = with_entries(
        {"gaussdb/c/schema/db/s1", "gaussdb/c/schema/other/s", "gaussdb/c/schema/db/s2"});
    EXPECT_EQ((Schemas{{"db", {"s1", "s2"}}, {"other", {"s"}}}), source.schemas_);
    EXPECT_EQ("c", source.instance_);
}

TEST(GaussDB_Backup_Job_Source, four_segments_are_no_schema_and_are_kept) {
    Source const source = with_entries({"gaussdb/c/schema/db"});
    EXPECT_EQ(Schemas(), source.schemas_);
    EXPECT_EQ("c", source.instance_);
}

TEST(GaussDB_Backup_Job_Source, six_segments_are_no_schema) {
    EXPECT_EQ(Schemas(), with_entries({"gaussdb/c/schema/db/s/"}).schemas_);
}

TEST(GaussDB_Backup_Job_Source, another_type_is_no_schema) {
    for (char const* type : {"Schema", "table", "", "schema%20"})
        EXPECT_EQ(Schemas(), with_entries({"gaussdb/c/" + std::string(type) + "/db/s"}).schemas_);
}

TEST(GaussDB_Backup_Job_Source, the_first_entry_with_an_instance_wins) {
    EXPECT_EQ("a", with_entries({"gaussdb", "gaussdb/a", "gaussdb/b"}).instance_);
}

TEST(GaussDB_Backup_Job_Source, an_empty_instance_leaves_the_place_to_a_later_one) {
    EXPECT_EQ("b", with_entries({"gaussdb//x", "gaussdb/b"}).instance_);
}

TEST(GaussDB_Backup_Job_Source, an_entry_without_an_instance_is_kept) {
    for (char const* entry : {"", "/", "gaussdb"})
        EXPECT_EQ("", with_entries({entry}).instance_) << entry;
}

TEST(GaussDB_Backup_Job_Source, names_are_decoded_after_they_were_divided) {
    Source const source = with_entries({"gaussdb/a%2Fb/schema/d%20d/%E6%95%B0"});
    EXPECT_EQ("a/b", source.instance_);
    EXPECT_EQ((Schemas{{"d d", {"\xE6\x95\xB0"}}}), source.schemas_);
}

TEST(GaussDB_Backup_Job_Source, the_first_segment_is_not_looked_at) {
    EXPECT_EQ("c", with_entries({"other/c"}).instance_);
}

TEST(GaussDB_Backup_Job_Source, nothing_but_an_id_is_written_of_an_empty_source) {
    Source source;
    EXPECT_EQ(R"({"id":""})", generated(source));
}

TEST(GaussDB_Backup_Job_Source, everything_is_written_in_this_order) {
    Source source = with_entries({"gaussdb/b", "gaussdb/a"});
    source.name("n");
    source.id("i");
    EXPECT_EQ(R"({"id":"i","name":"n","entries":["gaussdb/b","gaussdb/a"]})", generated(source));
}

TEST(GaussDB_Backup_Job_Source, a_null_generator_is_refused) {
    EXPECT_EQ(-1, Source().generate(nullptr));
    EXPECT_CHECK_LOGGED("generator is NULL");
}

TEST(GaussDB_Backup_Job_Source, what_is_generated_parses_to_the_same) {
    Random_Definitions random(3);
    for (int round = 0; round < 5000; ++round) {
        Source source = random.backup_source();
        Parse<Backup_Source> const parsed(generated(source));
        ASSERT_TRUE(parsed.ok) << generated(source) << parsed.error();
        ASSERT_EQ(fields(source), fields(parsed.object()));
    }
}

} // namespace
