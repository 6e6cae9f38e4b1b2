#include "host/job/shared_value.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <thread>

namespace {

enum Color : int { RED, GREEN };

TEST(Shared_Value, takes_the_place_of_a_plain_one) {
    static_assert(sizeof(Shared_Value<int>) == sizeof(int));
    static_assert(alignof(Shared_Value<uint64_t>) == alignof(uint64_t));
    static_assert(sizeof(Shared_Value<bool>) == sizeof(bool));
    static_assert(std::is_standard_layout_v<Shared_Value<Color>>);
}

TEST(Shared_Value, is_used_like_a_plain_one) {
    Shared_Value<uint64_t> size;
    EXPECT_EQ(0u, size);
    size = 5;
    size += 2;
    EXPECT_EQ(7u, size);
    Shared_Value<uint64_t> copy = size;
    size = 1;
    EXPECT_EQ(7u, copy);
    copy = size;
    EXPECT_EQ(1u, copy + 0);
    Shared_Value<Color> color = GREEN;
    EXPECT_TRUE(color == GREEN);
    EXPECT_TRUE(color != RED);
}

TEST(Shared_Value, two_threads_read_and_write_it_without_a_lock) {
    Shared_Value<int64_t> value;
    Shared_Value<Color> color = RED;
    auto const add = [&] {
        for (int count = 0; count < 1000; ++count)
            value += 1;
        color = GREEN;
    };
    std::thread first(add);
    std::thread second(add);
    while (color == RED)
        std::this_thread::yield();
    first.join();
    second.join();
    EXPECT_EQ(2000, value);
}

} // namespace
