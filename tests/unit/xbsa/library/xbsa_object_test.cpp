#include "xbsa/library/xbsa_object.h"

#include "host/storage/storage_backend.h"
#include "tests/support/xbsa_client.h"

#include <gtest/gtest.h>

namespace {

TEST(Xbsa_Matches_Test, patterns) {
    EXPECT_TRUE(xbsa_matches("", ""));
    EXPECT_FALSE(xbsa_matches("", "anything"));
    EXPECT_TRUE(xbsa_matches("*", ""));
    EXPECT_TRUE(xbsa_matches("/a/*", "/a/b/c"));
    EXPECT_TRUE(xbsa_matches("*c", "/a/b/c"));
    EXPECT_TRUE(xbsa_matches("/?/b*", "/a/b"));
    EXPECT_TRUE(xbsa_matches("a*b*c", "aXbYbZc"));
    EXPECT_TRUE(xbsa_matches("**", "x"));
    EXPECT_FALSE(xbsa_matches("?", ""));
    EXPECT_FALSE(xbsa_matches("/a", "/a/b"));
    EXPECT_FALSE(xbsa_matches("a*b", "abc"));
    EXPECT_FALSE(xbsa_matches("A", "a"));
}

TEST(Xbsa_Matches_Test, a_backslash_takes_the_next_character_as_it_is) {
    EXPECT_TRUE(xbsa_matches("a\\*", "a*"));
    EXPECT_FALSE(xbsa_matches("a\\*", "ab"));
    EXPECT_TRUE(xbsa_matches("\\?\\\\", "?\\"));
    EXPECT_TRUE(xbsa_matches("*\\*b", "xx*b"));
    EXPECT_TRUE(xbsa_matches("a\\", "a\\")) << "one at the end is itself";
}

TEST(Xbsa_Matches_Test, a_pattern_of_many_stars_is_answered_soon) {
    std::string pattern;
    for (int i = 0; i < 500; ++i)
        pattern += "*a";
    EXPECT_FALSE(xbsa_matches(pattern + "b", std::string(1023, 'a')));
}

constexpr BSA_ObjectOwner NOBODY = {};

Xbsa_Object named(std::string const& space, std::string const& path) {
    Xbsa_Object object;
    object.space = space;
    object.path = path;
    object.copy_id = 0xabcdef;
    object.name_file();
    return object;
}

TEST(Xbsa_Object_Test, a_file_s_name_can_be_read_by_people) {
    EXPECT_EQ("db,%2Fbase%2F1.0000000000abcdef", named("db", "/base/1").file);
    EXPECT_EQ("only.0000000000abcdef", named("", "only").file);
}

TEST(Xbsa_Object_Test, every_name_makes_a_name_that_a_pool_takes) {
    for (std::string const& path :
         {std::string(".."), std::string("."), std::string(".zenbrak3-x"), std::string(1023, '/'),
          std::string(1023, '%'), std::string("\xff\n"), std::string(1023, '.')}) {
        std::string const file = named("", path).file;
        EXPECT_TRUE(check_object_name(file)) << file;
        EXPECT_EQ(std::string::npos, file.find('/'));
    }
}

TEST(Xbsa_Object_Test, a_long_name_is_cut_between_its_characters) {
    std::string const name = named("", std::string(100, '/') + "a").file;
    EXPECT_EQ("%2F", name.substr(0, 3));
    EXPECT_TRUE(name.ends_with("%2Fa.0000000000abcdef"));
}

TEST(Xbsa_Object_Test, what_is_written_is_read_again) {
    BSA_ObjectDescriptor descriptor = xbsa::object("/a\xff\"\\", "sp\tace%41");
    descriptor.objectInfo[0] = 0;
    descriptor.objectInfo[100] = 0xff;
    descriptor.restoreOrder = UINT64_MAX;
    Xbsa_Object object;
    ASSERT_TRUE(object.read(descriptor, NOBODY));
    object.copy_id = UINT64_MAX;
    object.created = 1700000000123456;
    object.size = 5;
    object.name_file();
    Xbsa_Object const again = Xbsa_Object::from_json(object.to_json());
    EXPECT_EQ(object.space, again.space);
    EXPECT_EQ(object.path, again.path);
    EXPECT_EQ(object.info, again.info);
    EXPECT_EQ(101u, again.info.size());
    EXPECT_EQ(UINT64_MAX, again.copy_id);
    EXPECT_EQ(UINT64_MAX, again.restore_order);
    EXPECT_EQ(object.created, again.created);
    EXPECT_EQ(object.file, again.file);
}

TEST(Xbsa_Object_Test, what_cannot_be_an_object_is_not_read) {
    Xbsa_Object const object = named("db", "/x");
    std::pair<char const*, json_spirit::Value> const faults[] = {{"file", "../../escape"},
                                                                 {"file", ""},
                                                                 {"copy_id", "0000000000000000"},
                                                                 {"copy_id", "12"},
                                                                 {"copy_id", "000000000000000g"},
                                                                 {"copy_type", 1},
                                                                 {"object_type", 9},
                                                                 {"path", "%zz"},
                                                                 {"size", -1},
                                                                 {"created", "now"}};
    for (auto const& [key, value] : faults) {
        json_spirit::Object json = object.to_json();
        json[key] = value;
        EXPECT_THROW(Xbsa_Object::from_json(json), json_spirit::Error) << key;
        json.erase(key);
        EXPECT_THROW(Xbsa_Object::from_json(json), json_spirit::Error) << key << " is missing";
    }
    EXPECT_NO_THROW(Xbsa_Object::from_json(object.to_json()));
}

TEST(Xbsa_Query_Test, a_path_without_wildcards_is_the_only_one_wanted) {
    for (auto const& [path, exact] : std::map<std::string, std::string>{
             {"/dn_6001/data", "/dn_6001/data"}, {"/dn*", ""}, {"/dn_600?", ""}, {"/a\\*", ""}}) {
        Xbsa_Query query;
        ASSERT_TRUE(query.read(xbsa::pattern(path), NOBODY)) << path;
        EXPECT_EQ(exact, query.exact_path()) << path;
    }
}

TEST(Xbsa_Query_Test, times_bound_what_is_wanted) {
    Xbsa_Object object;
    object.created = 1700000000 * int64_t{1000000} + 500000;
    time_t const seconds = 1700000000;
    for (int const offset : {-1, 0, 1}) {
        time_t const bound = seconds + offset;
        BSA_QueryDescriptor from = xbsa::pattern("*"), to = xbsa::pattern("*");
        gmtime_r(&bound, &from.createTime_from);
        gmtime_r(&bound, &to.createTime_to);
        Xbsa_Query after, before;
        ASSERT_TRUE(after.read(from, NOBODY));
        ASSERT_TRUE(before.read(to, NOBODY));
        EXPECT_EQ(offset <= 0, after.wants(object, true)) << offset;
        EXPECT_EQ(offset >= 0, before.wants(object, true)) << offset;
    }
}

TEST(Xbsa_Query_Test, types_bound_what_is_wanted) {
    Xbsa_Object object;
    object.copy_type = BSA_CopyType_ARCHIVE;
    object.object_type = BSA_ObjectType_DIRECTORY;
    BSA_QueryDescriptor query = xbsa::pattern("*");
    query.copyType = BSA_CopyType_BACKUP;
    Xbsa_Query backups, directories, files;
    ASSERT_TRUE(backups.read(query, NOBODY));
    EXPECT_FALSE(backups.wants(object, true));
    query.copyType = BSA_CopyType_ARCHIVE;
    query.objectType = BSA_ObjectType_DIRECTORY;
    ASSERT_TRUE(directories.read(query, NOBODY));
    EXPECT_TRUE(directories.wants(object, true));
    query.objectType = BSA_ObjectType_FILE;
    ASSERT_TRUE(files.read(query, NOBODY));
    EXPECT_FALSE(files.wants(object, true));
}

} // namespace
