#include "xbsa/library/xbsa_room.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t MIB = 1024 * 1024;

class Xbsa_Room_Test : public testing::Test {
protected:
    Pool_Info pool() const {
        Pool_Info info;
        info.name = "main";
        info.available = available_;
        return info;
    }

    std::optional<uint64_t> available_;
    int asked_ = 0;
    Xbsa_Result failure_;
    Xbsa_Room room_{[this](Pool_Info& info) {
        ++asked_;
        info = pool();
        return failure_;
    }};
};

TEST_F(Xbsa_Room_Test, a_pool_without_a_limit_is_asked_nothing) {
    room_.begin(pool());
    EXPECT_TRUE(room_.take(UINT64_MAX));
    EXPECT_EQ(0, asked_);
}

TEST_F(Xbsa_Room_Test, the_agent_is_asked_again_after_a_part_of_what_there_was) {
    available_ = 160 * MIB;
    room_.begin(pool());
    for (int part = 0; part < 10; ++part)
        EXPECT_TRUE(room_.take(MIB));
    EXPECT_EQ(0, asked_);
    available_ = 32 * MIB; // others write, too
    for (int part = 0; part < 2; ++part)
        EXPECT_TRUE(room_.take(MIB));
    EXPECT_EQ(1, asked_);
    EXPECT_TRUE(room_.take(1));
    EXPECT_EQ(2, asked_);
}

TEST_F(Xbsa_Room_Test, what_the_limit_does_not_leave_is_refused_and_the_pool_named) {
    available_ = 100;
    room_.begin(pool());
    EXPECT_TRUE(room_.take(100));
    available_ = 0;
    Storage_Result const result = room_.take(1);
    EXPECT_EQ(Storage_Result::NO_SPACE, result.code());
    EXPECT_EQ("pool 'main' has no room: its limit is used up but for 0 bytes", result.text());
    available_ = std::nullopt; // it was lifted
    EXPECT_TRUE(room_.take(UINT64_MAX));
}

TEST_F(Xbsa_Room_Test, a_piece_that_is_larger_than_a_part_is_taken_when_there_is_room) {
    available_ = 4 * MIB;
    room_.begin(pool());
    EXPECT_TRUE(room_.take(3 * MIB));
    EXPECT_EQ(1, asked_);
    EXPECT_FALSE(room_.take(5 * MIB));
}

TEST_F(Xbsa_Room_Test, an_agent_that_does_not_answer_ends_the_writing) {
    available_ = 1;
    room_.begin(pool());
    failure_ = {BSA_RC_ACCESS_FAILURE, "the agent has gone"};
    EXPECT_EQ("the agent has gone", room_.take(2).text());
}

} // namespace
