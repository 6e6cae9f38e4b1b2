#include "host/job/job_definition_type.h"

#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>

namespace {

TEST(Job_Definition_Type, the_values_are_those_that_are_kept_on_disk) {
    EXPECT_EQ(0, JOB_DEFINITION_NONE);
    EXPECT_EQ(1, JOB_DEFINITION_BACKUP);
    EXPECT_EQ(2, JOB_DEFINITION_RESTORE);
    EXPECT_EQ(3, JOB_DEFINITION_STANDBY);
    EXPECT_EQ(4, JOB_DEFINITION_STORAGE);
    EXPECT_EQ(1, JOB_DEFINITION_SUBTYPE_FULL);
    EXPECT_EQ(2, JOB_DEFINITION_SUBTYPE_INCREMENTAL);
}

TEST(Job_Definition_Type, the_catalog_has_fixed_words_for_the_levels) {
    EXPECT_STREQ("full", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_FULL, nullptr));
    EXPECT_STREQ("incremental",
                 job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_INCREMENTAL, nullptr));
    EXPECT_STREQ("cumulative",
                 job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_CUMULATIVE, nullptr));
    EXPECT_STREQ("log", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_LOG, nullptr));
    EXPECT_STREQ("table", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_TABLE, nullptr));
    EXPECT_STREQ("import", job_def_subtype_to_string(JOB_DEFINITION_SUBTYPE_IMPORT, nullptr));
}

TEST(Job_Definition_Type, each_of_34_has_a_word_of_its_own_and_its_length) {
    std::set<std::string> words;
    for (int value = JOB_DEFINITION_SUBTYPE_NONE; value <= JOB_DEFINITION_SUBTYPE_IMPORT; ++value) {
        int length = -1;
        std::string const word =
            job_def_subtype_to_string(static_cast<Job_Definition_Subtype>(value), &length);
        EXPECT_EQ(static_cast<int>(word.size()), length);
        EXPECT_EQ(std::string::npos, word.find_first_not_of("abcdefghijklmnopqrstuvwxyz_")) << word;
        EXPECT_NE("", word);
        words.insert(word);
    }
    EXPECT_EQ(34u, words.size());
}

TEST(Job_Definition_Type, a_number_that_is_no_subtype_has_an_empty_word) {
    for (int value : {-1, 34, 1 << 30}) {
        int length = -1;
        EXPECT_STREQ(
            "", job_def_subtype_to_string(static_cast<Job_Definition_Subtype>(value), &length));
        EXPECT_EQ(0, length);
    }
}

} // namespace
