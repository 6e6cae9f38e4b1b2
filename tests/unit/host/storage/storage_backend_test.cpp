#include "host/storage/storage_backend.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

TEST(storage_backend, names_within_the_rules_are_taken) {
    std::string long_name(255, 'x');
    while (long_name.size() + 256 <= 4000)
        long_name += "/" + std::string(255, 'x');
    for (std::string const& name : {std::string("a"), std::string("a/b.c"), std::string("..a"),
                                    std::string("a b \xe4\xb8\xad"), std::string("a.zenbrak3-"),
                                    std::string(".zenbrak3"), long_name})
        EXPECT_TRUE(check_object_name(name)) << name;
}

TEST(storage_backend, a_name_that_is_refused_is_shown_in_one_short_line) {
    std::string const name = "../\n" + std::string(5000, 'x');
    Storage_Result const result = check_object_name(name);
    EXPECT_EQ(Storage_Result::BAD_NAME, result.code());
    EXPECT_LT(result.text().size(), 300u);
    EXPECT_EQ(std::string::npos, result.text().find('\n'));
    EXPECT_NE(std::string::npos, result.text().find("longer than"));
}

TEST(storage_backend, each_refusal_says_why) {
    struct {
        std::string name;
        char const* why;
    } const cases[] = {
        {"", "it is empty"},
        {"a\nb", "it has a newline"},
        {"a\xff", "it is not valid UTF-8"},
        {"/a", "it is absolute"},
        {std::string(4001, 'a'), "it is longer than 4000 bytes"},
        {std::string("a\0", 2), "NUL"},
        {"a//b", "empty part"},
        {"a/..", "it has '..' in it"},
        {"a/" + std::string(256, 'b'), "it has a part that is too long"},
        {"a/.zenbrak3-b/c", "reserved"},
    };
    for (auto const& one : cases)
        EXPECT_NE(std::string::npos, check_object_name(one.name).text().find(one.why)) << one.why;
}

TEST(storage_backend, parts_of_a_name) {
    EXPECT_EQ(std::vector<std::string>({"a"}), split_object_name("a"));
    EXPECT_EQ(std::vector<std::string>({"a", "b", "c"}), split_object_name("a/b/c"));
    EXPECT_EQ(std::vector<std::string>({"", "a", ""}), split_object_name("/a/"));
}

TEST(storage_backend, options_of_an_access) {
    Storage_Access access;
    EXPECT_EQ("", access.pool_url());
    EXPECT_FALSE(access.d2t());
    access.extra_options["pool_url"] = "file:///p";
    access.extra_options["access_mode"] = "other";
    EXPECT_EQ("file:///p", access.pool_url());
    EXPECT_FALSE(access.d2t());
    access.extra_options["access_mode"] = "d2t";
    EXPECT_TRUE(access.d2t());
}

} // namespace
