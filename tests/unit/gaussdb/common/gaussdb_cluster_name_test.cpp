#include "gaussdb/common/gaussdb_cluster_name.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

TEST(Cluster_Name_Test, what_stays_in_a_directory_is_a_name) {
    for (char const* name :
         {"FI-MPPDB", "v8.1.1", "...", "..a", ".hidden", "zengine_1611", "\xe4\xb8\xad"})
        EXPECT_TRUE(is_cluster_file_name(name)) << name;
}

TEST(Cluster_Name_Test, what_leaves_a_directory_is_refused) {
    for (char const* name : {"", ".", "..", "/", "/etc/passwd", "../x", "a/b", "a/", "a/../../x"}) {
        EXPECT_FALSE(is_cluster_file_name(name)) << name;
        EXPECT_LOGGED(LM_ERROR, "'" + std::string(name) + "' cannot be a cluster's name");
    }
}

TEST(Cluster_Name_Test, what_a_command_line_would_take_for_something_else_is_refused) {
    for (char const* name : {"it's", "\"q\"", "a b", "a ", "a\\b", "-x", "$(id)"}) {
        EXPECT_FALSE(is_cluster_file_name(name)) << name;
        EXPECT_LOGGED(LM_ERROR, "'" + std::string(name) + "' cannot be a cluster's name");
    }
}

TEST(Cluster_Name_Test, control_characters_are_refused_and_do_not_reach_the_log) {
    for (std::string const& name : {std::string("a\nb"), std::string("a\0b", 3),
                                    std::string("a\x1b"
                                                "b"),
                                    std::string("a\x7f"
                                                "b")}) {
        EXPECT_FALSE(is_cluster_file_name(name));
        EXPECT_LOGGED(LM_ERROR, "'a?b' cannot be a cluster's name");
    }
}

TEST(Cluster_Name_Test, there_is_room_for_an_ending) {
    EXPECT_TRUE(is_cluster_file_name(std::string(239, 'x')));
    EXPECT_FALSE(is_cluster_file_name(std::string(240, 'x')));
    EXPECT_LOGGED(LM_ERROR, "cannot be a cluster's name");
    EXPECT_FALSE(is_cluster_file_name(std::string(1 << 20, 'x')));
    EXPECT_LOGGED(LM_ERROR, "cannot be a cluster's name");
}

} // namespace
