#include "qmrt/path.h"

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(Path_T, joins_with_exactly_one_slash) {
    EXPECT_EQ("/a/b", (qmrt::Path("/a") / "b").str());
    EXPECT_EQ("/a/b", (qmrt::Path("/a/") / "/b").str());
    EXPECT_EQ("b", (qmrt::Path() / "b").str());
    EXPECT_EQ("/b", (qmrt::Path() / "/b").str());
    EXPECT_EQ("/a", (qmrt::Path("/a") / "").str());
    EXPECT_EQ("/roach/k", (qmrt::Path("/") / "roach" / "k").str());
    EXPECT_TRUE(qmrt::Path(static_cast<char const*>(nullptr)).empty());
}

TEST(path, basename_and_dirname) {
    EXPECT_EQ("b", qmrt::basename("/a/b"));
    EXPECT_EQ("", qmrt::basename("/a/"));
    EXPECT_EQ("b", qmrt::basename("b"));
    EXPECT_EQ("/a", dirname_string("/a/b"));
    EXPECT_EQ("/", dirname_string("/a"));
    EXPECT_EQ(".", dirname_string("a"));
    EXPECT_EQ(".", dirname_string(""));
}

TEST(path, kinds_of_files_without_following_links) {
    Temporary_Directory const files;
    files.write("file", "x");
    ASSERT_EQ(0, symlink(files.path("file").c_str(), files.path("link").c_str()));
    EXPECT_TRUE(is_regular_file(files.path("file").c_str()));
    EXPECT_FALSE(is_regular_file(files.path("link").c_str()));
    EXPECT_TRUE(is_symbolic_link(files.path("link").c_str()));
    EXPECT_FALSE(is_symbolic_link(files.path("file").c_str()));
    EXPECT_TRUE(is_directory(files.path().c_str()));
    EXPECT_FALSE(is_directory(files.path("none").c_str()));
}

class Path_Conf_Test : public testing::Test {
protected:
    ~Path_Conf_Test() override { Path_Conf::component("agent"); }
    Temporary_Directory files_;
};

TEST_F(Path_Conf_Test, the_component_is_filled_in) {
    EXPECT_EQ("/var/agent/gaussdb/x", Path_Conf("/var/$COMPONENT/gaussdb", "x").str());
    Path_Conf::component("backupd");
    EXPECT_EQ("/var/backupd/backupd/x", Path_Conf("/var/$COMPONENT/$COMPONENT", "x").str());
}

TEST_F(Path_Conf_Test, a_component_that_names_itself_is_not_expanded_for_ever) {
    Path_Conf::component("$COMPONENT");
    EXPECT_EQ("/$COMPONENT/x", Path_Conf("/$COMPONENT", "x").str());
}

TEST_F(Path_Conf_Test, the_directory_is_made_with_its_mode_when_asked_for) {
    mode_t const old = umask(0);
    Path_Conf const path(files_.path("a/b"), true, "c/d", 0750);
    umask(old);
    EXPECT_EQ(files_.path("a/b/c/d"), path.str());
    struct stat status;
    ASSERT_EQ(0, stat(files_.path("a/b").c_str(), &status));
    EXPECT_EQ(0750u, status.st_mode & 07777);
    EXPECT_FALSE(files_.exists("a/b/c"));
}

TEST_F(Path_Conf_Test, nothing_is_made_otherwise) {
    Path_Conf const path(files_.path("a"), false, "b", 0);
    EXPECT_EQ(files_.path("a/b"), path.c_str());
    EXPECT_FALSE(files_.exists("a"));
}

TEST_F(Path_Conf_Test, a_leaf_that_leaves_the_directory_is_refused) {
    for (std::string const& leaf :
         {std::string(".."), std::string("../x"), std::string("a/../../x"), std::string("/etc"),
          std::string(), std::string("."), std::string("a//b"), std::string("a/"),
          std::string("a\0b", 3), std::string(256, 'x')}) {
        Path_Conf const path(files_.path("made"), true, leaf, 0755);
        EXPECT_FALSE(path) << leaf;
        EXPECT_STREQ("", path.c_str()) << leaf;
        EXPECT_LOGGED(LM_ERROR, "cannot be the name of a file in " + files_.path("made"));
    }
    EXPECT_FALSE(files_.exists("made"));
}

TEST_F(Path_Conf_Test, names_that_only_look_dangerous_are_names) {
    for (std::string const leaf : {"...", "..a", "a..b", ".env", "it's", "a b", "meta/x.ini"})
        EXPECT_EQ("/d/" + leaf, Path_Conf("/d", leaf).str());
}

TEST_F(Path_Conf_Test, a_directory_that_cannot_be_made_is_an_error) {
    files_.write("file", "x");
    Path_Conf const path(files_.path("file/a"), true, "b", 0755);
    EXPECT_FALSE(path);
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir " + files_.path("file/a") + ", errno=20,");
}

TEST(Directory_Reader, gives_every_name_but_the_dots) {
    Temporary_Directory const files;
    files.write("a", "");
    files.write(".b", "");
    files.write("c/d", "");
    Directory_Reader reader(files.path().c_str());
    ASSERT_TRUE(reader);
    std::set<std::string> names;
    while (char const* const name = reader.next())
        names.insert(name);
    EXPECT_EQ((std::set<std::string>{"a", ".b", "c"}), names);
}

TEST(Directory_Reader, a_directory_that_is_not_there_is_empty) {
    Directory_Reader reader("/nonexistent");
    EXPECT_EQ(ENOENT, errno);
    EXPECT_FALSE(reader);
    EXPECT_EQ(nullptr, reader.next());
}

} // namespace
