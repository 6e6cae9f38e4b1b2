#include "gaussdb/job/gaussdb_backup_set.h"

#include "host/catalog/catalog_operator.h"
#include "json_spirit/access.h"
#include "tests/support/fake_catalog.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Object;
using json_spirit::Value;

GaussDB_Backup_Set filled() {
    GaussDB_Backup_Set set;
    set.uuid = "set-1";
    set.resource_uuid = "cluster-1";
    set.resource_label = "gaussdb physical backup";
    set.incarnation = "set-0";
    set.instance = "c1";
    set.database_version = "V500R002C00";
    set.seq = 7;
    set.meta_destination = "/meta";
    set.backup_key = "1_2";
    set.prior_backup_key = "1_1";
    set.compression = "zstd";
    set.nodes = 3;
    set.granularity = "schema";
    set.database = "sales";
    set.series = GAUSSDB_200;
    return set;
}

TEST(GaussDB_Backup_Set, shows_its_fields_beside_those_of_every_set) {
    Object const object = filled().dump();
    for (auto const& [key, value] : Object{{"uuid", "set-1"},
                                           {"resource_label", "gaussdb physical backup"},
                                           {"incarnation", "set-0"},
                                           {"instance", "c1"},
                                           {"database_version", "V500R002C00"},
                                           {"seq", 7},
                                           {"meta_destination", "/meta"},
                                           {"backup_key", "1_2"},
                                           {"prior_backup_key", "1_1"},
                                           {"compression", "zstd"},
                                           {"nodes", 3},
                                           {"nodes_count", 3},
                                           {"granularity", "schema"},
                                           {"database", "sales"},
                                           {"series", 2}})
        EXPECT_EQ(value, object.at(key)) << key;
}

TEST(GaussDB_Backup_Set, shows_what_is_of_a_platform_for_its_series_only) {
    Object const fields{{"timeline", "set-0"},
                        {"instance_id", "i-1"},
                        {"backup_id", "b-1"},
                        {"begin_time", -2878200},
                        {"end_time", 1800},
                        {"platform_begin_time", "1970-01-01T08:30:00+0800"},
                        {"platform_end_time", "1970-01-01T00:30:00+0000"}};
    GaussDB_Backup_Set set = filled();
    set.timeline = "set-0";
    set.instance_id = "i-1";
    set.backup_id = "b-1";
    set.begin_time = -2878200;
    set.end_time = 1800;
    set.platform_begin_time = "1970-01-01T08:30:00+0800";
    set.platform_end_time = "1970-01-01T00:30:00+0000";
    for (auto const& [key, value] : fields)
        EXPECT_FALSE(set.dump().count(key)) << key;
    set.series = GAUSSDB_TPOPS;
    for (auto const& [key, value] : fields)
        EXPECT_EQ(value, set.dump().at(key)) << key;
    set.platform_begin_time.clear();
    EXPECT_FALSE(set.dump().count("platform_begin_time"));
}

TEST(GaussDB_Backup_Set, shows_what_tables_it_holds_when_it_knows) {
    GaussDB_Backup_Set set = filled();
    EXPECT_FALSE(set.dump().count("tables"));
    set.tables.emplace_back(Object{{"name", "t1"}});
    EXPECT_EQ(Value(set.tables), set.dump().at("tables"));
}

TEST(GaussDB_Backup_Set, shows_its_folder_when_its_pieces_are_named_from_there) {
    GaussDB_Backup_Set set = filled();
    EXPECT_FALSE(set.dump().count("uri"));
    set.uri = "resource/FULL_1";
    EXPECT_EQ(Value("resource/FULL_1"), set.dump().at("uri"));
}

TEST(GaussDB_Backup_Set, is_found_in_the_catalog_under_its_database) {
    Fake_Catalog catalog;
    GaussDB_Backup_Set set = filled();
    EXPECT_EQ("gaussdb", set.kind());
    EXPECT_TRUE(Catalog_Operator(-1, -1).commit(set, false));
    Value row;
    EXPECT_TRUE(Catalog_Operator(-1, -1).get_first_view("gaussdb", "catalogs",
                                                        Object{{"uuid", "set-1"}}, row));
    EXPECT_EQ("1_2", json_spirit::object_get_str(row.get_obj(), "backup_key"));
}

} // namespace
