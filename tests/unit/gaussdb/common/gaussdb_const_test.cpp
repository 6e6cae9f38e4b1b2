#include "gaussdb/common/gaussdb_const.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

GaussDB_Version const UNKNOWN(GAUSSDB_UNKNOWN, 0, 0, 0);

TEST(GaussDB_Version, the_persisted_numbers_of_the_flavours_stay) {
    EXPECT_EQ(0, GAUSSDB_UNKNOWN);
    EXPECT_EQ(1, GAUSSDB_100);
    EXPECT_EQ(2, GAUSSDB_200);
    EXPECT_EQ(3, GAUSSDB_T);
    EXPECT_EQ(4, GAUSSDB_DWS);
    EXPECT_EQ(5, GAUSSDB_FOR_OPENGAUSS);
    EXPECT_EQ(6, GAUSSDB_TPOPS);
}

TEST(GaussDB_Version, constants) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_200, 8, 1, 1), GAUSSDB_A_811);
    EXPECT_EQ(GaussDB_Version(GAUSSDB_DWS, 8, 2, 1), GAUSSDB_DWS_821);
    EXPECT_EQ(503, GAUSSDB_MAJOR_503);
    EXPECT_EQ(8, GAUSSDB_NON_INTRUSIVE_MINIMUM_VER);
}

TEST(GaussDB_Version, parse_reads_the_numbers_and_leaves_the_flavour) {
    GaussDB_Version version(GAUSSDB_DWS, 1, 2, 3);
    EXPECT_TRUE(version.parse("8.1.1"));
    EXPECT_EQ(GaussDB_Version(GAUSSDB_DWS, 8, 1, 1), version);
}

TEST(GaussDB_Version, parse_refuses_all_else_and_changes_nothing) {
    for (std::string const text :
         {"8.1", "8.1.1.2", "V8.1.1", "8.1.1 ", " 8.1.1", "8.1.x", "", ".", "8..1", "-8.1.1"}) {
        GaussDB_Version version(GAUSSDB_200, 1, 2, 3);
        EXPECT_FALSE(version.parse(text)) << text;
        EXPECT_EQ(GaussDB_Version(GAUSSDB_200, 1, 2, 3), version) << text;
        EXPECT_LOGGED(LM_ERROR, "Failed to parse GaussDB version " + text + "\n");
    }
}

TEST(GaussDB_Version, parse_of_a_number_beyond_32_bits_gives_the_largest) {
    GaussDB_Version version = UNKNOWN;
    EXPECT_TRUE(version.parse("4294967296.1.18446744073709551616"));
    EXPECT_EQ(GaussDB_Version(GAUSSDB_UNKNOWN, UINT32_MAX, 1, UINT32_MAX), version);
}

TEST(GaussDB_Version, order_is_blind_to_the_flavour) {
    EXPECT_TRUE(GaussDB_Version(GAUSSDB_DWS, 8, 2, 1) >= GAUSSDB_A_811);
    EXPECT_TRUE(GaussDB_Version(GAUSSDB_DWS, 8, 1, 1) >= GAUSSDB_A_811);
    EXPECT_FALSE(GaussDB_Version(GAUSSDB_DWS, 8, 1, 1) < GAUSSDB_A_811);
    EXPECT_FALSE(GaussDB_Version(GAUSSDB_200, 8, 1, 1) == GaussDB_Version(GAUSSDB_DWS, 8, 1, 1));
}

TEST(GaussDB_Version, order_is_by_major_then_minor_then_patch) {
    GaussDB_Version const base(GAUSSDB_200, 8, 1, 1);
    EXPECT_TRUE(GaussDB_Version(GAUSSDB_200, 7, 9, 9) < base);
    EXPECT_TRUE(GaussDB_Version(GAUSSDB_200, 8, 0, 9) < base);
    EXPECT_TRUE(GaussDB_Version(GAUSSDB_200, 8, 1, 0) < base);
    EXPECT_TRUE(GaussDB_Version(GAUSSDB_200, 8, 1, 2) > base);
    EXPECT_TRUE(base <= base);
    EXPECT_TRUE(base >= base);
    EXPECT_FALSE(base < base);
    EXPECT_FALSE(base > base);
    EXPECT_FALSE(GaussDB_Version(GAUSSDB_200, 8, 1, 1) == GaussDB_Version(GAUSSDB_200, 8, 1, 2));
    EXPECT_FALSE(GaussDB_Version(GAUSSDB_200, 8, 1, 1) == GaussDB_Version(GAUSSDB_200, 8, 2, 1));
    EXPECT_FALSE(GaussDB_Version(GAUSSDB_200, 8, 1, 1) == GaussDB_Version(GAUSSDB_200, 9, 1, 1));
}

TEST(GaussDB_Version, dump_leaves_the_flavour_out) {
    EXPECT_EQ("8.2.1", GAUSSDB_DWS_821.dump());
    EXPECT_EQ("0.0.0", UNKNOWN.dump());
}

} // namespace
