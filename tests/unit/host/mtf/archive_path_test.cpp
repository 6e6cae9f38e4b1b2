#include "host/mtf/archive_path.h"

#include <gtest/gtest.h>

using namespace MTF;

namespace {

TEST(Archive_Path, ArchiveAndCatalogueStandSideBySide) {
    EXPECT_EQ("host/roach/minor/minor_0000000012_0000.mtf",
              mtf_path("host/roach/minor", "minor", 12, 0));
    EXPECT_EQ("host/roach/minor/minor_0000000012_0003.cat",
              cat_path("host/roach/minor", "minor", 12, 3));
}

TEST(Archive_Path, SlashesAtTheEndsOfTheFolderDoNotCount) {
    EXPECT_EQ(mtf_path("a/b", "m", 1, 0), mtf_path("//a/b//", "m", 1, 0));
    EXPECT_EQ("m_0000000001_0000.mtf", mtf_path("", "m", 1, 0));
    EXPECT_EQ("m_0000000001_0000.mtf", mtf_path("/", "m", 1, 0));
}

TEST(Archive_Path, NamesSortByNumber) {
    EXPECT_LT(mtf_path("u", "m", 9, 0), mtf_path("u", "m", 10, 0));
    EXPECT_LT(mtf_path("u", "m", 999999, 0), mtf_path("u", "m", 1000000, 0));
}

TEST(Archive_Path, LargeNumbersStayWhole) {
    EXPECT_EQ("m_9223372036854775807_4294967295.cat", cat_path("", "m", INT64_MAX, UINT32_MAX));
}

TEST(Archive_Path, TheDefaultFolderIsThatOfTheHostAndTheResource) {
    EXPECT_EQ("host/roach/minor", default_uri("host", "minor"));
}

TEST(Archive_Path, AnEntryIsNamedByThePathWithoutItsRoot) {
    EXPECT_EQ("a", entry_name("/a"));
    EXPECT_EQ("a/b c", entry_name("//a/./b c//"));
    EXPECT_EQ("a/..b/c..", entry_name("/a/..b/c.."));
}

TEST(Archive_Path, PathsThatCannotBeEntriesHaveNoName) {
    for (std::string_view const path : {"", "a", "./a", "/", "//", "/.", "/..", "/a/..", "/a/../b"})
        EXPECT_EQ("", entry_name(path)) << path;
    EXPECT_EQ("", entry_name(std::string_view("/a\0b", 4)));
}

TEST(Archive_Path, OnlyCleanNamesAreEntryNames) {
    EXPECT_TRUE(is_entry_name("a"));
    EXPECT_TRUE(is_entry_name("a/b/...c"));
    for (std::string_view const name :
         {"", "/", "/a", "a/", "a//b", "./a", "a/.", "..", "../a", "a/..", "a/../b"})
        EXPECT_FALSE(is_entry_name(name)) << name;
    EXPECT_FALSE(is_entry_name(std::string_view("a\0b", 3)));
}

TEST(Archive_Path, AFolderIsFollowedByWhatIsBelowIt) {
    std::string_view const ordered[] = {"a",  "a/b", "a/b/c", "a/b!", "a/c",  "a\x01", "a b",
                                        "a-", "a0",  "b",     "\x7f", "\x80", "\xff",  "\xff/a"};
    for (size_t left = 0; left < std::size(ordered); ++left)
        for (size_t right = 0; right < std::size(ordered); ++right) {
            int const order = compare_entry_names(ordered[left], ordered[right]);
            EXPECT_EQ(left < right, order < 0) << left << " " << right;
            EXPECT_EQ(left == right, order == 0) << left << " " << right;
        }
}

TEST(Archive_Path, BelowMeansByWholeNames) {
    EXPECT_TRUE(is_at_or_below("a/b", "a"));
    EXPECT_TRUE(is_at_or_below("a", "a"));
    EXPECT_TRUE(is_at_or_below("a", ""));
    EXPECT_FALSE(is_at_or_below("ab", "a"));
    EXPECT_FALSE(is_at_or_below("a", "a/b"));
    EXPECT_FALSE(is_at_or_below("b/a", "a"));
}

} // namespace
