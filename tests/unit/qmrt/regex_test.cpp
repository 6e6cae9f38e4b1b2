#include "qmrt/regex.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

TEST(regex, groups_point_into_the_text) {
    std::string_view const text = "port=5432";
    qmrt::svmatch groups;
    EXPECT_TRUE(qmrt::regex_search(text, groups, boost::regex("=(\\d+)")));
    EXPECT_EQ("5432", groups[1].str());
    EXPECT_FALSE(qmrt::regex_match(text, boost::regex("=(\\d+)")));
}

TEST(regex, a_text_that_costs_too_much_is_no_match) {
    EXPECT_FALSE(qmrt::regex_match(std::string(5000, 'a'), boost::regex("(a*)*(a*)*b")));
    EXPECT_LOGGED(LM_WARNING, "Failed to match a line, it is passed over");
}

} // namespace
