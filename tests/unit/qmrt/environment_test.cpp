#include "qmrt/environment.h"

#include "tests/support/scoped_env.h"

#include <gtest/gtest.h>

namespace {

TEST(environment, a_variable_is_read) {
    Scoped_Env const set("ZENBRAK3_TEST", "x");
    std::string value;
    EXPECT_TRUE(get_env_r("ZENBRAK3_TEST", value));
    EXPECT_EQ("x", value);
}

TEST(environment, an_empty_variable_is_set) {
    Scoped_Env const set("ZENBRAK3_TEST", "");
    std::string value = "old";
    EXPECT_TRUE(get_env_r("ZENBRAK3_TEST", value));
    EXPECT_EQ("", value);
}

TEST(environment, an_absent_variable_empties_the_value) {
    Scoped_Env const unset("ZENBRAK3_TEST", nullptr);
    std::string value = "old";
    EXPECT_FALSE(get_env_r("ZENBRAK3_TEST", value));
    EXPECT_EQ("", value);
}

TEST(environment, the_original_library_path_does_not_follow_setenv) {
    std::string const original = original_lib_path();
    Scoped_Env const set("LD_LIBRARY_PATH", "/elsewhere");
    EXPECT_EQ(original, original_lib_path());
}

} // namespace
