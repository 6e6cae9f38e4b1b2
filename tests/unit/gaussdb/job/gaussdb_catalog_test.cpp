#include "gaussdb/job/gaussdb_catalog.h"

#include "host/agent/host_services.h"
#include "json_spirit/access.h"
#include "tests/support/fake_catalog.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

class GaussDB_Catalog_Test : public testing::Test {
protected:
    void add(char const* uuid, char const* key, char const* prior, int when, char const* pool) {
        catalog_->add_row(Object{{"uuid", uuid},
                                 {"resource_uuid", "r"},
                                 {"pool_uuid", pool},
                                 {"incarnation", "full-1"},
                                 {"backup_key", key},
                                 {"prior_backup_key", prior},
                                 {"seq", when},
                                 {"backup_start_time", when * 100},
                                 {"backup_end_time", when * 100 + 50},
                                 {"storages", Array{Object{{"pool_uuid", pool}, {"size", when}}}}});
    }

    Fake_Catalog catalog_;
    GaussDB_Catalog asked_{30};
    std::string incarnation_ = "old";
    std::string key_ = "old";
    ACE_INT64 number_ = -7;
};

TEST_F(GaussDB_Catalog_Test, the_prior_backup_is_the_last_one_in_the_pool) {
    add("s1", "1_1", "", 1, "p");
    add("s2", "1_2", "1_1", 2, "p");
    add("s3", "1_3", "1_2", 3, "another");
    EXPECT_TRUE(asked_.get_prior_backup("r", "p", incarnation_, key_));
    EXPECT_EQ("1_2", key_);
    EXPECT_EQ("full-1", incarnation_);
    EXPECT_EQ((Object{{"resource_uuid", "r"},
                      {"pool_uuid", "p"},
                      {"sort", "backup_end_time"},
                      {"order", "desc"},
                      {"limit", 1},
                      {"cmode", "rb_orm_rows"}}),
              catalog_->queries().back());
    EXPECT_EQ(30, catalog_->limits().max_seconds_retry);
}

TEST_F(GaussDB_Catalog_Test, without_a_prior_backup_nothing_is_said) {
    EXPECT_FALSE(asked_.get_prior_backup("r", "p", incarnation_, key_));
    EXPECT_EQ("old old", incarnation_ + " " + key_);
}

TEST_F(GaussDB_Catalog_Test, a_prior_backup_without_its_key) {
    add("s1", "1_1", "", 1, "p");
    Object row = catalog_->row("s1");
    row["backup_key"] = Value(5);
    catalog_->add_row(row);
    EXPECT_FALSE(asked_.get_prior_backup("r", "p", incarnation_, key_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get prior backup: ");
    EXPECT_EQ("old old", incarnation_ + " " + key_);
}

TEST_F(GaussDB_Catalog_Test, the_sequence_runs_over_all_pools) {
    EXPECT_TRUE(asked_.get_seq("r", number_));
    EXPECT_EQ(1, number_);
    add("s1", "1_1", "", 1, "p");
    add("s7", "1_7", "", 7, "another");
    EXPECT_TRUE(asked_.get_seq("r", number_));
    EXPECT_EQ(8, number_);
    EXPECT_EQ((Object{{"resource_uuid", "r"},
                      {"sort", "seq"},
                      {"order", "desc"},
                      {"limit", 1},
                      {"cmode", "rb_orm_rows"}}),
              catalog_->queries().back());
}

TEST_F(GaussDB_Catalog_Test, a_sequence_that_is_no_number) {
    catalog_->add_row(Object{{"uuid", "s1"}, {"resource_uuid", "r"}, {"seq", "x"}});
    EXPECT_FALSE(asked_.get_seq("r", number_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get gaussdb backup sequence, ");
    EXPECT_EQ(-7, number_);
}

TEST_F(GaussDB_Catalog_Test, the_size_in_the_first_storage) {
    add("s4", "1_1", "", 4, "p");
    EXPECT_TRUE(asked_.get_storage_size("s4", number_));
    EXPECT_EQ(4, number_);
    EXPECT_EQ((Object{{"uuid", "s4"}, {"with_storages", "1"}, {"cmode", "rb_orm_rows"}}),
              catalog_->queries().back());
}

TEST_F(GaussDB_Catalog_Test, no_set_and_no_storage_have_no_size) {
    EXPECT_FALSE(asked_.get_storage_size("s4", number_));
    catalog_->add_row(Object{{"uuid", "s4"}, {"storages", Array{}}});
    EXPECT_FALSE(asked_.get_storage_size("s4", number_));
    catalog_->add_row(Object{{"uuid", "s5"}, {"storages", Array{Object{}}}});
    EXPECT_FALSE(asked_.get_storage_size("s5", number_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get gaussdb backup storage size, ");
    EXPECT_EQ(-7, number_);
}

TEST_F(GaussDB_Catalog_Test, the_chain_of_a_backup_newest_first) {
    add("s1", "1_1", "", 1, "p");
    add("s2", "1_2", "1_1", 2, "p");
    add("s3", "1_3", "1_2", 3, "p");
    Array rows;
    EXPECT_TRUE(asked_.get_chain("r", "1_2", rows));
    ASSERT_EQ(2u, rows.size());
    EXPECT_EQ("1_2", rows[0].get_obj().at("backup_key").get_str());
    EXPECT_EQ("1_1", rows[1].get_obj().at("backup_key").get_str());
    EXPECT_EQ((Object{{"resource_uuid", "r"},
                      {"backup_key", "1_2"},
                      {"sort", "backup_start_time"},
                      {"order", "desc"},
                      {"cmode", "rb_orm_rows"}}),
              catalog_->queries().back());
    EXPECT_FALSE(asked_.get_chain("r", "9_9", rows));
}

TEST_F(GaussDB_Catalog_Test, a_catalog_that_cannot_be_asked_fails_each_question) {
    catalog_->fail("get_view");
    Array rows;
    EXPECT_FALSE(asked_.get_prior_backup("r", "p", incarnation_, key_));
    EXPECT_FALSE(asked_.get_seq("r", number_));
    EXPECT_FALSE(asked_.get_storage_size("s", number_));
    EXPECT_FALSE(asked_.get_chain("r", "1_1", rows));
    EXPECT_EQ(4u, Log_Capture::instance().claim_all(LM_ERROR, ""));
}

} // namespace
