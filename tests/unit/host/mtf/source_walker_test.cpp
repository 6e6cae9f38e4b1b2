#include "host/mtf/source_walker.h"

#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <climits>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace MTF;
using testing::ElementsAre;

namespace {

class Recording_Visitor : public Source_Visitor {
public:
    Next visit(Source_Item const& item) override {
        paths.push_back(item.path);
        return on_visit ? on_visit(item) : GO_ON;
    }
    void unreadable(std::string const& path, int error) override {
        faults.push_back({path, error});
    }

    std::vector<std::string> paths;
    std::vector<std::pair<std::string, int>> faults;
    std::function<Next(Source_Item const&)> on_visit;
};

class Source_Walker_Test : public testing::Test {
protected:
    std::vector<std::string> normalized(std::vector<std::string> sources) {
        EXPECT_TRUE(normalize_sources(sources, bad_)) << bad_;
        return sources;
    }

    Temporary_Directory tree_;
    Recording_Visitor visitor_;
    std::string bad_;
};

TEST_F(Source_Walker_Test, ShowsAFolderBeforeWhatIsInIt) {
    tree_.write("a/b/c", "");
    tree_.write("a/b!", "");
    tree_.write("a-", "");
    EXPECT_TRUE(walk_source(tree_.path(), visitor_));
    EXPECT_THAT(visitor_.paths,
                ElementsAre(tree_.path(), tree_.path("a"), tree_.path("a/b"), tree_.path("a/b/c"),
                            tree_.path("a/b!"), tree_.path("a-")));
    EXPECT_TRUE(visitor_.faults.empty());
}

TEST_F(Source_Walker_Test, ShowsAFile) {
    visitor_.on_visit = [](Source_Item const& item) {
        EXPECT_EQ(4, item.status.st_size);
        EXPECT_EQ(item.path.substr(1), item.name);
        File_Descriptor const file = item.open();
        char buffer[8];
        EXPECT_EQ(4, read(file.get(), buffer, sizeof(buffer)));
        return Source_Visitor::GO_ON;
    };
    EXPECT_TRUE(walk_source(tree_.write("file", "four"), visitor_));
    EXPECT_EQ(1u, visitor_.paths.size());
}

TEST_F(Source_Walker_Test, ALinkWithinASourceIsNotFollowed) {
    tree_.write("real/file", "");
    ASSERT_EQ(0, symlink("real", tree_.path("link").c_str()));
    ASSERT_EQ(0, symlink("..", tree_.path("real/up").c_str()));
    std::string text;
    visitor_.on_visit = [&](Source_Item const& item) {
        if (S_ISLNK(item.status.st_mode) && item.base == "link") {
            EXPECT_TRUE(item.read_link(text));
            EXPECT_FALSE(item.open());
        }
        return Source_Visitor::GO_ON;
    };
    EXPECT_TRUE(walk_source(tree_.path(), visitor_));
    EXPECT_EQ("real", text);
    EXPECT_EQ(5u, visitor_.paths.size());
}

TEST_F(Source_Walker_Test, ASourceThatIsNotThereIsTold) {
    EXPECT_TRUE(walk_source(tree_.path("none"), visitor_));
    EXPECT_THAT(visitor_.faults, ElementsAre(std::pair(tree_.path("none"), ENOENT)));
    EXPECT_TRUE(visitor_.paths.empty());
}

TEST_F(Source_Walker_Test, WhatVanishesMeanwhileIsTold) {
    tree_.write("a", "");
    tree_.write("b", "");
    tree_.write("c", "");
    visitor_.on_visit = [&](Source_Item const& item) {
        if (item.base == "a")
            unlink(tree_.path("b").c_str());
        return Source_Visitor::GO_ON;
    };
    EXPECT_TRUE(walk_source(tree_.path(), visitor_));
    EXPECT_THAT(visitor_.faults, ElementsAre(std::pair(tree_.path("b"), ENOENT)));
    EXPECT_EQ(tree_.path("c"), visitor_.paths.back());
}

TEST_F(Source_Walker_Test, AFolderSwappedForALinkIsNotEntered) {
    Temporary_Directory outside;
    outside.write("secret", "");
    tree_.write("d/file", "");
    visitor_.on_visit = [&](Source_Item const& item) {
        if (item.base == "d") {
            std::filesystem::remove_all(item.path);
            EXPECT_EQ(0, symlink(outside.path().c_str(), item.path.c_str()));
        }
        return Source_Visitor::GO_ON;
    };
    EXPECT_TRUE(walk_source(tree_.path(), visitor_));
    EXPECT_EQ(tree_.path("d"), visitor_.paths.back());
    ASSERT_EQ(1u, visitor_.faults.size());
    EXPECT_EQ(tree_.path("d"), visitor_.faults[0].first);
}

TEST_F(Source_Walker_Test, TheVisitorMayPassOverAFolder) {
    tree_.write("a/file", "");
    tree_.write("b", "");
    visitor_.on_visit = [](Source_Item const& item) {
        return item.base == "a" ? Source_Visitor::PASS_OVER : Source_Visitor::GO_ON;
    };
    EXPECT_TRUE(walk_source(tree_.path(), visitor_));
    EXPECT_THAT(visitor_.paths, ElementsAre(tree_.path(), tree_.path("a"), tree_.path("b")));
}

TEST_F(Source_Walker_Test, TheVisitorMayEndTheWalk) {
    tree_.write("a/file", "");
    tree_.write("b", "");
    visitor_.on_visit = [](Source_Item const& item) {
        return item.base == "a" ? Source_Visitor::STOP : Source_Visitor::GO_ON;
    };
    EXPECT_FALSE(walk_source(tree_.path(), visitor_));
    EXPECT_EQ(2u, visitor_.paths.size());
}

TEST_F(Source_Walker_Test, APathThatIsTooLongToRestoreIsTold) {
    std::string const name(200, 'n');
    std::filesystem::path const start = std::filesystem::current_path();
    std::filesystem::current_path(tree_.path());
    for (int depth = 0; depth < 25; ++depth) {
        ASSERT_EQ(0, mkdir(name.c_str(), 0755));
        ASSERT_EQ(0, chdir(name.c_str()));
    }
    std::filesystem::current_path(start);
    EXPECT_TRUE(walk_source(tree_.path(), visitor_));
    ASSERT_EQ(1u, visitor_.faults.size());
    EXPECT_EQ(ENAMETOOLONG, visitor_.faults[0].second);
    EXPECT_LT(visitor_.paths.back().size(), static_cast<size_t>(PATH_MAX));
    EXPECT_EQ(0, rm_rf(tree_.path().c_str()));
}

TEST_F(Source_Walker_Test, SourcesAreOrderedAndEachStandsOnce) {
    EXPECT_THAT(normalized({"/b", "/a/", "/a/c", "//a", "/a-b", "/b/./x"}),
                ElementsAre("/a", "/a-b", "/b"));
}

TEST_F(Source_Walker_Test, ABadSourceChangesNothing) {
    std::vector<std::string> sources = {"/b", "relative", "/a"};
    EXPECT_FALSE(normalize_sources(sources, bad_));
    EXPECT_EQ("relative", bad_);
    EXPECT_THAT(sources, ElementsAre("/b", "relative", "/a"));
}

TEST(Source_Owner_Test, WhatBelongsToAnotherUserIsUnreadable) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    constexpr uid_t OWNER = 12345;
    Temporary_Directory files;
    files.write("tree/mine", "1");
    files.write("tree/other", "2");
    files.write("tree/closed/inner", "3");
    for (char const* name : {"tree", "tree/mine", "tree/closed/inner"})
        ASSERT_EQ(0, chown(files.path(name).c_str(), OWNER, OWNER));
    Recording_Visitor visitor;
    EXPECT_TRUE(walk_source(files.path("tree"), visitor, OWNER));
    EXPECT_THAT(visitor.paths, ElementsAre(files.path("tree"), files.path("tree/mine")));
    EXPECT_THAT(visitor.faults, ElementsAre(std::pair(files.path("tree/closed"), EPERM),
                                            std::pair(files.path("tree/other"), EPERM)));
}

TEST(Source_Owner_Test, ALinkGivenAsASourceIsNotFollowed) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give files away";
    constexpr uid_t OWNER = 12345;
    Temporary_Directory files;
    files.write("elsewhere/file", "1");
    ASSERT_EQ(0, symlink(files.path("elsewhere").c_str(), files.path("tree").c_str()));
    ASSERT_EQ(0, lchown(files.path("tree").c_str(), OWNER, OWNER));
    Recording_Visitor visitor;
    EXPECT_TRUE(walk_source(files.path("tree"), visitor, OWNER));
    EXPECT_THAT(visitor.paths, ElementsAre(files.path("tree"))); // the link itself
}

} // namespace
