#include "tests/unit/gaussdb/job/job_definition_fixture.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>

/** docs/job-definitions.md says what is so. */
namespace {

/** The manual's text under a heading, up to the next one of its level. */
std::string section(std::string const& title) {
    std::ifstream file(ZENBRAK3_DOCS "/job-definitions.md");
    std::string const manual((std::istreambuf_iterator<char>(file)),
                             std::istreambuf_iterator<char>());
    size_t const begin = manual.find("\n## " + title + "\n");
    EXPECT_NE(std::string::npos, begin) << title;
    return begin == std::string::npos
               ? ""
               : manual.substr(begin + 1, manual.find("\n## ", begin + 1) - begin - 1);
}

/** What stands between each pair of marks. */
std::vector<std::string> between(std::string const& text, std::string const& open,
                                 std::string const& close) {
    std::vector<std::string> found;
    for (size_t at = text.find(open); at != std::string::npos; at = text.find(open, at)) {
        at += open.size();
        size_t const end = text.find(close, at);
        found.push_back(text.substr(at, end - at));
        at = end;
    }
    return found;
}

template <typename Kind>
void expect_examples_parse(char const* title) {
    std::vector<std::string> const examples = between(section(title), "```json\n", "```");
    EXPECT_FALSE(examples.empty());
    for (std::string const& example : examples) {
        Parse<Kind> const parsed(example);
        ASSERT_TRUE(parsed.ok) << example << parsed.error();
        EXPECT_NE(fields(typename Kind::Object()), fields(parsed.object())) << example;
        Parse<Kind> const again(generated(parsed.object()));
        EXPECT_EQ(fields(parsed.object()), fields(again.object()));
    }
}

/** The rows of the section's first table are the keys of the parser's. */
void expect_keys(char const* title, Job_Definition_Key const* table) {
    std::string const text = section(title);
    size_t const begin = text.find("\n| key |");
    ASSERT_NE(std::string::npos, begin);
    std::set<std::string> described, parsed;
    for (std::string const& key :
         between(text.substr(begin, text.find("\n\n", begin) - begin), "\n| `", "`"))
        EXPECT_TRUE(described.insert(key).second) << key;
    for (; table->key; ++table)
        parsed.insert(table->key);
    EXPECT_EQ(parsed, described);
}

TEST(Job_Definition_Manual, its_backup_options) {
    expect_keys("Backup options", GaussDB_Backup_Job_Options_Parser::key_table_1);
    expect_examples_parse<Backup_Options>("Backup options");
}

TEST(Job_Definition_Manual, its_restore_options) {
    expect_keys("Restore options", GaussDB_Restore_Job_Options_Parser::key_table_1);
    expect_examples_parse<Restore_Options>("Restore options");
}

TEST(Job_Definition_Manual, its_backup_source) {
    expect_keys("Backup source", GaussDB_Backup_Job_Source_Parser::key_table);
    expect_examples_parse<Backup_Source>("Backup source");
}

TEST(Job_Definition_Manual, its_restore_source) {
    expect_keys("Restore source", GaussDB_Restore_Job_Source_Parser::key_table);
    expect_examples_parse<Restore_Source>("Restore source");
}

} // namespace
