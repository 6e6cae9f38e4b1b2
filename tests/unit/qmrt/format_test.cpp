#include "qmrt/format.h"

#include <gtest/gtest.h>

namespace {

TEST(string_sprintf, formats_text_of_any_length) {
    EXPECT_EQ("a-1", string_sprintf("%s-%d", "a", 1));
    EXPECT_EQ("", string_sprintf("%s", ""));
    std::string const longer(100000, 'x');
    EXPECT_EQ(longer + "!", string_sprintf("%s!", longer.c_str()));
}

TEST(snprintf_t, holds_what_fits) {
    snprintf_t<8> const text("%s_%d", "abc", 42);
    EXPECT_STREQ("abc_42", text);
    EXPECT_EQ(6u, text.length());
    EXPECT_FALSE(text.truncated());
}

TEST(snprintf_t, says_when_it_cut) {
    snprintf_t<4> const exact("%s", "abc");
    EXPECT_STREQ("abc", exact);
    EXPECT_FALSE(exact.truncated());
    snprintf_t<4> const cut("%s", "abcd");
    EXPECT_STREQ("abc", cut);
    EXPECT_EQ(3u, cut.length());
    EXPECT_TRUE(cut.truncated());
}

} // namespace
