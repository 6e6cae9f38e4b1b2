#include "host/process/password_file_entry.h"

#include "tests/support/own_thread.h"
#include "tests/support/temporary_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using testing::UnorderedElementsAre;

TEST(Password_File_Entry, finds_a_user_by_name) {
    Password_File_Entry entry;
    ASSERT_EQ(0, entry.get("root"));
    EXPECT_EQ("root", entry.name());
    EXPECT_EQ(0u, entry.uid());
    EXPECT_EQ(0u, entry.gid());
    EXPECT_EQ("/root", entry.home());
    EXPECT_NE("", entry.shell());
}

TEST(Password_File_Entry, finds_a_user_by_uid) {
    Password_File_Entry entry;
    ASSERT_EQ(0, entry.get_by_uid(0));
    EXPECT_EQ("root", entry.name());
}

TEST(Password_File_Entry, an_unknown_user_is_ENOENT_and_changes_nothing) {
    Password_File_Entry entry;
    ASSERT_EQ(0, entry.get("root"));
    EXPECT_EQ(-1, entry.get("no-such-user"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("root", entry.name());
    EXPECT_EQ(-1, entry.get_by_uid(123456789));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("root", entry.name());
}

TEST(Password_File_Entry, no_name_is_EINVAL) {
    Password_File_Entry entry;
    EXPECT_EQ(-1, entry.get(nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, entry.get(""));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, entry.get_by_path(nullptr));
    EXPECT_EQ(EINVAL, errno);
}

TEST(Password_File_Entry, a_name_of_any_length_is_only_unknown) {
    Password_File_Entry entry;
    EXPECT_EQ(-1, entry.get(std::string(100000, 'x').c_str()));
    EXPECT_EQ(ENOENT, errno);
}

TEST(Password_File_Entry, finds_the_owner_of_a_file) {
    Temporary_Directory directory;
    std::string const file = directory.write("profile", "");
    Password_File_Entry entry;
    ASSERT_EQ(0, entry.get_by_path(file.c_str()));
    EXPECT_EQ(geteuid(), entry.uid());
    EXPECT_EQ(-1, entry.get_by_path(directory.path("missing").c_str()));
    EXPECT_EQ(ENOENT, errno);
}

TEST(Password_File_Entry, the_owner_of_a_link_is_that_of_its_file) {
    if (geteuid() != 0)
        GTEST_SKIP() << "giving a file away needs root";
    Temporary_Directory directory;
    std::string const file = directory.write("profile", "");
    ASSERT_EQ(0, symlink(file.c_str(), directory.path("link").c_str()));
    Password_File_Entry nobody;
    ASSERT_EQ(0, nobody.get("nobody"));
    ASSERT_EQ(0, chown(file.c_str(), nobody.uid(), nobody.gid()));
    Password_File_Entry entry;
    ASSERT_EQ(0, entry.get_by_path(directory.path("link").c_str()));
    EXPECT_EQ("nobody", entry.name());
    // an owner without a name
    ASSERT_EQ(0, chown(file.c_str(), 123456789, 0));
    EXPECT_EQ(-1, entry.get_by_path(file.c_str()));
    EXPECT_EQ(ENOENT, errno);
}

/** Runs with a user database of the test's own. */
template <typename Function>
void with_users(std::string const& passwd, std::string const& group, Function function) {
    if (geteuid() != 0)
        GTEST_SKIP() << "a user database of the test's own needs root, for the mount";
    Temporary_Directory directory;
    on_own_thread([&] {
        ASSERT_TRUE(cover_file("/etc/passwd", directory.write("passwd", passwd)));
        ASSERT_TRUE(cover_file("/etc/group", directory.write("group", group)));
        function();
    });
}

TEST(Password_File_Entry, has_the_groups_of_a_login) {
    with_users("omm:x:5001:5002:GaussDB:/home/omm:/bin/bash\n",
               "dbgrp:x:5002:\nwheel:x:5003:other,omm\nbackup:x:5004:omm\nnone:x:5005:other\n", [] {
                   Password_File_Entry entry;
                   ASSERT_EQ(0, entry.get("omm"));
                   EXPECT_EQ("/home/omm", entry.home());
                   EXPECT_EQ("/bin/bash", entry.shell());
                   EXPECT_THAT(entry.groups(), UnorderedElementsAre(5002, 5003, 5004));
                   EXPECT_THAT(entry.groups(5009), UnorderedElementsAre(5009, 5003, 5004));
               });
}

TEST(Password_File_Entry, has_any_number_of_groups) {
    std::string groups;
    for (int i = 0; i < 1000; ++i)
        groups += "g" + std::to_string(i) + ":x:" + std::to_string(6000 + i) + ":omm\n";
    with_users("omm:x:5001:5002::/home/omm:/bin/bash\n", groups, [] {
        Password_File_Entry entry;
        ASSERT_EQ(0, entry.get("omm"));
        EXPECT_EQ(1001u, entry.groups().size());
    });
}

TEST(Password_File_Entry, an_entry_longer_than_usual_is_read_whole) {
    std::string const home = "/home/" + std::string(20000, 'h');
    with_users("omm:x:5001:5002::" + home + ":/bin/bash\n", "", [&] {
        Password_File_Entry entry;
        ASSERT_EQ(0, entry.get("omm"));
        EXPECT_EQ(home, entry.home());
    });
}

} // namespace
