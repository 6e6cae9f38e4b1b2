#include "agent/storage/set_files.h"

#include "host/storage/xbsa_layout.h"
#include "tests/support/agent_pool.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <set>

namespace {

class Set_Files_Test : public testing::Test {
protected:
    void put(std::string const& name) {
        std::string const path = "pool/" + name;
        std::filesystem::create_directories(
            std::filesystem::path(pool_.database.directory().path(path)).parent_path());
        pool_.database.directory().write(path, "content");
    }
    std::set<std::string> left() const {
        std::set<std::string> files;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(pool_.path()))
            files.insert(std::filesystem::relative(entry.path(), pool_.path()));
        return files;
    }
    Dropped_Set dropped(std::vector<std::string> paths) const {
        return {"uuid", "gaussdb", "resource", {pool_.record.uuid}, std::move(paths)};
    }

    Agent_Pool pool_;
    Set_Files files_{pool_.pools, pool_.catalog, *pool_.journal, pool_.backend};
};

TEST_F(Set_Files_Test, pieces_go_as_they_are_stored_with_what_the_backup_tool_left) {
    put("a/plain");
    put("a/packed.zst");
    put("b/packed.lzo");
    put("b/other");
    put("folder/of/a/piece");
    std::string const of_tool = xbsa_set_folder("resource", "uuid") + "/object";
    put(of_tool);
    std::vector<Pool_Object> noted;
    EXPECT_TRUE(files_.note(
        dropped({"a/plain", "a/packed", "b/packed", "folder/of", "never/written", of_tool}),
        noted));
    EXPECT_EQ(5u, noted.size()) << "the tool's folder once, and not each object in it besides";
    files_.remove(noted);
    // the cluster's folder stays, since its user could not make it anew
    EXPECT_EQ((std::set<std::string>{"b", "b/other", "resource", "resource/xbsa"}), left());
    EXPECT_TRUE(pool_.journal->left().empty());
}

TEST_F(Set_Files_Test, what_another_complete_set_has_stays) {
    Recorded_Set const other = set_of("other", pool_.record.uuid, {"shared"});
    ASSERT_TRUE(pool_.catalog.initialize(NO_LIMITS, other));
    ASSERT_TRUE(pool_.catalog.complete(NO_LIMITS, other));
    put("shared");
    put("own");
    std::vector<Pool_Object> noted;
    EXPECT_TRUE(files_.note(dropped({"shared", "own"}), noted));
    files_.remove(noted);
    EXPECT_EQ(std::set<std::string>{"shared"}, left());
}

TEST_F(Set_Files_Test, a_death_before_the_removal_leaves_it_noted) {
    put("a/plain");
    std::vector<Pool_Object> noted;
    EXPECT_TRUE(files_.note(dropped({"a/plain"}), noted));
    auto const journal = Agent_Pool::open_journal(pool_.journal->path());
    EXPECT_EQ(noted, journal->left());
}

TEST_F(Set_Files_Test, of_a_pool_that_is_not_there_all_is_noted_and_put_off) {
    std::filesystem::remove_all(pool_.path());
    std::vector<Pool_Object> noted;
    EXPECT_TRUE(files_.note(dropped({"a/plain"}), noted));
    files_.remove(noted);
    EXPECT_EQ(noted, pool_.journal->left());
    EXPECT_EQ(2u, noted.size());
    EXPECT_LOGGED(LM_WARNING, "stays until it can be reached");
}

TEST_F(Set_Files_Test, a_pool_that_is_no_longer_on_record_is_left_alone) {
    std::vector<Pool_Object> noted;
    EXPECT_TRUE(files_.note({"uuid", "gaussdb", "resource", {"unknown"}, {"a"}}, noted));
    EXPECT_TRUE(noted.empty());
}

} // namespace
