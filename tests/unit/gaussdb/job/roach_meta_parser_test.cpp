#include "gaussdb/job/roach_meta_parser.h"

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Roach_Meta_Parser_Test : public testing::Test {
protected:
    void backups(std::string const& text) { files_.write("backups.ini", text); }

    Temporary_Directory files_;
    Roach_Meta_Parser parser_{files_.path(), GAUSSDB_200};
    ACE_INT64 size_ = -7;
};

TEST_F(Roach_Meta_Parser_Test, a_missing_file_is_no_and_says_nothing) {
    EXPECT_FALSE(parser_.has_backup_key("1_1"));
    EXPECT_FALSE(parser_.parse("1_1", size_));
    EXPECT_NOT_LOGGED("Failed to parse");
}

TEST_F(Roach_Meta_Parser_Test, an_empty_file_and_a_directory_are_no) {
    backups("");
    EXPECT_FALSE(parser_.has_backup_key("1_1"));
    files_.write("d/backups.ini/x", "");
    EXPECT_FALSE(Roach_Meta_Parser(files_.path("d"), GAUSSDB_200).has_backup_key("1_1"));
}

TEST_F(Roach_Meta_Parser_Test, sizes_of_the_200_series_are_integers_with_suffixes) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":1024UL},"
            "{\"BackupKey\":\"1_2\",\"BackupSize\":2048U},"
            "{\"BackupKey\":\"1_3\",\"BackupSize\":4096}]}\n");
    EXPECT_TRUE(parser_.parse("1_1", size_));
    EXPECT_EQ(1024, size_);
    EXPECT_TRUE(parser_.parse("1_2", size_));
    EXPECT_EQ(2048, size_);
    EXPECT_TRUE(parser_.parse("1_3", size_));
    EXPECT_EQ(4096, size_);
}

TEST_F(Roach_Meta_Parser_Test, a_blank_behind_the_colon_keeps_the_suffix) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\": 1024UL}]}");
    EXPECT_FALSE(parser_.parse("1_1", size_));
    EXPECT_LOGGED(LM_ERROR, "near byte");
    EXPECT_EQ(-7, size_);
}

TEST_F(Roach_Meta_Parser_Test, a_size_below_zero_is_none) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":-1}]}");
    EXPECT_FALSE(parser_.parse("1_1", size_));
    EXPECT_LOGGED(LM_ERROR, "BackupSize(-1) is invalid.\n");
    EXPECT_EQ(-7, size_);
}

TEST_F(Roach_Meta_Parser_Test, suffixes_in_odd_places_stay) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1U\",\"BackupSize\":12ULL}]}");
    EXPECT_FALSE(parser_.has_backup_key("1_1U"));
    EXPECT_LOGGED(LM_ERROR, "near byte");
    backups("{\"BackupDetails\":[{\"BackupKey\":\"a\\\":5UL\",\"BackupSize\":12UL}]}");
    EXPECT_TRUE(parser_.has_backup_key("a\":5"));
}

TEST_F(Roach_Meta_Parser_Test, of_two_entries_with_a_key_the_later_counts) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":1},"
            "{\"BackupKey\":\"1_1\",\"BackupSize\":2}]}");
    EXPECT_TRUE(parser_.parse("1_1", size_));
    EXPECT_EQ(2, size_);
}

TEST_F(Roach_Meta_Parser_Test, an_unknown_key_is_told_by_one_and_not_by_the_other) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":1}]}");
    EXPECT_FALSE(parser_.has_backup_key("1_2"));
    EXPECT_TRUE(parser_.parse("1_2", size_));
    EXPECT_EQ(-7, size_);
}

TEST_F(Roach_Meta_Parser_Test, no_entries_at_all_are_no) {
    backups("{\"BackupDetails\":[]}");
    EXPECT_FALSE(parser_.has_backup_key("1_1"));
    EXPECT_FALSE(parser_.parse("1_1", size_));
}

TEST_F(Roach_Meta_Parser_Test, an_entry_without_a_key_behind_the_match_ends_the_search) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":1},{\"BackupSize\":1}]}");
    EXPECT_FALSE(parser_.has_backup_key("1_1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse " + files_.path("backups.ini") + ", ");
    EXPECT_FALSE(parser_.parse("1_1", size_));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse " + files_.path("backups.ini") + ", ");
}

TEST_F(Roach_Meta_Parser_Test, an_entry_without_a_key_before_the_match_is_never_seen) {
    backups("{\"BackupDetails\":[{\"BackupSize\":1},{\"BackupKey\":\"1_1\",\"BackupSize\":1}]}");
    EXPECT_TRUE(parser_.has_backup_key("1_1"));
}

TEST_F(Roach_Meta_Parser_Test, a_text_as_the_size_is_a_fault_of_the_200_series) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":\"1 KB\"}]}");
    EXPECT_FALSE(parser_.parse("1_1", size_));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse ");
    EXPECT_EQ(-7, size_);
}

TEST_F(Roach_Meta_Parser_Test, other_series_have_sizes_with_a_unit) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":\"1.5 GB\"},"
            "{\"BackupKey\":\"1_2\",\"BackupSize\":5},"
            "{\"BackupKey\":\"1_3\",\"BackupSize\":\"5 stones\"}]}");
    Roach_Meta_Parser parser(files_.path(), GAUSSDB_DWS);
    EXPECT_TRUE(parser.parse("1_1", size_));
    EXPECT_EQ(1610612736, size_);
    EXPECT_FALSE(parser.parse("1_2", size_));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse ");
    EXPECT_FALSE(parser.parse("1_3", size_));
    EXPECT_LOGGED(LM_ERROR, "BackupSize(5 stones) is invalid.\n");
    EXPECT_EQ(1610612736, size_);
}

TEST_F(Roach_Meta_Parser_Test, the_100_series_has_a_file_of_its_own) {
    files_.write("chain/backupset_nbu.ini",
                 "{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":\"2 bytes\"}]}");
    Roach_Meta_Parser parser(files_.path(), GAUSSDB_100);
    EXPECT_FALSE(parser.has_backup_key("1_1"));
    parser.set(files_.path("chain"));
    EXPECT_TRUE(parser.has_backup_key("1_1"));
    EXPECT_TRUE(parser.parse("1_1", size_));
    EXPECT_EQ(2, size_);
}

TEST_F(Roach_Meta_Parser_Test, what_is_no_such_object_is_a_fault) {
    for (char const* text : {"[]", "5", "{}", "{\"BackupDetails\":5}", "{\"BackupDetails\":[5]}",
                             "{\"BackupDetails\":[{\"BackupKey\":5}]}"}) {
        backups(text);
        EXPECT_FALSE(parser_.has_backup_key("1_1")) << text;
        EXPECT_LOGGED(LM_ERROR, "Failed to parse ");
        EXPECT_FALSE(parser_.parse("1_1", size_)) << text;
        EXPECT_LOGGED(LM_ERROR, "Failed to parse ");
    }
}

TEST_F(Roach_Meta_Parser_Test, text_cut_at_every_byte_is_a_fault) {
    std::string const text = "{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":1024UL}]}";
    for (size_t length = 1; length < text.size(); ++length) {
        backups(text.substr(0, length));
        EXPECT_FALSE(parser_.has_backup_key("1_1")) << length;
        EXPECT_LOGGED(LM_ERROR, "");
    }
}

TEST_F(Roach_Meta_Parser_Test, a_line_of_100_mb_is_refused) {
    backups(std::string(100 << 20, ' '));
    EXPECT_FALSE(parser_.has_backup_key("1_1"));
    EXPECT_LOGGED(LM_ERROR, "backups.ini: it is too large\n");
}

TEST_F(Roach_Meta_Parser_Test, a_link_and_a_file_of_another_user_are_not_read) {
    std::string const text = "{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupSize\":1}]}";
    files_.write("elsewhere", text);
    ASSERT_EQ(0, chmod(files_.path().c_str(), 0777));
    ASSERT_EQ(0, symlink(files_.path("elsewhere").c_str(), files_.path("backups.ini").c_str()));
    EXPECT_FALSE(parser_.has_backup_key("1_1"));
    EXPECT_LOGGED(LM_ERROR, "backups.ini: it is, or is reached by, a symbolic link\n");
    ASSERT_EQ(0, unlink(files_.path("backups.ini").c_str()));
    ASSERT_EQ(0, link(files_.path("elsewhere").c_str(), files_.path("backups.ini").c_str()));
    EXPECT_TRUE(Roach_Meta_Parser(files_.path(), GAUSSDB_200, geteuid()).has_backup_key("1_1"));
    EXPECT_FALSE(
        Roach_Meta_Parser(files_.path(), GAUSSDB_200, geteuid() + 1).has_backup_key("1_1"));
    EXPECT_LOGGED(LM_ERROR, "backups.ini: it belongs to another user\n");
}

TEST_F(Roach_Meta_Parser_Test, of_duplicate_keys_in_an_entry_the_last_counts) {
    backups("{\"BackupDetails\":[{\"BackupKey\":\"1_1\",\"BackupKey\":\"1_2\","
            "\"BackupSize\":1,\"BackupSize\":2}]}");
    EXPECT_FALSE(parser_.has_backup_key("1_1"));
    EXPECT_TRUE(parser_.parse("1_2", size_));
    EXPECT_EQ(2, size_);
}

} // namespace
