#include "qmrt/names.h"

#include <climits>
#include <gtest/gtest.h>
#include <vector>

namespace {

constexpr char UUID[] = "6f9619ff-8b86-d011-b42d-00cf4fc9648f";

struct Rule_Of {
    char const* what;
    names::Rule rule;
};

/** Every rule of what has to fit into one line. */
std::vector<Rule_Of> const LINES = {{"line", names::fault_of_line},
                                    {"label", names::fault_of_label},
                                    {"title", names::fault_of_title},
                                    {"id", names::fault_of_id},
                                    {"file", names::fault_of_file},
                                    {"relative path", names::fault_of_relative_path},
                                    {"absolute path", names::fault_of_absolute_path},
                                    {"instance", names::fault_of_instance},
                                    {"database", names::fault_of_database},
                                    {"account", names::fault_of_account},
                                    {"host", names::fault_of_host},
                                    {"policy", names::fault_of_policy}};

std::vector<std::string> const NO_LINES = {std::string("a\0b", 3),
                                           std::string("/a\0", 3),
                                           "a\nb",
                                           "/a\n",
                                           "a\rb",
                                           "a\tb",
                                           "a\x1b[0m",
                                           "a\x7f",
                                           "a\xff",
                                           "a\xc0\xaf",
                                           "a\xed\xa0\x80",
                                           std::string(100'000, 'x'),
                                           "/" + std::string(100'000, 'x')};

TEST(Names_Test, no_name_has_what_breaks_a_line_or_is_overlong) {
    for (Rule_Of const& one : LINES)
        for (std::string const& text : NO_LINES)
            EXPECT_NE("", one.rule(text)) << one.what << " " << names::shown(text);
}

TEST(Names_Test, no_name_of_a_single_file_leaves_its_directory) {
    for (names::Rule const rule :
         {names::fault_of_id, names::fault_of_file, names::fault_of_instance,
          names::fault_of_policy, names::fault_of_host})
        for (char const* text : {"", "..", "../x", "a/b", "/", "/etc/passwd", "a/"}) {
            if (rule == names::fault_of_host && std::string(text) == "..")
                continue; // no host is made a path of
            EXPECT_NE("", rule(text)) << text;
        }
}

TEST(Names_Test, a_reason_names_what_is_wrong) {
    EXPECT_EQ("is empty", names::fault_of_id(""));
    EXPECT_EQ("has a NUL in it", names::fault_of_id(std::string("\0", 1)));
    EXPECT_EQ("has a newline in it", names::fault_of_label("a\nb"));
    EXPECT_EQ("has a control character in it", names::fault_of_label("a\tb"));
    EXPECT_EQ("is not valid UTF-8", names::fault_of_label("a\xff"));
    EXPECT_EQ("is longer than 128 bytes", names::fault_of_id(std::string(129, 'a')));
    EXPECT_EQ("has '..' in it", names::fault_of_relative_path("a/../b"));
    EXPECT_EQ("has a '/' in it", names::fault_of_file("a/b"));
    EXPECT_EQ("looks like an id", names::fault_of_title(UUID));
}

TEST(Names_Test, ids) {
    for (std::string const& id :
         {std::string(UUID), std::string("20201216_105317"), std::string("tpops_1"),
          std::string("_a.b"), std::string(128, 'a')})
        EXPECT_EQ("", names::fault_of_id(id)) << id;
    for (char const* id : {".a", "-a", "a b", "a:b", "a'b", "\xe4\xb8\xad"})
        EXPECT_NE("", names::fault_of_id(id)) << id;
}

TEST(Names_Test, instances) {
    for (std::string const& name :
         {std::string("FI-MPPDB"), std::string("v8.1.1"), std::string("zengine_1611"),
          std::string("..."), std::string("\xe4\xb8\xad"), std::string(239, 'x')})
        EXPECT_EQ("", names::fault_of_instance(name)) << name;
    for (std::string const& name :
         {std::string("-x"), std::string("a b"), std::string("it's"), std::string("$(id)"),
          std::string("a;b"), std::string("a*"), std::string("meta"), std::string("media"),
          std::string("c1_env"), std::string("c1_act"), std::string("c1_identity"),
          std::string(UUID), std::string(240, 'x')})
        EXPECT_NE("", names::fault_of_instance(name)) << name;
}

TEST(Names_Test, policies_leave_the_registry_its_names) {
    for (char const* name : {"meta", "media", "c1_env", UUID})
        EXPECT_EQ(names::is_registry_name(name), !names::fault_of_policy(name).empty()) << name;
    EXPECT_EQ("", names::fault_of_policy(UUID));
    EXPECT_EQ("", names::fault_of_policy("metadata"));
    EXPECT_NE("", names::fault_of_policy("meta"));
}

TEST(Names_Test, titles_and_labels) {
    for (std::string const& name : {std::string("nightly full"), std::string("it's (1)"),
                                    std::string("\xe4\xb8\xad"), std::string(255, 'x')})
        EXPECT_EQ("", names::fault_of_title(name)) << name;
    for (std::string const& name :
         {std::string(), std::string(" a"), std::string("a "), std::string(256, 'x')})
        EXPECT_NE("", names::fault_of_title(name)) << name;
    EXPECT_EQ("", names::fault_of_label(UUID));
}

TEST(Names_Test, relative_paths) {
    std::string longest(255, 'x');
    while (longest.size() + 256 <= names::MAX_OBJECT)
        longest += "/" + std::string(255, 'x');
    for (std::string const& path : {std::string("a"), std::string("a/b.c"), std::string("..a"),
                                    std::string("a b/\xe4\xb8\xad"), longest})
        EXPECT_EQ("", names::fault_of_relative_path(path)) << path;
    for (std::string const& path : {std::string(), std::string("/a"), std::string("a/"),
                                    std::string("a//b"), std::string("./a"), std::string("a/.."),
                                    std::string(256, 'x'), longest + "/y/" + longest})
        EXPECT_NE("", names::fault_of_relative_path(path)) << path;
}

TEST(Names_Test, absolute_paths) {
    for (char const* path : {"/", "/a", "/a/b/", "//a", "/a/..b"})
        EXPECT_EQ("", names::fault_of_absolute_path(path)) << path;
    for (std::string const& path :
         {std::string(), std::string("a"), std::string("/a/../b"), std::string("/.."),
          std::string("/./a"), std::string("/a/."), "/" + std::string(256, 'x')})
        EXPECT_NE("", names::fault_of_absolute_path(path)) << path;
}

TEST(Names_Test, an_absolute_path_is_shorter_than_the_kernels_limit) {
    std::string path;
    while (path.size() + 2 < PATH_MAX)
        path += "/a";
    EXPECT_EQ("", names::fault_of_absolute_path(path));
    EXPECT_NE("", names::fault_of_absolute_path(path + "/a"));
}

TEST(Names_Test, bare_paths_are_the_same_word_in_every_shell) {
    EXPECT_EQ("", names::fault_of_bare_path("/opt/gauss-1.0/tool_x"));
    for (char const* path : {"", "a/b", "/a/../b", "/a b", "/a;b", "/$a", "/a'b", "/a*"})
        EXPECT_NE("", names::fault_of_bare_path(path)) << path;
}

TEST(Names_Test, listed_names_do_not_part_a_schema_from_its_table) {
    EXPECT_EQ("", names::fault_of_listed_name("orders of 2026"));
    for (char const* name : {"", " a", "a ", "a\nb", "a.b", "."})
        EXPECT_NE("", names::fault_of_listed_name(name)) << name;
}

TEST(Names_Test, hosts_accounts_and_databases) {
    for (char const* host : {"db1", "db-1.example.com", "10.0.0.1", "fe80::1%eth0"})
        EXPECT_EQ("", names::fault_of_host(host)) << host;
    for (char const* host : {"", "-oProxyCommand=x", "-v", "a b", "a;b", "user@host", "a/b"})
        EXPECT_NE("", names::fault_of_host(host)) << host;
    EXPECT_EQ("", names::fault_of_host(std::string(253, 'x')));
    EXPECT_NE("", names::fault_of_host(std::string(254, 'x')));
    EXPECT_EQ("", names::fault_of_account("omm"));
    EXPECT_EQ("is longer than 128 bytes", names::fault_of_account(std::string(129, 'x')));
    EXPECT_EQ("", names::fault_of_database("postgres"));
    for (char const* name : {"", "-c", "a b", "a'b", "a;b", "$x"})
        EXPECT_NE("", names::fault_of_database(name)) << name;
}

TEST(Names_Test, texts_may_have_lines_but_no_nul) {
    EXPECT_EQ("", names::fault_of_text(""));
    EXPECT_EQ("", names::fault_of_text("#!/bin/sh\n\techo \xe4\xb8\xad\n"));
    EXPECT_EQ("has a NUL in it", names::fault_of_text(std::string("a\0", 2)));
    EXPECT_EQ("is not valid UTF-8", names::fault_of_text("\xff"));
    EXPECT_EQ("is longer than 1048576 bytes",
              names::fault_of_text(std::string(names::MAX_TEXT + 1, 'x')));
}

TEST(Names_Test, what_is_shown_is_one_short_line) {
    EXPECT_EQ("a?b", names::shown("a\nb"));
    EXPECT_EQ(std::string(200, 'x') + "...", names::shown(std::string(5000, 'x')));
}

} // namespace
