#include "host/http/uri.h"

#include <gtest/gtest.h>

using Segments = std::vector<std::string>;

namespace {

Segments segments_of(std::string const& path, bool decode = true) {
    URI uri;
    uri.path(path, true);
    Segments segments{"old"};
    uri.path_segments(segments, decode);
    return segments;
}

std::string fault(std::string const& url) {
    URI uri;
    uri.path("kept", true);
    std::string error;
    EXPECT_FALSE(uri.parse(url, &error)) << url;
    EXPECT_EQ("kept", uri.path());
    EXPECT_EQ("", uri.scheme());
    EXPECT_NE("", error) << url;
    EXPECT_FALSE(uri.parse(url, nullptr));
    return error;
}

TEST(URI_path, a_schema_entry_has_five_segments_and_begins_with_gaussdb) {
    EXPECT_EQ((Segments{"gaussdb", "inst", "schema", "db", "s"}),
              segments_of("gaussdb/inst/schema/db/s"));
}

TEST(URI_path, an_entry_with_nothing_else_in_it_has_one_segment) {
    EXPECT_EQ(Segments{"gaussdb"}, segments_of("gaussdb"));
}

TEST(URI_path, one_slash_at_the_beginning_makes_no_segment) {
    EXPECT_EQ((Segments{"gaussdb", "inst"}), segments_of("/gaussdb/inst"));
    EXPECT_EQ((Segments{"", "gaussdb"}), segments_of("//gaussdb"));
}

TEST(URI_path, an_empty_name_in_the_middle_or_at_the_end_keeps_its_place) {
    EXPECT_EQ((Segments{"gaussdb", "", "schema"}), segments_of("gaussdb//schema"));
    EXPECT_EQ((Segments{"gaussdb", "inst", ""}), segments_of("gaussdb/inst/"));
}

TEST(URI_path, nothing_has_no_segments) {
    URI uri;
    for (char const* path : {"", "/"}) {
        Segments segments{"old"};
        uri.path(path, true);
        EXPECT_FALSE(uri.path_segments(segments, true));
        EXPECT_TRUE(segments.empty());
    }
    uri.path("a", true);
    Segments segments;
    EXPECT_TRUE(uri.path_segments(segments, true));
}

TEST(URI_path, an_encoded_slash_belongs_to_the_name) {
    EXPECT_EQ((Segments{"gaussdb", "a/b", "c d"}), segments_of("gaussdb/a%2fb/c%20d"));
    EXPECT_EQ((Segments{"gaussdb", "a%2Fb"}), segments_of("gaussdb/a%2Fb", false));
}

TEST(URI_path, a_plus_is_a_plus) {
    EXPECT_EQ((Segments{"a+b"}), segments_of("a+b"));
}

TEST(URI_path, a_broken_escape_is_kept_as_text) {
    for (char const* text : {"100%", "%", "%4", "%zz", "%4g", "%%", "a%-1b"})
        EXPECT_EQ(Segments{text}, segments_of(text)) << text;
    EXPECT_EQ(Segments{"%A"}, segments_of("%%41"));
}

TEST(URI_path, an_encoded_nul_is_kept_as_text) {
    EXPECT_EQ((Segments{"gaussdb", "inst%00evil"}), segments_of("gaussdb/inst%00evil"));
}

TEST(URI_path, question_marks_and_number_signs_have_no_meaning) {
    EXPECT_EQ((Segments{"a?b", "c#d"}), segments_of("a?b/c#d"));
}

TEST(URI_path, a_dot_segment_is_a_name_like_any_other) {
    EXPECT_EQ((Segments{"gaussdb", "..", "."}), segments_of("gaussdb/../."));
}

TEST(URI_path, a_plain_path_is_encoded_and_comes_back_as_it_was) {
    URI uri;
    uri.path("gaussdb/100%2f/\xC3\xA4 b", false);
    EXPECT_EQ("gaussdb/100%252f/%c3%a4%20b", uri.path());
    Segments segments;
    uri.path_segments(segments, true);
    EXPECT_EQ((Segments{"gaussdb", "100%2f", "\xC3\xA4 b"}), segments);
    EXPECT_EQ("gaussdb/100%2f/\xC3\xA4 b", uri.decoded_path());
}

TEST(URI_path, segments_set_come_back_whatever_is_in_them) {
    for (Segments const& given :
         {Segments{"gaussdb", "a/b", "100%", "", "c d?#"}, Segments{"", "a"}, Segments{"a", ""},
          Segments{"..", "%2f"}, Segments{}}) {
        URI uri;
        uri.path_segments(given);
        Segments back{"old"};
        EXPECT_EQ(!given.empty(), uri.path_segments(back, true));
        EXPECT_EQ(given, back) << uri.path();
    }
}

TEST(URI_path, a_huge_path_is_taken_apart) {
    std::string path = "gaussdb";
    for (int count = 0; count < 100000; ++count)
        path += "/x";
    EXPECT_EQ(100001u, segments_of(path).size());
}

TEST(URI_url, a_file) {
    URI uri;
    ASSERT_TRUE(uri.parse("file:///srv/pool%201/a", nullptr));
    EXPECT_EQ("file", uri.scheme());
    EXPECT_EQ("", uri.host());
    EXPECT_EQ(0, uri.port());
    EXPECT_EQ("/srv/pool%201/a", uri.path());
    EXPECT_EQ("/srv/pool 1/a", uri.decoded_path());
    EXPECT_EQ("file:///srv/pool%201/a", uri.text());
}

TEST(URI_url, a_web_socket_with_all_parts) {
    URI uri;
    ASSERT_TRUE(uri.parse("WSS://server-1.example:60305/a/../b?q=1&r#f", nullptr));
    EXPECT_EQ("wss", uri.scheme());
    EXPECT_EQ("server-1.example", uri.host());
    EXPECT_EQ(60305, uri.port());
    EXPECT_EQ("/a/../b", uri.path());
    EXPECT_EQ("q=1&r", uri.query());
    EXPECT_EQ("f", uri.fragment());
    EXPECT_EQ("wss://server-1.example:60305/a/../b?q=1&r#f", uri.text());
    Segments segments;
    EXPECT_TRUE(uri.path_segments(segments, true));
    EXPECT_EQ((Segments{"a", "..", "b"}), segments);
}

TEST(URI_url, an_ipv6_address_loses_its_brackets_and_gets_them_back) {
    URI uri;
    ASSERT_TRUE(uri.parse("ws://[::1]:8080/x", nullptr));
    EXPECT_EQ("::1", uri.host());
    EXPECT_EQ(8080, uri.port());
    EXPECT_EQ("ws://[::1]:8080/x", uri.text());
}

TEST(URI_url, a_scheme_of_our_own_and_no_path) {
    URI uri;
    ASSERT_TRUE(uri.parse("pool://name", nullptr));
    EXPECT_EQ("pool", uri.scheme());
    EXPECT_EQ("name", uri.host());
    EXPECT_EQ("/", uri.path());
    EXPECT_EQ(0, uri.port());
}

TEST(URI_url, a_blank_in_the_path_is_kept) {
    URI uri;
    ASSERT_TRUE(uri.parse("file:///my pool/a", nullptr));
    EXPECT_EQ("/my pool/a", uri.decoded_path());
}

TEST(URI_url, credentials_are_refused) {
    EXPECT_NE(std::string::npos, fault("ws://user:secret@host/").find("redentials"));
    fault("ws://user@host/");
}

TEST(URI_url, what_is_no_url_is_refused) {
    for (char const* url :
         {"", "host/path", "/path", "://x", "http://", "http://h:65536/", "http://h:-1/",
          "file:a/b", "http://h:8x/", "http://a b/", "http://h\\x/", "http://h/\r\nX",
          "file://host/x", "mailto:x", "ws:///x", "pool:////x", "http://[::1/", "http://[g]/"})
        fault(url);
    EXPECT_EQ("NUL in URL", fault(std::string("ws://h/\0x", 9)));
}

TEST(URI_url, an_encoded_host_is_decoded_once_and_has_nothing_that_a_host_may_not_have) {
    // libcurl decodes a host
    for (char const* url : {"ws://a%2fb/", "ws://a%40b/", "ws://a%3A1/", "ws://a%25b/", "ws://a%/",
                            "ws://a%a%41b/", "ws://a%0d%0Ab/", "ws://a%20b/", "e:/mnc%a%41b"})
        fault(url);
    URI uri;
    ASSERT_TRUE(uri.parse("ws://%41-b/", nullptr));
    EXPECT_EQ("A-b", uri.host());
}

TEST(URI_url, segments_set_on_a_url_keep_the_path_absolute) {
    URI uri;
    ASSERT_TRUE(uri.parse("ws://host/old?q", nullptr));
    uri.path_segments({"a b", "c"});
    EXPECT_EQ("ws://host/a%20b/c?q", uri.text());
}

} // namespace
