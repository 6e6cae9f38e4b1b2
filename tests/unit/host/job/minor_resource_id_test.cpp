#include "host/job/minor_resource_id.h"

#include <gtest/gtest.h>

namespace {

std::string id_of(std::string const& resource, std::string const& text) {
    std::string result;
    EXPECT_TRUE(compute_minor_resource_id(resource, text, result));
    return result;
}

TEST(Minor_Resource_Id, stays_the_same_for_ever) {
    // a changed value would cut pools off from what is in them
    EXPECT_EQ("cf359e24-5f9e-507b-9483-3a3945da30b9",
              id_of("00112233-4455-6677-8899-aabbccddeeff", "gaussdb physical backup"));
}

TEST(Minor_Resource_Id, is_a_name_based_uuid) {
    std::string const id = id_of("resource", "text");
    ASSERT_EQ(36u, id.size());
    EXPECT_EQ('5', id[14]);
    EXPECT_NE(std::string::npos, std::string("89ab").find(id[19]));
}

TEST(Minor_Resource_Id, depends_on_both) {
    EXPECT_EQ(id_of("a", "b"), id_of("a", "b"));
    EXPECT_NE(id_of("a", "b"), id_of("a", "c"));
    EXPECT_NE(id_of("a", "b"), id_of("b", "b"));
    EXPECT_NE(id_of("ab", "c"), id_of("a", "bc"));
    EXPECT_NE(id_of("a", ""), id_of("a", "b"));
}

TEST(Minor_Resource_Id, there_is_none_without_a_resource) {
    std::string result = "before";
    EXPECT_FALSE(compute_minor_resource_id("", "text", result));
    EXPECT_EQ("before", result);
}

} // namespace
