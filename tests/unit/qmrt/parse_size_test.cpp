#include "qmrt/parse_size.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t MOST = std::numeric_limits<uint64_t>::max();

uint64_t size_of(char const* text) {
    return parse_size<unsigned long>(text);
}

TEST(Parse_Size, NumberWithoutUnitIsBytes) {
    EXPECT_EQ(0u, size_of("0"));
    EXPECT_EQ(123456u, size_of("123456"));
    EXPECT_EQ(7u, size_of("  7  "));
}

TEST(Parse_Size, UnitsArePowersOf1024InEitherCase) {
    uint64_t expected = 3;
    for (char const* const unit : {"K", "M", "G", "T", "P", "E"}) {
        expected *= 1024;
        EXPECT_EQ(expected, size_of((std::string("3") + unit).c_str())) << unit;
        EXPECT_EQ(expected, size_of((std::string("3 ") + static_cast<char>(*unit | 0x20)).c_str()));
        EXPECT_EQ(expected, size_of((std::string("3 ") + unit + "i").c_str())) << unit;
        EXPECT_EQ(expected, size_of((std::string("3 ") + unit + "B").c_str())) << unit;
        EXPECT_EQ(expected, size_of((std::string(" 3  ") + unit + "Ib ").c_str())) << unit;
    }
}

TEST(Parse_Size, FractionCountsInItsUnit) {
    EXPECT_EQ(1536u, size_of("1.5K"));
    EXPECT_EQ(1610612736u, size_of("1.5 GB"));
    EXPECT_EQ(12u, size_of("12.9")) << "part of a byte";
    EXPECT_EQ(2048u, size_of("2.K"));
}

TEST(Parse_Size, UnknownUnitLeavesTheNumber) {
    for (char const* const text :
         {"12 bytes", "12x", "12 B", "12 KX", "12 Kbi", "12 K 3", "12 kibs"})
        EXPECT_EQ(12u, size_of(text)) << text;
}

TEST(Parse_Size, TextThatIsNoNumberIsZero) {
    for (char const* const text : {"", " ", "K", "abc", "-5", "-5K", ".5K", "\t5"})
        EXPECT_EQ(0u, size_of(text)) << text;
}

TEST(Parse_Size, OverflowIsTheLargestValue) {
    EXPECT_EQ(MOST, size_of("18446744073709551615"));
    EXPECT_EQ(MOST, size_of("18446744073709551616"));
    EXPECT_EQ(MOST, size_of("16E"));
    EXPECT_EQ(15ull << 60, size_of("15E"));
    EXPECT_EQ(MOST, size_of("15.99999999999999999999999E"));
    EXPECT_EQ(MOST, size_of("99999999999999999999999999"));
    EXPECT_EQ(65535u, parse_size<unsigned short>("64K"));
    EXPECT_EQ(63u * 1024, parse_size<unsigned short>("63K"));
}

} // namespace
