#include "qmrt/guarded_file.h"

#include "qmrt/path.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

class Guarded_File_Test : public testing::Test {
protected:
    void SetUp() override {
        chmod(files_.path().c_str(), 0755);
        directory_.reset(open(files_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }

    std::string at(std::string const& name) const { return files_.path(name); }
    static int error_of(File_Descriptor const& file) {
        int const error = errno;
        return file ? 0 : error;
    }
    int open_error(std::string const& name, File_Rules const& rules = {}) {
        return error_of(open_guarded(at(name).c_str(), rules));
    }
    int beneath_error(std::string const& name, File_Rules const& rules = {}) {
        return error_of(open_beneath(directory_.get(), name, rules));
    }
    void make_link(std::string const& target, std::string const& name) {
        ASSERT_EQ(0, symlink(target.c_str(), at(name).c_str()));
    }
    size_t entries() const {
        size_t count = 0;
        for (Directory_Reader reader(files_.path().c_str()); reader.next();)
            ++count;
        return count;
    }

    Temporary_Directory files_;
    File_Descriptor directory_;
};

TEST_F(Guarded_File_Test, a_regular_file_is_read) {
    files_.write("a", "content");
    std::string content = "old";
    EXPECT_EQ(0, read_guarded(at("a").c_str(), content, {.max_size = 7}));
    EXPECT_EQ("content", content);
    File_Descriptor const file = open_guarded(at("a").c_str(), {});
    ASSERT_TRUE(file);
    EXPECT_TRUE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC);
}

TEST_F(Guarded_File_Test, what_has_no_end_is_refused_at_once) {
    ASSERT_EQ(0, mkfifo(at("fifo").c_str(), 0666));
    EXPECT_EQ(EINVAL, open_error("fifo"));
    for (char const* path : {"/dev/urandom", "/dev/zero", "/dev/null", "/proc/self/environ"})
        EXPECT_EQ(EINVAL, error_of(open_guarded(path, {}))) << path;
    EXPECT_EQ(EISDIR, error_of(open_guarded(files_.path().c_str(), {})));
    EXPECT_EQ(EISDIR, error_of(open_guarded("/tmp/", {})));
    EXPECT_EQ(ENOENT, error_of(open_guarded("", {})));
    EXPECT_EQ(ENOENT, error_of(open_guarded(nullptr, {})));
    EXPECT_EQ(ENOENT, open_error("nothing"));
}

TEST_F(Guarded_File_Test, a_device_is_not_even_opened) {
    ASSERT_EQ(0, mkfifo(at("fifo").c_str(), 0666));
    File_Descriptor const watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_NE(-1, inotify_add_watch(watch.get(), at("fifo").c_str(), IN_OPEN));
    EXPECT_EQ(EINVAL, open_error("fifo"));
    inotify_event event;
    EXPECT_EQ(-1, read(watch.get(), &event, sizeof event)) << "it was opened";
    EXPECT_EQ(EAGAIN, errno);
}

TEST_F(Guarded_File_Test, the_size_is_bounded_before_and_while_reading) {
    files_.write("a", "12345");
    EXPECT_EQ(0, open_error("a", {.max_size = 5}));
    EXPECT_EQ(EFBIG, open_error("a", {.max_size = 4}));
    std::string content = "old";
    EXPECT_EQ(-1, read_guarded(at("a").c_str(), content, {.max_size = 4}));
    EXPECT_EQ("", content);

    File_Descriptor const endless(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(-1, read_all(endless.get(), content, 1024 * 1024));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ("", content);
}

TEST_F(Guarded_File_Test, a_last_link_is_followed_only_in_a_directory_of_root_alone) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root has a directory of root's";
    files_.write("target", "x");
    mkdir(at("theirs").c_str(), 0755);
    make_link("../target", "theirs/link");
    EXPECT_EQ(0, open_error("theirs/link"));
    ASSERT_EQ(0, chmod(at("theirs").c_str(), 0775));
    EXPECT_EQ(ELOOP, open_error("theirs/link"));
    ASSERT_EQ(0, chmod(at("theirs").c_str(), 01777));
    EXPECT_EQ(ELOOP, open_error("theirs/link"));
    ASSERT_EQ(0, chmod(at("theirs").c_str(), 0755));
    ASSERT_EQ(0, chown(at("theirs").c_str(), 65534, 65534));
    EXPECT_EQ(ELOOP, open_error("theirs/link"));
    // a link that is followed may not lead to anything else than a file either
    make_link("/dev/zero", "device");
    EXPECT_EQ(EINVAL, open_error("device"));
}

TEST_F(Guarded_File_Test, the_owner_is_checked) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    files_.write("ours", "x");
    files_.write("theirs", "x");
    ASSERT_EQ(0, chown(at("theirs").c_str(), 65534, 65534));
    File_Rules const strict{.owner = 65534};
    File_Rules const or_root{.owner = 65534, .accept_root = true};
    EXPECT_EQ(0, open_error("theirs", strict));
    EXPECT_EQ(0, open_error("theirs", or_root));
    EXPECT_EQ(EPERM, open_error("ours", strict));
    EXPECT_EQ(0, open_error("ours", or_root));
    EXPECT_EQ(EPERM, open_error("theirs", {.owner = 1}));
    EXPECT_EQ(EPERM, open_error("theirs", {.owner = 1, .accept_root = true}));
    // which is how a user gets a file of root's below a directory of their own
    ASSERT_EQ(0, link(at("ours").c_str(), at("another name").c_str()));
    EXPECT_EQ(EMLINK, open_error("ours", or_root));
}

TEST_F(Guarded_File_Test, no_part_below_the_directory_may_be_a_link) {
    files_.write("a/b/file", "x");
    make_link("a", "link");
    make_link("b/file", "a/file");
    make_link("/etc", "a/etc");
    EXPECT_EQ(0, beneath_error("a/b/file"));
    EXPECT_EQ(0, beneath_error("./a//b/./file"));
    EXPECT_EQ(ELOOP, beneath_error("link/b/file"));
    EXPECT_EQ(ELOOP, beneath_error("a/file"));
    EXPECT_EQ(ELOOP, beneath_error("a/etc/passwd"));
    EXPECT_EQ(ELOOP, error_of(open_directory_beneath(directory_.get(), "link")));
    EXPECT_EQ(0, error_of(open_directory_beneath(directory_.get(), "a/b/")));
    EXPECT_EQ(0, error_of(open_directory_beneath(directory_.get(), "")));
}

TEST_F(Guarded_File_Test, no_path_leaves_the_directory) {
    files_.write("inner/file", "x");
    files_.write("file", "x");
    File_Descriptor const inner = open_directory_beneath(directory_.get(), "inner");
    for (char const* path : {"../file", "..", "/etc/passwd", "/file"})
        EXPECT_EQ(EXDEV, error_of(open_beneath(inner.get(), path, {}))) << path;
    EXPECT_EQ(EXDEV, beneath_error("inner/../file"));
    EXPECT_EQ(EXDEV, error_of(open_directory_beneath(inner.get(), "..")));
    EXPECT_EQ(EXDEV, error_of(open_directory_beneath(inner.get(), "/etc")));
    for (std::string const& path : {std::string(), std::string("inner/"), std::string("."),
                                    std::string("file\0x", 6), std::string("a\0/file", 7)})
        EXPECT_EQ(EINVAL, beneath_error(path)) << path;
    EXPECT_EQ(ENOTDIR, beneath_error("file/x"));
}

TEST_F(Guarded_File_Test, a_file_is_replaced_in_one_step) {
    EXPECT_EQ(0, write_file_beneath(directory_.get(), "a", "new", 0640));
    EXPECT_EQ("new", files_.read("a"));
    struct stat status;
    ASSERT_EQ(0, stat(at("a").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
    EXPECT_EQ(0, write_file_beneath(directory_.get(), "a", "newer", 0600));
    EXPECT_EQ("newer", files_.read("a"));
    std::string const long_name(255, 'n');
    EXPECT_EQ(0, write_file_beneath(directory_.get(), long_name, "x", 0600));
    EXPECT_EQ(2u, entries());
}

TEST_F(Guarded_File_Test, a_link_in_the_way_is_replaced_and_never_written_through) {
    files_.write("kept", "kept");
    make_link("kept", "link");
    EXPECT_EQ(0, write_file_beneath(directory_.get(), "link", "x", 0600));
    EXPECT_EQ("kept", files_.read("kept"));
    EXPECT_EQ("x", files_.read("link"));
    mkdir(at("real").c_str(), 0755);
    make_link("real", "dirlink");
    EXPECT_EQ(-1, write_file_beneath(directory_.get(), "dirlink/x", "x", 0600));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_FALSE(files_.exists("real/x"));
}

TEST_F(Guarded_File_Test, a_file_that_is_not_committed_leaves_nothing) {
    {
        New_File_Beneath file(directory_.get(), "a", 0600);
        ASSERT_NE(-1, file.fd());
        EXPECT_EQ(1u, entries());
        EXPECT_FALSE(files_.exists("a"));
    }
    EXPECT_EQ(0u, entries());
    New_File_Beneath missing(directory_.get(), "no/a", 0600);
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, missing.fd());
    EXPECT_EQ(-1, missing.commit());
    mkdir(at("directory").c_str(), 0755);
    EXPECT_EQ(-1, write_file_beneath(directory_.get(), "directory", "x", 0600));
    EXPECT_EQ(1u, entries());
}

TEST_F(Guarded_File_Test, each_refusal_has_a_text) {
    for (int error : {ELOOP, EINVAL, EISDIR, EFBIG, EPERM, EMLINK, EXDEV})
        EXPECT_EQ(0u, refusal_text(error).find("it")) << error;
    EXPECT_EQ("No such file or directory", refusal_text(ENOENT));
}

class As_File_User_Test : public Guarded_File_Test {
protected:
    void SetUp() override {
        Guarded_File_Test::SetUp();
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can act as another user";
        files_.write("secret", "x");
        chmod(at("secret").c_str(), 0600);
    }
    bool can_read() { return static_cast<bool>(open_guarded(at("secret").c_str(), {})); }
};

TEST_F(As_File_User_Test, what_the_user_cannot_do_the_thread_cannot) {
    EXPECT_TRUE(can_read());
    {
        As_File_User const user(65534);
        ASSERT_TRUE(user);
        EXPECT_FALSE(can_read());
        EXPECT_EQ(EACCES, errno);
        EXPECT_EQ(-1, write_file_beneath(directory_.get(), "made", "x", 0600));
        EXPECT_EQ(-1, unlink(at("secret").c_str()));
        bool other_thread = false;
        std::thread([&] { other_thread = can_read(); }).join();
        EXPECT_FALSE(other_thread) << "a new thread has its maker's rights";
        EXPECT_EQ(0u, geteuid());
    }
    EXPECT_TRUE(can_read());
}

TEST_F(As_File_User_Test, a_directory_that_the_user_cannot_pass_is_named) {
    files_.write("open/closed/inner/file", "x");
    constexpr uid_t NOBODY = 65534;
    EXPECT_EQ("", closed_directory(at("open/closed/inner"), NOBODY));
    ASSERT_EQ(0, chmod(at("open/closed").c_str(), 0700));
    EXPECT_EQ(at("open/closed"), closed_directory(at("open/closed/inner/not there"), NOBODY));
    EXPECT_EQ(at("open/closed"), closed_directory(at("open/closed"), NOBODY));
    EXPECT_EQ("", closed_directory(at("open"), NOBODY));
    EXPECT_EQ("", closed_directory(at("open/not there/x"), NOBODY));
    EXPECT_EQ("", closed_directory(at("open/closed/inner"), 0));
    EXPECT_EQ("", closed_directory("/", NOBODY));
    ASSERT_EQ(0, chmod(at("open/closed").c_str(), 0711));
    EXPECT_EQ("", closed_directory(at("open/closed/inner/"), NOBODY));
}

TEST_F(As_File_User_Test, other_threads_keep_their_rights) {
    std::atomic<int> step = 0;
    bool could_read = false;
    std::thread other([&] {
        step = 1;
        step.notify_all();
        step.wait(1);
        could_read = can_read();
    });
    step.wait(0);
    {
        As_File_User const user(65534);
        ASSERT_TRUE(user);
        step = 2;
        step.notify_all();
        other.join();
    }
    EXPECT_TRUE(could_read);
}

TEST_F(As_File_User_Test, the_groups_are_the_users_and_come_back) {
    gid_t const before[] = {0, 12345};
    ASSERT_EQ(0, setgroups(2, before));
    chmod(at("secret").c_str(), 0640);
    {
        As_File_User const user(65534);
        ASSERT_TRUE(user);
        EXPECT_FALSE(can_read()) << "the group root is not one of the user's";
    }
    gid_t after[16] = {};
    EXPECT_EQ(2, getgroups(16, after));
    EXPECT_EQ(12345u, after[1]);
    ASSERT_EQ(0, setgroups(1, before));
}

TEST_F(As_File_User_Test, a_file_made_is_the_users) {
    mkdir(at("theirs").c_str(), 0755);
    ASSERT_EQ(0, chown(at("theirs").c_str(), 65534, 65534));
    {
        As_File_User const user(65534);
        ASSERT_TRUE(user);
        ASSERT_EQ(0, write_file_beneath(directory_.get(), "theirs/a", "x", 0600));
    }
    struct stat status;
    ASSERT_EQ(0, stat(at("theirs/a").c_str(), &status));
    EXPECT_EQ(65534u, status.st_uid);
    EXPECT_EQ(65534u, status.st_gid);
}

TEST_F(As_File_User_Test, an_unknown_user_is_refused_and_root_changes_nothing) {
    As_File_User const unknown(4000000000u);
    EXPECT_FALSE(unknown);
    EXPECT_TRUE(can_read());
    As_File_User const root(0);
    EXPECT_TRUE(root);
    EXPECT_TRUE(can_read());
}

} // namespace
