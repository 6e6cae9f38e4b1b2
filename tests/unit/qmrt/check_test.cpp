#include "qmrt/check.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

TEST(Check, null_pointer_is_logged_with_its_name_place_and_stack) {
    int* const cluster_ = nullptr;
    EXPECT_TRUE(QMRT_IS_NULL(cluster_));
    EXPECT_TRUE(Log_Capture::instance().contains("check_test.cpp:"));
    EXPECT_LOGGED(LM_EMERGENCY, ", cluster_ is NULL:\n");
}

TEST(Check, a_pointer_that_is_there_is_silent) {
    int const number = 0;
    EXPECT_FALSE(QMRT_IS_NULL(&number));
    EXPECT_EQ("", Log_Capture::instance().dump());
}

TEST(Check, null_and_empty_text_are_one_fault) {
    char const* name = nullptr;
    EXPECT_TRUE(QMRT_IS_NULL_OR_EMPTY(name));
    EXPECT_LOGGED(LM_EMERGENCY, ", name is NULL or \"\":\n");
    name = "";
    EXPECT_TRUE(QMRT_IS_NULL_OR_EMPTY(name));
    EXPECT_LOGGED(LM_EMERGENCY, ", name is NULL or \"\":\n");
    name = "x";
    EXPECT_FALSE(QMRT_IS_NULL_OR_EMPTY(name));
}

TEST(Check, empty_string) {
    std::string const host_;
    EXPECT_TRUE(QMRT_IS_EMPTY(host_));
    EXPECT_LOGGED(LM_EMERGENCY, ", host_ is empty:\n");
}

TEST(Check, the_priority_can_be_given) {
    int* const client = nullptr;
    EXPECT_TRUE(QMRT_IS_NULL_AT(LM_ERROR, client));
    EXPECT_LOGGED(LM_ERROR, ", client is NULL:\n");
    char const* const uid = "";
    EXPECT_TRUE(QMRT_IS_NULL_OR_EMPTY_AT(LM_ERROR, uid));
    EXPECT_LOGGED(LM_ERROR, ", uid is NULL or \"\":\n");
}

TEST(Check, a_comparison_shows_the_value_and_not_the_constant_twice) {
    int const progress = 101;
    EXPECT_TRUE(QMRT_EXCEEDS(progress, 100));
    EXPECT_LOGGED(LM_EMERGENCY, ", progress(101) > 100:\n");
    int const negative = -1;
    EXPECT_TRUE(QMRT_IS_BELOW(negative, 0));
    EXPECT_LOGGED(LM_EMERGENCY, ", negative(-1) < 0:\n");
    EXPECT_FALSE(QMRT_EXCEEDS(negative, 100));
    EXPECT_FALSE(QMRT_IS_BELOW(progress, 0));
}

TEST(Check, an_operand_is_rendered_only_when_its_spelling_does_not_say_it) {
    EXPECT_EQ("(7)", to_string_for_qmrt_check_macro(7, "days"));
    EXPECT_EQ("", to_string_for_qmrt_check_macro(100, "100"));
    EXPECT_EQ("(100)", to_string_for_qmrt_check_macro(100, "LIMIT"));
}

TEST(Check, errno_survives_a_log_line) {
    errno = EXDEV;
    QMRT_LOG(LM_INFO, "%s\n", "line");
    EXPECT_EQ(EXDEV, errno);
}

} // namespace
