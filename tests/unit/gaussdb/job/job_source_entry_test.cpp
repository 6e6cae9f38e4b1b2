#include "gaussdb/job/job_source_entry.h"

#include <gtest/gtest.h>

namespace {

using Segments = std::vector<std::string>;

TEST(Job_Source_Entry, is_divided_at_slashes_and_then_decoded) {
    EXPECT_EQ((Segments{"gaussdb", "a/b", "schema"}),
              job_source_entry_segments("gaussdb/a%2fb/schema"));
}

TEST(Job_Source_Entry, an_empty_name_does_not_move_the_names_behind_it) {
    EXPECT_EQ((Segments{"gaussdb", "", "x", ""}), job_source_entry_segments("gaussdb//x/"));
}

TEST(Job_Source_Entry, nothing_has_no_segments) {
    EXPECT_EQ(Segments(), job_source_entry_segments(""));
    EXPECT_EQ(Segments(), job_source_entry_segments("/"));
}

TEST(Job_Source_Entry, marks_of_a_url_have_no_meaning) {
    EXPECT_EQ((Segments{"gaussdb", "a?b#c:d@e"}), job_source_entry_segments("gaussdb/a?b#c:d@e"));
}

} // namespace
