#include "qmrt/path_trust.h"

#include <climits>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr uid_t USER = 12345;
constexpr uid_t OTHER = 12346;

/** A directory of the user's below trusted directories; /tmp itself is not one. */
class Path_Trust_Test : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root: files of several users are made";
        std::string name = "/var/lib/zenbrak3-test-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(name.data()));
        root_ = name;
        make_directory("");
    }
    void TearDown() override {
        if (!root_.empty())
            std::filesystem::remove_all(root_);
    }

    std::string at(std::string const& name) const {
        return root_ + (name.empty() ? "" : "/" + name);
    }
    void own(std::string const& name, uid_t uid, mode_t mode) {
        ASSERT_EQ(0, chown(at(name).c_str(), uid, uid));
        ASSERT_EQ(0, chmod(at(name).c_str(), mode));
    }
    void make_directory(std::string const& name, uid_t uid = USER, mode_t mode = 0755) {
        std::filesystem::create_directories(at(name));
        own(name, uid, mode);
    }
    void make_file(std::string const& name, uid_t uid = USER, mode_t mode = 0644) {
        std::ofstream(at(name)) << "x";
        own(name, uid, mode);
    }
    void make_link(std::string const& target, std::string const& name, uid_t uid = USER) {
        ASSERT_EQ(0, symlink(target.c_str(), at(name).c_str()));
        ASSERT_EQ(0, lchown(at(name).c_str(), uid, uid));
    }
    bool trusts(std::string const& path, unsigned flags = PATH_MUST_EXIST) {
        reason_ = "";
        return is_trusted_path(path, USER, flags, reason_);
    }
    bool blames(std::string const& path, std::string const& part, std::string const& text,
                unsigned flags = PATH_MUST_EXIST) {
        return !trusts(path, flags) && reason_.starts_with("\"" + part + "\"") &&
               reason_.find(text) != std::string::npos;
    }

    std::string root_;
    std::string reason_;
};

TEST_F(Path_Trust_Test, files_of_root_and_of_the_user_are_trusted) {
    make_directory("bin", USER, 0700);
    make_file("bin/tool", 0, 0755);
    make_file("bin/own", USER, 0700);
    EXPECT_TRUE(trusts(at("bin/tool"))) << reason_;
    EXPECT_TRUE(trusts(at("bin/own"))) << reason_;
    EXPECT_TRUE(trusts(at("bin/"))) << reason_;
    EXPECT_TRUE(trusts(at("bin/../bin/./tool"))) << reason_;
    EXPECT_TRUE(trusts("/")) << reason_;
}

TEST_F(Path_Trust_Test, the_status_is_that_of_the_end) {
    make_file("tool");
    make_link("tool", "link");
    struct stat found;
    struct stat expected;
    ASSERT_TRUE(is_trusted_path(at("link"), USER, PATH_MUST_EXIST, reason_, &found)) << reason_;
    ASSERT_EQ(0, stat(at("tool").c_str(), &expected));
    EXPECT_EQ(expected.st_ino, found.st_ino);
    ASSERT_TRUE(is_trusted_path(at("none"), USER, PATH_MAY_BE_MISSING, reason_, &found)) << reason_;
    EXPECT_EQ(0u, found.st_nlink);
}

TEST_F(Path_Trust_Test, what_belongs_to_another_user_is_refused_wherever_it_is) {
    make_directory("theirs", OTHER);
    make_file("theirs/tool", 0);
    EXPECT_TRUE(blames(at("theirs/tool"), at("theirs"), "belongs to uid 12346")) << reason_;
    EXPECT_TRUE(
        blames(at("theirs/none"), at("theirs"), "belongs to uid 12346", PATH_MAY_BE_MISSING));
    make_file("tool", OTHER);
    EXPECT_TRUE(blames(at("tool"), at("tool"), "belongs to uid 12346")) << reason_;
}

TEST_F(Path_Trust_Test, what_others_can_write_is_refused_wherever_it_is) {
    for (mode_t const mode : {0775, 0757, 01777, 02775}) {
        make_directory("open", USER, mode);
        make_file("open/tool");
        EXPECT_TRUE(blames(at("open/tool"), at("open"), "is writable by its group or by others"))
            << reason_;
    }
    for (mode_t const mode : {0664, 0646}) {
        make_file("tool", USER, mode);
        EXPECT_TRUE(blames(at("tool"), at("tool"), "is writable by its group or by others"));
    }
    EXPECT_TRUE(blames("/tmp/anything", "/tmp", "(mode 1777)", PATH_MAY_BE_MISSING)) << reason_;
}

TEST_F(Path_Trust_Test, links_are_followed_with_all_that_they_lead_through) {
    make_directory("a");
    make_directory("b", USER);
    make_file("b/tool");
    make_link("../b/tool", "a/relative");
    make_link(at("b"), "a/absolute");
    EXPECT_TRUE(trusts(at("a/relative"))) << reason_;
    EXPECT_TRUE(trusts(at("a/absolute/tool"))) << reason_;
    EXPECT_TRUE(trusts(at("a/absolute/../b/tool"))) << reason_;

    own("b", USER, 0777);
    EXPECT_TRUE(blames(at("a/relative"), at("b"), "writable")) << reason_;
    EXPECT_TRUE(blames(at("a/absolute/tool"), at("b"), "writable")) << reason_;
}

TEST_F(Path_Trust_Test, a_link_of_another_user_is_refused_also_when_its_target_is_trusted) {
    make_file("tool");
    make_link("tool", "link", OTHER);
    EXPECT_TRUE(blames(at("link"), at("link"), "belongs to uid 12346")) << reason_;
}

TEST_F(Path_Trust_Test, links_that_go_round_end) {
    make_link("round", "round");
    EXPECT_TRUE(blames(at("round"), at("round"), "too many symbolic links")) << reason_;
    make_link("two", "one");
    make_link("one/x", "two");
    EXPECT_FALSE(trusts(at("one")));
}

TEST_F(Path_Trust_Test, a_missing_end_is_trusted_on_request) {
    EXPECT_TRUE(blames(at("none/tool"), at("none"), "No such file or directory")) << reason_;
    EXPECT_TRUE(trusts(at("none/tool"), PATH_MAY_BE_MISSING)) << reason_;
    make_link("/tmp/none", "dangling");
    EXPECT_TRUE(blames(at("dangling"), "/tmp", "writable", PATH_MAY_BE_MISSING)) << reason_;
    EXPECT_TRUE(blames(at("none/../../../../tmp"), at("none"), "\"..\"", PATH_MAY_BE_MISSING))
        << reason_;
}

TEST_F(Path_Trust_Test, paths_that_are_not_paths_of_files_are_refused) {
    EXPECT_FALSE(trusts("", PATH_MAY_BE_MISSING));
    EXPECT_TRUE(blames("a/b", "a/b", "not an absolute path", PATH_MAY_BE_MISSING));
    EXPECT_TRUE(blames("\"/a\"", "\"/a\"", "not an absolute path", PATH_MAY_BE_MISSING));
    EXPECT_FALSE(trusts(std::string("/etc\0/x", 7), PATH_MAY_BE_MISSING));
    std::string overlong = at("");
    while (overlong.size() < PATH_MAX)
        overlong += "/.";
    EXPECT_FALSE(trusts(overlong));
    EXPECT_NE(std::string::npos, reason_.find("is too long")) << reason_;
    std::string const name(NAME_MAX + 1, 'a');
    EXPECT_TRUE(blames(at(name), at(name), "File name too long", PATH_MAY_BE_MISSING)) << reason_;
    make_file("tool");
    EXPECT_TRUE(blames(at("tool/x"), at("tool"), "not a directory", PATH_MAY_BE_MISSING));
    EXPECT_TRUE(blames(at("tool/.."), at("tool"), "not a directory"));
}

TEST_F(Path_Trust_Test, the_root_directory_itself_is_looked_at) {
    make_directory("jail", USER, 0777);
    make_file("jail/tool");
    pid_t const child = fork();
    if (child == 0)
        _exit(chroot(at("jail").c_str()) == -1 || chdir("/") == -1 || trusts("/tool") ||
              trusts("/none", PATH_MAY_BE_MISSING));
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status) << "others can write to the root directory";
}

TEST_F(Path_Trust_Test, a_reason_shows_the_path_without_what_leads_nowhere) {
    make_directory("theirs", OTHER);
    EXPECT_TRUE(blames(at("./x/.././/theirs/."), at("x"), "No such file")) << reason_;
    EXPECT_TRUE(blames(at(".//theirs/./tool"), at("theirs"), "belongs to uid 12346")) << reason_;
}

TEST_F(Path_Trust_Test, the_links_of_procfs_are_refused) {
    EXPECT_TRUE(blames("/proc/self/root/etc", "/proc", "procfs")) << reason_;
}

} // namespace
