#include "host/storage/storage_url.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

TEST(storage_url, is_taken_to_pieces) {
    struct {
        char const* text;
        char const* scheme;
        char const* authority;
        char const* path;
    } const cases[] = {
        {"file:///mnt/pool", "file", "", "/mnt/pool"},
        {"FILE:///a", "file", "", "/a"},
        {"dedup://host:50306/pool/x", "dedup", "host:50306", "/pool/x"},
        {"s3+tls://h", "s3+tls", "h", ""},
        {"file:///", "file", "", "/"},
        {"file:////a//b/", "file", "", "/a/b"},
        {"file:///a%20b/%C3%a4", "file", "", "/a b/\xC3\xA4"},
        {"file:///..a/b..", "file", "", "/..a/b.."},
    };
    for (auto const& one : cases) {
        Storage_Url url;
        std::string error;
        ASSERT_TRUE(parse_storage_url(one.text, url, error)) << one.text << error;
        EXPECT_EQ(one.scheme, url.scheme);
        EXPECT_EQ(one.authority, url.authority);
        EXPECT_EQ(one.path, url.path);
    }
}

TEST(storage_url, other_texts_are_refused_and_change_nothing) {
    for (char const* text :
         {"", "/a/b", "file:/a", "://a", "1file:///a", "fi le:///a", "file:///a?b", "file:///a#b",
          "file:///a/../b", "file:///a/./b", "file:///%2e%2E", "file:///a%2Fb", "file:///a%00b",
          "file:///a%", "file:///a%4", "file:///a%4x", "file:///%zz"}) {
        Storage_Url url{"s", "a", "p"};
        std::string error;
        EXPECT_FALSE(parse_storage_url(text, url, error)) << text;
        EXPECT_NE("", error) << text;
        EXPECT_EQ("s", url.scheme);
        EXPECT_EQ("a", url.authority);
        EXPECT_EQ("p", url.path);
    }
}

TEST(storage_url, a_nul_is_refused) {
    Storage_Url url;
    std::string error;
    EXPECT_FALSE(parse_storage_url(std::string("file:///a\0b", 11), url, error));
}

TEST(storage_url, an_encoded_path_is_decoded_as_it_was) {
    std::string bytes;
    for (int c = 1; c < 256; ++c)
        bytes += static_cast<char>(c);
    std::string path = "x" + bytes, decoded, error;
    ASSERT_TRUE(decode_url_path(encode_url_path(path), decoded, error)) << error;
    EXPECT_EQ(path, decoded);
    EXPECT_EQ("a%20b/%25%3F%23", encode_url_path("a b/%?#"));
}

TEST(storage_url, urls_of_deduplicating_stores) {
    for (char const* url : {"dedup://x", "dedups://x", "ws://x", "wss://x"})
        EXPECT_TRUE(is_dedup_url(url)) << url;
    for (char const* url : {"file:///x", "DEDUP://x", "dedup:/x", "xws://x", "", "dedup"})
        EXPECT_FALSE(is_dedup_url(url)) << url;
}

} // namespace
