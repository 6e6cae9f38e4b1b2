#include "agent/storage/pool_path.h"

#include <gtest/gtest.h>

namespace {

std::string path_of(std::string const& url) {
    std::string path, error;
    if (!pool_path_of_url(url, path, error)) {
        EXPECT_NE("", error);
        return "<" + error + ">";
    }
    return path;
}

TEST(Pool_Path, all_urls_of_a_directory_are_one_path) {
    for (char const* const url : {"file:///mnt/my%20pool", "file:///mnt/my pool/",
                                  "FILE://localhost//mnt///my%20pool", "file:///%6dnt/my pool"})
        EXPECT_EQ("/mnt/my pool", path_of(url)) << url;
}

TEST(Pool_Path, other_urls_are_refused) {
    for (char const* const url : {"", "/mnt/pool", "http:///mnt", "file://host/mnt", "file://",
                                  "file:///mnt/../etc", "file:///a%2Fb", "file:///a?b"})
        EXPECT_TRUE(path_of(url).starts_with("<")) << url;
}

TEST(Pool_Path, the_url_of_a_path_reads_back) {
    for (std::string const path : {"/mnt/pool", "/a b/%41/\xff/?#;\n"})
        EXPECT_EQ(path, path_of(url_of_pool_path(path)));
}

TEST(Pool_Path, a_path_is_within_a_directory_by_whole_names) {
    std::string rest;
    EXPECT_TRUE(path_within("/a/b", "/a/b/c/d", rest));
    EXPECT_EQ("c/d", rest);
    EXPECT_TRUE(path_within("/a/b", "/a/b", rest));
    EXPECT_EQ("", rest);
    EXPECT_TRUE(path_within("/", "/a", rest));
    EXPECT_EQ("a", rest);
    EXPECT_FALSE(path_within("/a/b", "/a/bc", rest));
    EXPECT_FALSE(path_within("/a/b", "/a", rest));
}

} // namespace
