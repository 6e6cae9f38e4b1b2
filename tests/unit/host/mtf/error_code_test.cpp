#include "host/mtf/error_code.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

using namespace MTF;

namespace {

TEST(MTF_Error_Code, TheNumbersAreKept) {
    EXPECT_EQ(-1, E_FAILED);
    EXPECT_EQ(0, E_OK);
    EXPECT_EQ(1, E_SKIP);
    EXPECT_EQ(2, E_CORRUPT);
    EXPECT_EQ(3, E_NOT_FOUND);
    EXPECT_EQ(4, E_UNKNOWN_NT_STREAM);
    EXPECT_EQ(5, E_MKDIR);
    EXPECT_EQ(6, E_UPLOAD_MTF_FILE_ERROR);
    EXPECT_EQ(7, E_DOWNLOAD_CAT_ERROR);
    EXPECT_EQ(8, E_GET_SOURCE_DATA);
    EXPECT_EQ(9, E_WRITE_TO_STORAGE);
    EXPECT_EQ(10, E_ADD_TO_CATALOG);
    EXPECT_EQ(11, E_OPEN_MEDIA);
    EXPECT_EQ(12, E_GET_POOL_INFO);
    EXPECT_EQ(13, E_NO_FILES_BACKUPED);
    EXPECT_EQ(14, E_END_WITH_SKIPPED_FILES);
    EXPECT_EQ(15, E_NO_FILES_RESTORED);
}

TEST(MTF_Error_Code, EachCodeHasWordsOfItsOwn) {
    std::set<std::string> texts;
    for (int code = E_FAILED; code <= E_NO_FILES_RESTORED; ++code)
        texts.insert(error_text(static_cast<Error_Code>(code)));
    EXPECT_EQ(17u, texts.size());
    EXPECT_EQ(0u, texts.count("unknown error"));
}

TEST(MTF_Error_Code, ANumberThatIsNoCodeHasWordsToo) {
    EXPECT_STREQ("unknown error", error_text(static_cast<Error_Code>(-2)));
}

} // namespace
