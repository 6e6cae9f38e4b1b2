#include "host/agent/instance.h"

#include <gtest/gtest.h>

namespace {

TEST(Instance, get_option_reads_what_is_there_and_fits) {
    Instance instance;
    instance.options = {{"user", "omm"}, {"version", 4}};
    std::string user;
    int version = 0;
    EXPECT_TRUE(instance.get_option("user", user));
    EXPECT_TRUE(instance.get_option("version", version));
    EXPECT_EQ("omm", user);
    EXPECT_EQ(4, version);
}

TEST(Instance, get_option_leaves_the_value_alone_otherwise) {
    Instance instance;
    instance.options = {{"user", 5}, {"version", "four"}, {"port", 65536}};
    std::string user = "before";
    int version = 7;
    uint16_t port = 1;
    EXPECT_FALSE(instance.get_option("user", user));
    EXPECT_FALSE(instance.get_option("version", version));
    EXPECT_FALSE(instance.get_option("port", port));
    EXPECT_FALSE(instance.get_option("absent", user));
    EXPECT_EQ("before", user);
    EXPECT_EQ(7, version);
    EXPECT_EQ(1, port);
}

} // namespace
