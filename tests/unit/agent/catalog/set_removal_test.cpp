#include "agent/catalog/catalog_tables.h"
#include "agent/catalog/recorded_set.h"
#include "agent/catalog/sqlite_catalog.h"

#include "tests/support/agent_database.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

constexpr Catalog_Limits LIMITS = {-1, -1};

/** Two chains of one resource, of a full backup and two incremental ones each. */
class Set_Removal_Test : public testing::Test {
protected:
    Set_Removal_Test() {
        commit("full", "k1", "", "full", 10);
        commit("first", "k2", "k1", "full", 20);
        commit("second", "k3", "k2", "full", 30);
        commit("later full", "k4", "", "later full", 40);
        commit("later first", "k5", "k4", "later full", 50);
    }

    Recorded_Set set(std::string const& uuid, std::string const& key, std::string const& prior,
                     std::string const& incarnation, time_t start,
                     std::string const& resource = "r") {
        return {"gaussdb",
                {{"uuid", uuid},
                 {"resource_uuid", resource},
                 {"backup_key", key},
                 {"prior_backup_key", prior},
                 {"incarnation", incarnation},
                 {"backup_start_time", start},
                 {"uri", "/a/folder/"},
                 {"storages", Array{Object{{"pool_uuid", "pool of " + uuid}}}},
                 {"pieces", Array{Object{{"path", "/" + uuid + "/piece"}}}}}};
    }
    void commit(std::string const& uuid, std::string const& key, std::string const& prior,
                std::string const& incarnation, time_t start, std::string const& resource = "r") {
        ASSERT_TRUE(
            catalog_.commit(LIMITS, set(uuid, key, prior, incarnation, start, resource), false));
    }
    Set_Removal remove(std::string const& uuid, bool dependents) {
        return catalog_.remove(uuid, dependents, [](auto const&) { return true; });
    }
    static std::string text(std::vector<std::string> const& uuids) {
        std::string text;
        for (std::string const& uuid : uuids)
            text += (text.empty() ? "" : ", ") + uuid;
        return text;
    }
    std::string left() {
        Value rows;
        std::vector<std::string> uuids;
        EXPECT_TRUE(catalog_.get_view(LIMITS, "gaussdb", "catalogs",
                                      {{"sort", "backup_start_time"}}, rows));
        for (Object const& row : json_spirit::objects_of(rows.get_array()))
            uuids.push_back(json_spirit::object_get_str(row, "uuid"));
        return text(uuids);
    }

    Test_Database database_{{CATALOG_TABLES}};
    SQLite_Catalog catalog_{*database_};
};

TEST_F(Set_Removal_Test, a_piece_of_one_name_is_in_the_folder_of_its_set_alone) {
    json_spirit::Object row = set("t", "k9", "", "t", 90).dump();
    row["pieces"] = Array{Object{{"path", "data.zst"}}, Object{{"path", "another-resource"}}};
    ASSERT_TRUE(catalog_.commit(LIMITS, Recorded_Set("gaussdb", row), false));
    Set_Removal const removal = remove("t", false);
    ASSERT_EQ(1u, removal.dropped.size());
    EXPECT_EQ("a/folder/data.zst, a/folder/another-resource",
              text(removal.dropped.front().piece_paths));
}

TEST_F(Set_Removal_Test, a_set_that_none_builds_on_goes_alone) {
    Set_Removal const removal = remove("second", false);
    EXPECT_EQ(Set_Removal::REMOVED, removal.kind);
    ASSERT_EQ(1u, removal.dropped.size());
    Dropped_Set const& dropped = removal.dropped.front();
    EXPECT_EQ("second", dropped.uuid);
    EXPECT_EQ("r", dropped.resource_uuid);
    EXPECT_EQ("pool of second", text(dropped.pool_uuids));
    EXPECT_EQ("second/piece, a/folder/second/piece", text(dropped.piece_paths));
    EXPECT_EQ("full, first, later full, later first", left());
}

TEST_F(Set_Removal_Test, a_set_that_others_build_on_stays) {
    Set_Removal const removal = remove("full", false);
    EXPECT_EQ(Set_Removal::IN_USE, removal.kind);
    EXPECT_EQ("second, first", text(removal.needed_by));
    EXPECT_FALSE(removal.being_written);
    EXPECT_TRUE(removal.dropped.empty());
    EXPECT_EQ("full, first, second, later full, later first", left());
}

TEST_F(Set_Removal_Test, with_its_dependents_a_chain_goes_and_no_other) {
    Set_Removal const removal = remove("full", true);
    EXPECT_EQ(Set_Removal::REMOVED, removal.kind);
    EXPECT_EQ(3u, removal.dropped.size());
    EXPECT_EQ("later full, later first", left());
}

TEST_F(Set_Removal_Test, keys_are_followed_out_of_the_incarnation_and_around_a_circle) {
    commit("a", "ka", "kb", "a", 60);
    commit("b", "kb", "ka", "b", 70);
    EXPECT_EQ("b", text(remove("a", false).needed_by));
    EXPECT_EQ(2u, remove("a", true).dropped.size());
}

TEST_F(Set_Removal_Test, the_same_key_of_another_resource_counts_for_nothing) {
    commit("foreign", "k9", "k5", "later full", 60, "another resource");
    EXPECT_EQ(Set_Removal::REMOVED, remove("later first", false).kind);
    EXPECT_EQ("full, first, second, later full, foreign", left());
}

TEST_F(Set_Removal_Test, sets_without_keys_build_on_all_of_their_incarnation_before) {
    commit("log backup", "", "", "later full", 60);
    EXPECT_EQ("log backup", text(remove("later first", false).needed_by));
    EXPECT_EQ(Set_Removal::REMOVED, remove("log backup", false).kind);
}

TEST_F(Set_Removal_Test, sets_of_no_chain_are_not_taken_for_one) {
    commit("one", "", "", "", 60);
    commit("two", "", "", "", 70);
    EXPECT_EQ(1u, remove("one", true).dropped.size());
}

TEST_F(Set_Removal_Test, what_is_being_written_stays_with_all_that_it_builds_on) {
    ASSERT_TRUE(catalog_.initialize(LIMITS, set("open", "", "k5", "later full", 60)));
    for (char const* const uuid : {"open", "later first", "later full"}) {
        Set_Removal const removal = remove(uuid, true);
        EXPECT_EQ(Set_Removal::IN_USE, removal.kind) << uuid;
        EXPECT_TRUE(removal.being_written) << uuid;
    }
    EXPECT_EQ(Set_Removal::REMOVED, remove("full", true).kind);
}

TEST_F(Set_Removal_Test, nothing_goes_that_could_not_be_prepared) {
    size_t asked = 0;
    Set_Removal const removal = catalog_.remove("full", true, [&](auto const& sets) {
        asked = sets.size();
        return false;
    });
    EXPECT_EQ(3u, asked);
    EXPECT_EQ(Set_Removal::FAILED, removal.kind);
    EXPECT_TRUE(removal.dropped.empty());
    EXPECT_EQ("full, first, second, later full, later first", left());
}

TEST_F(Set_Removal_Test, what_came_while_it_was_prepared_is_not_lost) {
    auto const add = [&](auto const&) {
        commit("third", "k6", "k3", "full", 35);
        return true;
    };
    EXPECT_EQ("third", text(catalog_.remove("second", false, add).needed_by));
    EXPECT_EQ(Set_Removal::REMOVED, remove("third", false).kind);
    EXPECT_EQ(Set_Removal::FAILED, catalog_.remove("full", true, add).kind);
    EXPECT_LOGGED(LM_ERROR, "what builds on it has changed meanwhile");
    EXPECT_EQ("full, first, second, third, later full, later first", left());
}

TEST_F(Set_Removal_Test, an_unknown_set_is_not_found) {
    EXPECT_EQ(Set_Removal::NOT_FOUND, remove("ful", true).kind);
}

TEST_F(Set_Removal_Test, what_builds_on_a_set_is_found_without_removing_it) {
    std::vector<std::string> uuids;
    ASSERT_TRUE(catalog_.find_dependents("full", uuids));
    EXPECT_EQ("second, first", text(uuids));
    ASSERT_TRUE(catalog_.find_dependents("second", uuids));
    EXPECT_EQ("", text(uuids));
    ASSERT_TRUE(catalog_.find_dependents("none", uuids));
    EXPECT_EQ("", text(uuids));
    EXPECT_EQ("full, first, second, later full, later first", left());
}

} // namespace
