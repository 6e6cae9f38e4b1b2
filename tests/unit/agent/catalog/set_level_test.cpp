#include "agent/catalog/set_level.h"

#include "json_spirit/access.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Object;
using json_spirit::Value;

/** Level and reason of a set. */
std::string level_of(char const* type, char const* prior, int series) {
    Object row{{"type", type}, {"prior_backup_key", prior}, {"series", series}};
    add_level(row);
    EXPECT_EQ(Value(type), row.at("type")) << "what was asked for";
    std::string const reason = json_spirit::object_get_str(row, "level_reason");
    return json_spirit::object_get_str(row, "level") + (reason.empty() ? "" : ", changed");
}

TEST(Set_Level, an_incremental_set_that_builds_on_none_is_full) {
    for (int const series : {0, 1, 2, 4, 5}) {
        EXPECT_EQ("full, changed", level_of("incremental", "", series)) << series;
        EXPECT_EQ("full, changed", level_of("cumulative", "", series)) << series;
        EXPECT_EQ("incremental", level_of("incremental", "k1", series)) << series;
        EXPECT_EQ("full", level_of("full", "", series)) << series;
    }
}

TEST(Set_Level, sets_that_are_chained_in_another_way_are_as_they_say) {
    for (int const series : {3, 6})
        EXPECT_EQ("incremental", level_of("incremental", "", series)) << series;
    EXPECT_EQ("log", level_of("log", "", 6));
    Object row;
    add_level(row);
    EXPECT_EQ(Value(""), row.at("level"));
}

} // namespace
