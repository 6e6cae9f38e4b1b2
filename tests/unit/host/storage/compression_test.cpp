#include "host/storage/compression.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(compression, numbers_are_those_on_record) {
    EXPECT_EQ(0, COMPR_NONE);
    EXPECT_EQ(1, COMPR_AUTO);
    EXPECT_EQ(2, COMPR_LZOP);
    EXPECT_EQ(3, COMPR_ZSTD);
}

TEST(compression, every_name_reads_back_to_its_method) {
    for (Compression_Method method : {COMPR_AUTO, COMPR_LZOP, COMPR_ZSTD}) {
        char const* const name = compression_value_to_name(method);
        ASSERT_NE(nullptr, name);
        EXPECT_EQ(method, compression_name_to_value(name, -1));
    }
    EXPECT_STREQ("zstd", compression_value_to_name(COMPR_ZSTD));
    EXPECT_STREQ("lzop", compression_value_to_name(COMPR_LZOP));
    EXPECT_STREQ("auto", compression_value_to_name(COMPR_AUTO));
}

TEST(compression, no_compression_has_no_name) {
    EXPECT_EQ(nullptr, compression_value_to_name(COMPR_NONE));
    EXPECT_EQ(nullptr, compression_value_to_name(static_cast<Compression_Method>(4)));
    EXPECT_EQ(nullptr, compression_value_to_name(static_cast<Compression_Method>(-1)));
}

TEST(compression, unknown_text_is_no_compression) {
    for (char const* text : {"", "none", "gzip", "ZSTD", "zstd ", "zst", "lzo", "0"})
        EXPECT_EQ(COMPR_NONE, compression_name_to_value(text, -1)) << text;
    EXPECT_EQ(COMPR_NONE, compression_name_to_value(nullptr, -1));
    EXPECT_EQ(COMPR_NONE, compression_name_to_value(nullptr, 0));
}

TEST(compression, a_given_length_ends_the_text) {
    EXPECT_EQ(COMPR_ZSTD, compression_name_to_value("zstd\",\"channels\":4", 4));
    EXPECT_EQ(COMPR_NONE, compression_name_to_value("zstd", 3));
    EXPECT_EQ(COMPR_NONE, compression_name_to_value("zstd", 0));
    EXPECT_EQ(COMPR_NONE, compression_name_to_value("zstd\0x", 6));
}

TEST(compression, suffixes) {
    EXPECT_STREQ(".zst", compression_value_to_suffix(COMPR_ZSTD));
    EXPECT_STREQ(".lzo", compression_value_to_suffix(COMPR_LZOP));
    EXPECT_STREQ("", compression_value_to_suffix(COMPR_NONE));
    EXPECT_STREQ("", compression_value_to_suffix(COMPR_AUTO));
    EXPECT_STREQ("", compression_value_to_suffix(static_cast<Compression_Method>(99)));
}

TEST(compression, methods_within_archives) {
    EXPECT_EQ(MTF::COMPRESSION_NONE, compression_to_mtf(COMPR_NONE));
    EXPECT_EQ(MTF::COMPRESSION_NONE, compression_to_mtf(COMPR_AUTO));
    EXPECT_EQ(MTF::COMPRESSION_LZOP, compression_to_mtf(COMPR_LZOP));
    EXPECT_EQ(MTF::COMPRESSION_ZSTD, compression_to_mtf(COMPR_ZSTD));
    EXPECT_EQ(MTF::COMPRESSION_NONE, compression_to_mtf(static_cast<Compression_Method>(4)));
}

TEST(compression, a_name_tells_its_method_by_its_suffix) {
    EXPECT_EQ(COMPR_ZSTD, compression_of_name("backups.ini.zst"));
    EXPECT_EQ(COMPR_LZOP, compression_of_name("a/b.lzo"));
    for (char const* name : {"backups.ini", "", ".zst", "a/.zst", "zst", "a.zst/b", "a.ZST"})
        EXPECT_EQ(COMPR_NONE, compression_of_name(name)) << name;
}

TEST(compression, uncompressed_name_drops_one_suffix) {
    EXPECT_EQ("x", uncompressed_name("x.zst"));
    EXPECT_EQ("d/x", uncompressed_name("d/x.lzo"));
    EXPECT_EQ("x.zst", uncompressed_name("x.zst.zst"));
    for (char const* name : {"", "x", "x.gz", ".zst", "d/.lzo"})
        EXPECT_EQ(name, uncompressed_name(name));
}

} // namespace
