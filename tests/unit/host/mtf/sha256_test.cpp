#include "host/mtf/sha256.h"

#include <gtest/gtest.h>

using MTF::Sha256;

namespace {

// test vectors of FIPS 180-4
constexpr char EMPTY[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char ABC[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(MTF_Sha256, GivesThePublishedDigests) {
    Sha256 sha256;
    EXPECT_EQ(EMPTY, sha256.finish());
    sha256.update("abc", 3);
    EXPECT_EQ(ABC, sha256.finish());
}

TEST(MTF_Sha256, PiecesMakeTheWhole) {
    Sha256 sha256;
    sha256.update("a", 1);
    sha256.update("", 0);
    sha256.update("bc", 2);
    EXPECT_EQ(ABC, sha256.finish());
}

TEST(MTF_Sha256, BeginsAnewAfterTheEnd) {
    Sha256 sha256;
    sha256.update("abc", 3);
    sha256.finish();
    EXPECT_EQ(EMPTY, sha256.finish());
}

TEST(MTF_Sha256, ZerosAreTheBytesOfAHole) {
    for (size_t const size : {0u, 1u, 65535u, 65536u, 65537u, 200000u}) {
        Sha256 hole;
        Sha256 bytes;
        hole.update_zeros(size);
        bytes.update(std::string(size, '\0').data(), size);
        EXPECT_EQ(bytes.finish(), hole.finish()) << size;
    }
}

} // namespace
