#include "qmrt/uuid.h"

#include "qmrt/regex.h"

#include <gtest/gtest.h>

namespace {

TEST(uuid, a_new_one_is_lower_case_text_and_differs_from_the_last) {
    std::string const uuid = uuid_string();
    EXPECT_TRUE(qmrt::regex_match(uuid, boost::regex("[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}")));
    EXPECT_NE(uuid, uuid_string());
}

TEST(uuid, text_to_binary_and_back) {
    uuid_binary binary;
    ASSERT_TRUE(uuid_string_to_binary("01234567-89AB-cdef-0123-456789abcdef", binary));
    EXPECT_EQ(0x01, binary[0]);
    EXPECT_EQ(0xef, binary[15]);
    EXPECT_EQ("01234567-89ab-cdef-0123-456789abcdef", uuid_binary_to_string(binary));
}

TEST(uuid, any_other_text_is_refused_and_leaves_zeros) {
    for (std::string const& text :
         {std::string(), std::string("x"), std::string("01234567-89ab-cdef-0123-456789abcde"),
          std::string("01234567-89ab-cdef-0123-456789abcdef0"),
          std::string("01234567-89ab-cdef-0123-456789abcdeg"),
          std::string("01234567-89ab-cdef-0123-456789abcdef\0x", 38)}) {
        uuid_binary binary = {1, 2, 3};
        EXPECT_FALSE(uuid_string_to_binary(text, binary)) << text;
        EXPECT_EQ("00000000-0000-0000-0000-000000000000", uuid_binary_to_string(binary));
    }
}

} // namespace
