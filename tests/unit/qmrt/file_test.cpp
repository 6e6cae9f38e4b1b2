#include "qmrt/file.h"

#include "qmrt/guarded_file.h"

#include "qmrt/path.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

class File_Test : public testing::Test {
protected:
    char const* at(std::string const& name) { return (last_ = files_.path(name)).c_str(); }
    mode_t mode_of(std::string const& name) {
        struct stat status;
        return lstat(files_.path(name).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
    struct stat status_of(std::string const& name) {
        struct stat status {};
        lstat(files_.path(name).c_str(), &status);
        return status;
    }

    Temporary_Directory files_;
    std::string last_;
};

TEST_F(File_Test, mkdir_p_makes_parents_and_takes_what_is_there) {
    EXPECT_EQ(0, mkdir_p(at("a/b/c"), 0755));
    EXPECT_TRUE(is_directory(at("a/b/c")));
    EXPECT_EQ(0, mkdir_p(at("a/b/c/"), 0755));
    EXPECT_EQ(0, mkdir_p(at("a//d"), 0755));
    EXPECT_TRUE(is_directory(at("a/d")));
}

TEST_F(File_Test, mkdir_p_leaves_the_mode_of_what_is_there) {
    mkdir_p(at("a"), 0700);
    EXPECT_EQ(0, mkdir_p(at("a/b"), 0755));
    EXPECT_EQ(0700u, mode_of("a"));
}

TEST_F(File_Test, mkdir_p_gives_the_mode_whatever_the_umask) {
    for (mode_t const mask : {0077u, 0u, 0027u}) {
        mode_t const old = umask(mask);
        std::string const name = "with" + std::to_string(mask);
        EXPECT_EQ(0, mkdir_p(at(name + "/b"), 0755));
        EXPECT_EQ(0, mkdir_p(at(name + "/b/private"), 0700));
        umask(old);
        EXPECT_EQ(0755u, mode_of(name));
        EXPECT_EQ(0755u, mode_of(name + "/b"));
        EXPECT_EQ(0700u, mode_of(name + "/b/private"));
    }
}

TEST_F(File_Test, mkdir_p_takes_a_link_to_a_directory) {
    mkdir_p(at("a"), 0755);
    ASSERT_EQ(0, symlink("a", at("link")));
    EXPECT_EQ(0, mkdir_p(at("link/b"), 0755));
    EXPECT_TRUE(is_directory(at("a/b")));
}

TEST_F(File_Test, mkdir_p_says_what_is_in_the_way) {
    files_.write("file", "");
    EXPECT_EQ(-1, mkdir_p(at("file"), 0755));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(-1, mkdir_p(at("file/a"), 0755));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(-1, mkdir_p("", 0755));
    EXPECT_EQ(ENOENT, errno);
    ASSERT_EQ(0, symlink("nowhere", at("dangling")));
    EXPECT_EQ(-1, mkdir_p(at("dangling"), 0755));
    EXPECT_EQ(EEXIST, errno);
}

TEST_F(File_Test, rm_rf_removes_a_tree) {
    files_.write("a/b/c", "x");
    files_.write("a/.hidden", "x");
    mkdir_p(at("a/empty"), 0755);
    EXPECT_EQ(0, rm_rf(at("a")));
    EXPECT_FALSE(files_.exists("a"));
}

TEST_F(File_Test, rm_rf_of_nothing_is_a_success) {
    EXPECT_EQ(0, rm_rf(at("nothing")));
    files_.write("file", "");
    EXPECT_EQ(0, rm_rf(at("file/below")));
    EXPECT_TRUE(files_.exists("file"));
}

TEST_F(File_Test, rm_rf_never_follows_a_link) {
    files_.write("kept/file", "x");
    mkdir_p(at("tree/inner"), 0755);
    ASSERT_EQ(0, symlink(files_.path("kept").c_str(), at("tree/inner/link")));
    ASSERT_EQ(0, symlink("../kept", at("tree/relative")));
    EXPECT_EQ(0, rm_rf(at("tree")));
    EXPECT_FALSE(files_.exists("tree"));
    EXPECT_EQ("x", files_.read("kept/file"));

    ASSERT_EQ(0, symlink("kept", at("link")));
    EXPECT_EQ(0, rm_rf(at("link")));
    EXPECT_FALSE(files_.exists("link"));
    EXPECT_EQ("x", files_.read("kept/file"));
}

TEST_F(File_Test, rm_rf_of_a_link_with_a_slash_behind_it_removes_the_link) {
    files_.write("kept/file", "x");
    ASSERT_EQ(0, symlink("kept", at("link")));
    EXPECT_EQ(0, rm_rf(at("link/")));
    EXPECT_FALSE(files_.exists("link"));
    EXPECT_EQ("x", files_.read("kept/file"));
}

TEST_F(File_Test, rm_rf_of_a_tree_whose_directories_turn_into_links_stays_inside) {
    files_.write("kept/file", "x");
    std::atomic<bool> stop = false;
    std::string const victim = files_.path("tree/swapped");
    std::string const kept = files_.path("kept");
    std::thread swapper([&] {
        while (!stop) {
            mkdir(victim.c_str(), 0755);
            rmdir(victim.c_str());
            [[maybe_unused]] int const made = symlink(kept.c_str(), victim.c_str());
            unlink(victim.c_str());
        }
    });
    for (int round = 0; round < 200; ++round) {
        mkdir(files_.path("tree").c_str(), 0755);
        rm_rf(files_.path("tree").c_str());
    }
    stop = true;
    swapper.join();
    EXPECT_EQ("x", files_.read("kept/file"));
}

TEST_F(File_Test, rm_rf_of_a_deep_tree_needs_neither_stack_nor_descriptors) {
    int fd = open(files_.path().c_str(), O_RDONLY | O_DIRECTORY);
    for (int depth = 0; depth < 5000; ++depth) {
        ASSERT_EQ(0, mkdirat(fd, "d", 0755));
        int const inner = openat(fd, "d", O_RDONLY | O_DIRECTORY);
        close(fd);
        fd = inner;
    }
    close(fd);
    EXPECT_EQ(0, rm_rf(at("d")));
    EXPECT_FALSE(files_.exists("d"));
}

TEST_F(File_Test, rm_rf_of_many_files_removes_all) {
    for (int file = 0; file < 3000; ++file)
        files_.write("a/" + std::to_string(file), "");
    EXPECT_EQ(0, rm_rf(at("a")));
    EXPECT_FALSE(files_.exists("a"));
}

TEST_F(File_Test, rm_rf_refuses_what_is_never_meant) {
    for (char const* path : {"", "/", "//", ".", "..", "/tmp/.", "/tmp/..", "/tmp/../"}) {
        EXPECT_EQ(-1, rm_rf(path)) << path;
        EXPECT_EQ(EINVAL, errno) << path;
    }
    EXPECT_EQ(-1, rm_rf(nullptr));
}

class Chown_Test : public File_Test {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can give files away";
        passwd const* const entry = getpwnam("nobody");
        ASSERT_NE(nullptr, entry);
        uid_ = entry->pw_uid;
        gid_ = entry->pw_gid;
    }
    uid_t uid_ = 0;
    gid_t gid_ = 0;
};

TEST_F(Chown_Test, a_user_who_fills_a_tree_cannot_keep_rm_rf_from_its_end) {
    files_.write("tree/inner/file", "x");
    std::string const inner = files_.path("tree/inner");
    ASSERT_EQ(0, chmod(files_.path().c_str(), 0755));
    ASSERT_EQ(0, chown_r(at("tree"), "nobody"));
    std::atomic<bool> stop = false;
    std::atomic<bool> ready = false;
    std::thread filler([&] {
        // as the user, in the directory itself, so that no name has to lead there any more
        As_File_User const user(uid_);
        File_Descriptor const directory(open(inner.c_str(), O_RDONLY | O_DIRECTORY));
        ready = true;
        for (uint64_t number = 0; directory && !stop; ++number)
            mkdirat(directory.get(), std::to_string(number).c_str(), 0755);
    });
    while (!ready)
        std::this_thread::yield();
    EXPECT_EQ(0, rm_rf(at("tree")));
    stop = true;
    filler.join();
    EXPECT_FALSE(files_.exists("tree"));
}

TEST_F(Chown_Test, a_tree_goes_to_the_user_and_the_users_group) {
    files_.write("a/b/c", "x");
    EXPECT_EQ(0, chown_r(at("a"), "nobody", nullptr, false));
    for (char const* name : {"a", "a/b", "a/b/c"}) {
        EXPECT_EQ(uid_, status_of(name).st_uid) << name;
        EXPECT_EQ(gid_, status_of(name).st_gid) << name;
    }
}

TEST_F(Chown_Test, a_file_alone) {
    files_.write("a", "x");
    EXPECT_EQ(0, chown_r(at("a"), "nobody"));
    EXPECT_EQ(uid_, status_of("a").st_uid);
}

TEST_F(Chown_Test, links_inside_are_changed_and_not_followed) {
    files_.write("outside", "x");
    mkdir_p(at("a"), 0755);
    ASSERT_EQ(0, symlink("../outside", at("a/link")));
    EXPECT_EQ(0, chown_r(at("a"), "nobody"));
    EXPECT_EQ(uid_, status_of("a/link").st_uid);
    EXPECT_EQ(0u, status_of("outside").st_uid);
}

TEST_F(Chown_Test, a_link_itself_or_what_it_points_at) {
    files_.write("target/file", "x");
    ASSERT_EQ(0, symlink("target", at("link")));
    EXPECT_EQ(0, chown_r(at("link"), "nobody", nullptr, false));
    EXPECT_EQ(uid_, status_of("link").st_uid);
    EXPECT_EQ(0u, status_of("target").st_uid);
    EXPECT_EQ(0, chown_r(at("link"), "nobody", nullptr, true));
    EXPECT_EQ(uid_, status_of("target/file").st_uid);
}

TEST_F(Chown_Test, an_unknown_user_or_group_changes_nothing) {
    files_.write("a", "x");
    EXPECT_EQ(-1, chown_r(at("a"), "no-such-user"));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, chown_r(at("a"), "nobody", "no-such-group"));
    EXPECT_EQ(0u, status_of("a").st_uid);
}

TEST_F(Chown_Test, what_is_not_there_is_an_error) {
    EXPECT_EQ(-1, chown_r(at("none"), "nobody"));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(File_Test, copy_file_copies_content_and_sets_the_mode) {
    std::string const content(1000000, 'x');
    files_.write("a", content);
    mode_t const old = umask(077);
    EXPECT_EQ(0, copy_file(files_.path("a").c_str(), at("b"), 0640));
    umask(old);
    EXPECT_EQ(content, files_.read("b"));
    EXPECT_EQ(0640u, mode_of("b"));
}

TEST_F(File_Test, copy_file_leaves_the_old_target_on_a_failure) {
    files_.write("b", "old");
    EXPECT_EQ(-1, copy_file(files_.path("none").c_str(), at("b"), 0640));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, copy_file(files_.path().c_str(), at("b"), 0640));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ("old", files_.read("b"));
}

TEST_F(File_Test, copy_file_over_a_link_replaces_the_link) {
    files_.write("a", "new");
    files_.write("kept", "kept");
    ASSERT_EQ(0, symlink("kept", at("b")));
    EXPECT_EQ(0, copy_file(files_.path("a").c_str(), at("b"), 0640));
    EXPECT_EQ("kept", files_.read("kept"));
    EXPECT_EQ("new", files_.read("b"));
    EXPECT_FALSE(is_symbolic_link(at("b")));
}

TEST_F(File_Test, write_file_atomically_leaves_nothing_behind_on_a_failure) {
    mkdir_p(at("target"), 0755);
    EXPECT_EQ(-1, write_file_atomically(at("target"), "x", 0640));
    size_t entries = 0;
    for (Directory_Reader reader(files_.path().c_str()); reader.next();)
        ++entries;
    EXPECT_EQ(1u, entries);
}

TEST_F(File_Test, write_file_atomically_gives_the_file_away_before_it_has_content) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    File_Owner const owner{65534, 65534};
    EXPECT_EQ(0, write_file_atomically(at("a"), "secret", 0640, &owner));
    EXPECT_EQ(65534u, status_of("a").st_uid);
    EXPECT_EQ(0640u, mode_of("a"));
    EXPECT_EQ("secret", files_.read("a"));
}

TEST_F(File_Test, read_file_is_bounded) {
    files_.write("a", "12345");
    std::string content;
    EXPECT_EQ(0, read_file(at("a"), content, 5));
    EXPECT_EQ("12345", content);
    EXPECT_EQ(-1, read_file(at("a"), content, 4));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ("", content);
    EXPECT_EQ(-1, read_file(files_.path().c_str(), content, 4));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ(-1, read_file(at("none"), content, 4));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(File_Test, read_each_line_gives_every_line) {
    files_.write("a", std::string("one\n\nthr\0ee\nlast", 16));
    std::vector<std::string> lines;
    EXPECT_EQ(0, read_each_line(at("a"), [&](std::string_view line) {
                  lines.emplace_back(line);
                  return true;
              }));
    EXPECT_EQ((std::vector<std::string>{"one", "", std::string("thr\0ee", 6), "last"}), lines);
}

TEST_F(File_Test, read_each_line_of_long_lines_and_block_borders) {
    std::string const first(65535, 'a');
    std::string const second(200000, 'b');
    files_.write("a", first + "\n" + second + "\nc\n");
    std::vector<size_t> sizes;
    EXPECT_EQ(0, read_each_line(at("a"), [&](std::string_view line) {
                  sizes.push_back(line.size());
                  return true;
              }));
    EXPECT_EQ((std::vector<size_t>{65535, 200000, 1}), sizes);
}

TEST_F(File_Test, read_each_line_stops_when_the_visitor_has_enough) {
    files_.write("a", "1\n2\n3\n");
    int calls = 0;
    EXPECT_EQ(0, read_each_line(at("a"), [&](std::string_view) { return ++calls < 2; }));
    EXPECT_EQ(2, calls);
}

TEST_F(File_Test, read_each_line_refuses_an_endless_line) {
    files_.write("a", std::string(17 * 1024 * 1024, 'x'));
    int calls = 0;
    EXPECT_EQ(-1, read_each_line(at("a"), [&](std::string_view) { return ++calls > 0; }));
    EXPECT_EQ(EFBIG, errno);
    EXPECT_EQ(0, calls);
}

TEST_F(File_Test, read_line_takes_the_first_line) {
    std::string text = "old";
    files_.write("a", "first\r\nsecond\n");
    EXPECT_TRUE(read_line(files_.path("a"), text, true));
    EXPECT_EQ("first", text);
    EXPECT_TRUE(read_line(files_.path("a"), text, false));
    EXPECT_EQ("first\r\n", text);
    files_.write("b", "only");
    EXPECT_TRUE(read_line(files_.path("b"), text, true));
    EXPECT_EQ("only", text);
}

TEST_F(File_Test, read_line_of_nothing_is_false) {
    std::string text = "old";
    files_.write("empty", "");
    EXPECT_FALSE(read_line(files_.path("empty"), text, true));
    EXPECT_FALSE(read_line(files_.path("none"), text, true));
    EXPECT_FALSE(read_line(files_.path(), text, true));
    EXPECT_EQ("old", text);
}

} // namespace
