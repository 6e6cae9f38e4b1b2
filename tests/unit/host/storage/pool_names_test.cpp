#include "host/storage/pool_names.h"

#include "tests/support/log_capture.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>

namespace {

TEST(pool_names, what_a_file_is_stored_as) {
    EXPECT_EQ("a", object_to_write("a", COMPR_NONE));
    EXPECT_EQ("a", object_to_write("a", COMPR_AUTO));
    EXPECT_EQ("a.zst", object_to_write("a", COMPR_ZSTD));
    EXPECT_EQ("a.lzo", object_to_write("a", COMPR_LZOP));
    EXPECT_EQ("a.zst.zst", object_to_write("a.zst", COMPR_NONE));
    EXPECT_EQ("a.lzo.zst", object_to_write("a.lzo", COMPR_NONE));
    EXPECT_EQ("a.zst.lzo", object_to_write("a.zst", COMPR_LZOP));
    EXPECT_EQ("f/.zst", object_to_write("f/.zst", COMPR_NONE));
}

TEST(pool_names, a_file_is_looked_for_where_it_may_have_been_stored_and_nowhere_else) {
    std::map<std::string, std::string> owners;
    for (std::string const path :
         {"a", "a.zst", "a.lzo", "a.zst.zst", "a.zst.lzo", "f/.zst", "b"}) {
        std::vector<std::string> const objects = objects_to_read(path);
        for (Compression_Method method : {COMPR_NONE, COMPR_AUTO, COMPR_ZSTD, COMPR_LZOP})
            EXPECT_EQ(1, std::count(objects.begin(), objects.end(), object_to_write(path, method)));
        for (std::string const& object : objects) {
            EXPECT_EQ(path, uncompressed_name(object));
            EXPECT_TRUE(owners.emplace(object, path).second) << object;
        }
    }
}

} // namespace
