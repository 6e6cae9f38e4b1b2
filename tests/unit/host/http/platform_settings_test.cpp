#include "host/http/platform_settings.h"

#include <gtest/gtest.h>

namespace {

TEST(Platform_Settings, are_strict_unless_set) {
    Platform_Settings const settings = Platform_Settings::get();
    EXPECT_TRUE(settings.verify);
    EXPECT_EQ("", settings.ca_file);
    EXPECT_EQ(std::chrono::seconds(60), settings.timeout);
}

TEST(Platform_Settings, are_the_process_s) {
    Platform_Settings::set({false, "/ca.pem", std::chrono::seconds(5)});
    EXPECT_FALSE(Platform_Settings::get().verify);
    EXPECT_EQ("/ca.pem", Platform_Settings::get().ca_file);
    EXPECT_EQ(std::chrono::seconds(5), Platform_Settings::get().timeout);
    Platform_Settings::set(Platform_Settings());
    EXPECT_TRUE(Platform_Settings::get().verify);
}

} // namespace
