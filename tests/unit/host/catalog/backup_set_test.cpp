#include "host/catalog/backup_set.h"

#include "json_spirit/access.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

class Local_Set : public Backup_Set {
public:
    Local_Set() : Backup_Set("local") {}
    Object dump() const override {
        Object object = Backup_Set::dump();
        object["seq"] = seq;
        return object;
    }
    int64_t seq = 3;
};

TEST(Backup_Set, dump_has_a_key_for_each_field) {
    Local_Set set;
    set.uuid = "1";
    set.name = "2";
    set.definition_uuid = "3";
    set.job_act_id = "4";
    set.uid = "5";
    set.host_uuid = "6";
    set.host = "7";
    set.resource_uuid = "8";
    set.minor_resource_id = "9";
    set.resource_label = "10";
    set.agent = "11";
    set.type = "12";
    set.backup_start_time = 13;
    set.backup_end_time = 14;
    set.source_size = 15;
    set.backup_set_size = UINT64_MAX;
    EXPECT_EQ("local", set.kind());
    EXPECT_EQ((Object{{"uuid", "1"},
                      {"name", "2"},
                      {"definition_uuid", "3"},
                      {"job_act_id", "4"},
                      {"uid", "5"},
                      {"host_uuid", "6"},
                      {"host", "7"},
                      {"resource_uuid", "8"},
                      {"minor_resource_id", "9"},
                      {"resource_label", "10"},
                      {"agent", "11"},
                      {"type", "12"},
                      {"backup_start_time", 13},
                      {"backup_end_time", 14},
                      {"source_size", 15},
                      {"backup_set_size", UINT64_MAX},
                      {"pool_uuid", ""},
                      {"storages", Array{}},
                      {"pieces", Array{}},
                      {"seq", 3}}),
              set.dump());
}

TEST(Backup_Set, storages_and_pieces_are_arrays_in_the_order_of_adding) {
    Local_Set set;
    set.add_storage({"pool", 100});
    set.add_storage({"archive", 50, true});
    set.add_piece("a", 1);
    set.add_piece("b", 0);
    Object const object = set.dump();
    EXPECT_EQ(Value(Array{Object{{"pool_uuid", "pool"}, {"size", 100}},
                          Object{{"pool_uuid", "archive"}, {"size", 50}, {"copy", true}}}),
              object.at("storages"));
    EXPECT_EQ(Value(Array{Object{{"path", "a"}, {"size", 1}}, Object{{"path", "b"}, {"size", 0}}}),
              object.at("pieces"));
    EXPECT_EQ(Value("pool"), object.at("pool_uuid"));
}

TEST(Backup_Set, the_size_of_a_storage_can_be_written_again) {
    Local_Set set;
    set.add_storage({"pool", 0});
    set.storages.front().size = 9;
    EXPECT_EQ(Value(Array{Object{{"pool_uuid", "pool"}, {"size", 9}}}), set.dump().at("storages"));
}

using Selector = Backup_Set_Storage_Selector;

Value storage(char const* pool, bool copy) {
    Object object = {{"pool_uuid", pool}};
    if (copy)
        object["copy"] = true;
    return object;
}

TEST(Backup_Set_Storage_Selector, the_modes_have_their_values) {
    EXPECT_EQ(0, Selector::M_ANY);
    EXPECT_EQ(1, Selector::M_SOURCE);
    EXPECT_EQ(2, Selector::M_COPY);
}

TEST(Backup_Set_Storage_Selector, the_source_is_what_the_backup_wrote) {
    Array const storages = {storage("copy", true), storage("source", false), storage("b", false)};
    EXPECT_EQ("source", Selector(storages, Selector::M_SOURCE).pool_uuid());
    EXPECT_EQ("copy", Selector(storages, Selector::M_ANY).pool_uuid());
    EXPECT_EQ("copy", Selector(storages, Selector::M_COPY).pool_uuid());
}

TEST(Backup_Set_Storage_Selector, a_copy_stands_in_for_a_source_that_is_gone) {
    Array const storages = {storage("first", true), storage("second", true)};
    EXPECT_EQ("first", Selector(storages, Selector::M_SOURCE).pool_uuid());
}

TEST(Backup_Set_Storage_Selector, there_is_no_copy_among_sources) {
    EXPECT_EQ("", Selector({storage("source", false)}, Selector::M_COPY).pool_uuid());
}

TEST(Backup_Set_Storage_Selector, what_is_no_storage_does_not_count) {
    Array const storages = {Value(),
                            Value("text"),
                            Object{},
                            Object{{"pool_uuid", 5}},
                            storage("", false),
                            Object{{"pool_uuid", "good"}, {"copy", "no bool"}}};
    EXPECT_EQ("good", Selector(storages, Selector::M_SOURCE).pool_uuid());
    EXPECT_EQ("", Selector({}, Selector::M_SOURCE).pool_uuid());
}

} // namespace
