#include "gaussdb/job/tool_directory.h"

#include "host/process/password_file_entry.h"
#include "qmrt/guarded_file.h"
#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/job/roach_world.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Tool_Directory_Test : public Roach_World {
protected:
    void SetUp() override {
        Roach_World::SetUp();
        ASSERT_EQ(0, mkdir_p(ROOT, 0755)); // the users pass through
    }
    static uid_t id_of(char const* user) {
        Password_File_Entry entry;
        EXPECT_EQ(0, entry.get(user));
        return entry.uid();
    }
    static struct stat status_of(std::string const& path) {
        struct stat status {};
        EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
        return status;
    }
    /** What the user does. */
    static int user_makes(std::string const& path) {
        As_File_User const user(id_of(USER));
        return mkdir(path.c_str(), 0755);
    }
    static void user_links(std::string const& target, std::string const& path) {
        As_File_User const user(id_of(USER));
        EXPECT_EQ(0, symlink(target.c_str(), path.c_str()));
    }
    static void roots_file(std::string const& path) {
        EXPECT_EQ(0, write_file_atomically(path.c_str(), "secret", 0644));
    }

    std::string const path_ = root("meta");
    Tool_Directory const meta_{path_, USER};
    std::string content_;
};

TEST_F(Tool_Directory_Test, it_is_made_for_its_user) {
    EXPECT_EQ(0, meta_.make());
    EXPECT_EQ(id_of(USER), status_of(path_).st_uid);
    EXPECT_EQ(0750u, status_of(path_).st_mode & 07777);
    EXPECT_EQ(id_of(USER), meta_.uid());
    EXPECT_EQ(0, meta_.make()) << "again";
}

TEST_F(Tool_Directory_Test, an_unknown_user_has_none) {
    Tool_Directory const unknown(path_, "nobody-has-this-name");
    EXPECT_FALSE(unknown.uid());
    EXPECT_EQ(-1, unknown.make());
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, unknown.read("file", content_));
    EXPECT_EQ(-1, unknown.write("file", "x"));
    EXPECT_FALSE(exists(path_));
}

TEST_F(Tool_Directory_Test, another_users_is_set_aside_and_comes_back) {
    Tool_Directory const other(path_, "bin");
    ASSERT_EQ(0, meta_.make());
    ASSERT_EQ(0, meta_.write("backups.ini", "of daemon"));
    ASSERT_EQ(0, other.make());
    EXPECT_EQ(-1, other.read("backups.ini", content_)) << "another user's metadata";
    ASSERT_EQ(0, other.write("backups.ini", "of bin"));
    EXPECT_TRUE(exists(path_ + "." + std::to_string(id_of(USER))));
    ASSERT_EQ(0, meta_.make());
    EXPECT_EQ(0, meta_.read("backups.ini", content_));
    EXPECT_EQ("of daemon", content_);
    ASSERT_EQ(0, other.make());
    EXPECT_EQ(0, other.read("backups.ini", content_));
    EXPECT_EQ("of bin", content_);
}

TEST_F(Tool_Directory_Test, a_link_in_its_place_is_not_followed) {
    ASSERT_EQ(0, mkdir_p(root("victim").c_str(), 0755));
    ASSERT_EQ(0, symlink(root("victim").c_str(), path_.c_str()));
    EXPECT_EQ(-1, meta_.make());
    EXPECT_EQ(0u, status_of(root("victim")).st_uid);
}

TEST_F(Tool_Directory_Test, only_the_users_own_regular_files_are_read) {
    ASSERT_EQ(0, meta_.make());
    roots_file(root("secret"));
    roots_file(path_ + "/roots");
    ASSERT_EQ(0, chmod((path_ + "/roots").c_str(), 0644));
    user_links(root("secret"), path_ + "/link");
    ASSERT_EQ(0, user_makes(path_ + "/directory"));
    ASSERT_EQ(0, mkfifo((path_ + "/pipe").c_str(), 0666));
    ASSERT_EQ(0, link(root("secret").c_str(), (path_ + "/hard").c_str()));
    for (char const* name : {"roots", "link", "directory", "pipe", "hard", "missing", "../secret"})
        EXPECT_EQ(-1, meta_.read(name, content_)) << name;
    ASSERT_EQ(0, meta_.write("own", "text"));
    EXPECT_EQ(0, meta_.read("own", content_));
    EXPECT_EQ("text", content_);
    EXPECT_EQ(id_of(USER), status_of(path_ + "/own").st_uid);
}

TEST_F(Tool_Directory_Test, a_link_in_place_of_a_file_is_replaced) {
    ASSERT_EQ(0, meta_.make());
    roots_file(root("secret"));
    user_links(root("secret"), path_ + "/backups.ini");
    EXPECT_EQ(0, meta_.write("backups.ini", "text"));
    EXPECT_EQ("secret", content(root("secret")));
    EXPECT_EQ(0, meta_.read("backups.ini", content_));
    EXPECT_EQ("text", content_);
}

TEST_F(Tool_Directory_Test, directories_are_the_users_and_no_link) {
    ASSERT_EQ(0, meta_.make());
    ASSERT_EQ(0, mkdir_p(root("victim/key").c_str(), 0777));
    EXPECT_EQ(0, meta_.make_directory("roach"));
    EXPECT_EQ(0, meta_.make_directory("roach")) << "again";
    EXPECT_TRUE(meta_.has_directory("roach"));
    user_links(root("victim"), path_ + "/link");
    EXPECT_FALSE(meta_.has_directory("link"));
    EXPECT_FALSE(meta_.has_directory("link/key"));
    EXPECT_EQ(-1, meta_.make_directory("link"));
    EXPECT_EQ(-1, meta_.remove("link", "key"));
    EXPECT_TRUE(exists(root("victim/key")));
    ASSERT_EQ(0, mkdir((path_ + "/roots").c_str(), 0755));
    EXPECT_FALSE(meta_.has_directory("roots"));
}

TEST_F(Tool_Directory_Test, a_directory_of_root_is_taken_in) {
    ASSERT_EQ(0, meta_.make());
    ASSERT_EQ(0, meta_.make_directory("roach"));
    ASSERT_EQ(0, mkdir_p(root("cache/key").c_str(), 0700));
    roots_file(root("cache/key/one"));
    EXPECT_EQ(0, meta_.take_in(root("cache/key"), "roach", "key"));
    EXPECT_EQ(0, meta_.read("roach/key/one", content_));
    EXPECT_FALSE(exists(root("cache/key")));
    EXPECT_EQ(0, meta_.remove("roach", "key"));
    EXPECT_FALSE(exists(path_ + "/roach/key"));
    // a link in place of the folder leads nowhere
    ASSERT_EQ(0, mkdir_p(root("cache/other").c_str(), 0700));
    ASSERT_EQ(0, mkdir_p(root("victim").c_str(), 0755));
    user_links(root("victim"), path_ + "/link");
    EXPECT_EQ(-1, meta_.take_in(root("cache/other"), "link", "other"));
    EXPECT_FALSE(exists(root("victim/other")));
}

TEST_F(Tool_Directory_Test, it_is_removed_with_all_that_is_in_it) {
    ASSERT_EQ(0, meta_.make());
    ASSERT_EQ(0, meta_.make_directory("roach"));
    roots_file(root("kept"));
    user_links(root("kept"), path_ + "/roach/link");
    EXPECT_EQ(0, meta_.remove());
    EXPECT_FALSE(exists(path_));
    EXPECT_FALSE(exists(path_ + ".removed"));
    EXPECT_TRUE(exists(root("kept")));
    EXPECT_EQ(0, meta_.remove()) << "nothing is there";
}

TEST_F(Tool_Directory_Test, what_cannot_be_removed_is_not_in_the_users_way) {
    ASSERT_EQ(0, meta_.make());
    ASSERT_EQ(0, user_makes(path_ + "/roach"));
    ASSERT_EQ(0, user_makes(path_ + "/roach/busy"));
    ASSERT_EQ(0, mount("none", (path_ + "/roach/busy").c_str(), "tmpfs", 0, nullptr));
    EXPECT_EQ(-1, meta_.remove());
    EXPECT_EQ(EBUSY, errno);
    EXPECT_EQ(0, meta_.make());
    EXPECT_FALSE(exists(path_ + "/roach"));
    EXPECT_EQ(0, user_makes(path_ + "/roach"));
    EXPECT_EQ(0, user_makes(path_ + "/roach/key"));
    ASSERT_EQ(0, umount2((path_ + ".removed/roach/busy").c_str(), MNT_DETACH));
    EXPECT_EQ(0, meta_.remove());
    EXPECT_FALSE(exists(path_));
    EXPECT_FALSE(exists(path_ + ".removed"));
}

TEST_F(Tool_Directory_Test, a_removal_that_fails_is_told_and_the_backup_gets_its_directory) {
    Roach_Source roach_source = source();
    ASSERT_TRUE(roach_source.create_path());
    ASSERT_EQ(0, user_makes(path_ + "/busy"));
    ASSERT_EQ(0, mount("none", (path_ + "/busy").c_str(), "tmpfs", 0, nullptr));
    roach_source.delete_meta();
    EXPECT_LOGGED(LM_ERROR, "Failed to remove " + path_ + ", errno=");
    EXPECT_TRUE(roach_source.create_path());
    EXPECT_EQ(0, user_makes(path_ + "/roach"));
    ASSERT_EQ(0, umount2((path_ + ".removed/busy").c_str(), MNT_DETACH));
}

} // namespace
