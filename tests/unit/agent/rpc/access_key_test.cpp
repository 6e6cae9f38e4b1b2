#include "agent/rpc/access_key.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

TEST(Access_Key, only_the_whole_key_opens) {
    Access_Key const key(secure_string(std::string_view("s3cret")));
    EXPECT_TRUE(key.opens("Bearer s3cret"));
    EXPECT_TRUE(key.opens("bearer s3cret"));
    for (char const* wrong : {"", "Bearer", "Bearer ", "Bearer s3cre", "Bearer s3crets",
                              "Bearer  s3cret", "Bearer S3cret", "Basic s3cret", "s3cret"})
        EXPECT_FALSE(key.opens(wrong)) << wrong;
    EXPECT_FALSE(key.opens(std::string("Bearer s3cret\0", 14)));
}

TEST(Access_Key, an_empty_key_opens_nothing) {
    Access_Key const key{secure_string()};
    EXPECT_FALSE(key.opens("Bearer "));
    EXPECT_FALSE(key.opens("Bearer x"));
}

TEST(Denials, the_delay_grows_for_each_address_of_its_own) {
    Denials denials{Rpc_Limits()};
    Denials::Time const now{1000h};
    EXPECT_EQ(1s, denials.deny("a", now));
    EXPECT_EQ(2s, denials.deny("a", now + 1s));
    EXPECT_EQ(1s, denials.deny("b", now + 1s));
    EXPECT_EQ(4s, denials.deny("a", now + 1s));
    EXPECT_EQ(8s, denials.deny("a", now + 1s));
    EXPECT_EQ(8s, denials.deny("a", now + 10min)) << "and no longer than that";
    EXPECT_EQ(1s, denials.deny("a", now + 21min)) << "time has passed";
}

TEST(Denials, a_flood_of_addresses_is_bounded_and_forgets_the_oldest) {
    Denials denials{Rpc_Limits()};
    Denials::Time const now{1000h};
    denials.deny("first", now);
    for (size_t i = 1; i <= Denials::MOST; ++i)
        denials.deny(std::to_string(i), now + 1ms * static_cast<int>(i));
    EXPECT_EQ(2s, denials.deny(std::to_string(Denials::MOST), now + 1min));
    EXPECT_EQ(1s, denials.deny("first", now + 1min));
}
