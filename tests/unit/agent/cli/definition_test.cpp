#include "agent/cli/definition.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

Object const INSTANCE{{"name", "prod"}, {"uuid", "u-1"}};
Object const BACKUP{{"uuid", "b-1"},
                    {"instance", "prod"},
                    {"resource_uuid", "u-1"},
                    {"backup_key", "20261121_100000"},
                    {"pool_uuid", "p-1"}};

Object backup(Job_Wishes const& wishes, Object const& instance = INSTANCE) {
    Object definition;
    std::string error;
    EXPECT_TRUE(make_backup_definition(instance, "main", "full", wishes, definition, error))
        << error;
    return definition;
}

std::string backup_error(Job_Wishes const& wishes, Object const& instance = INSTANCE) {
    Object definition;
    std::string error;
    EXPECT_FALSE(make_backup_definition(instance, "main", "full", wishes, definition, error));
    return error;
}

TEST(Definition, a_backup_of_an_instance) {
    EXPECT_EQ((Object{{"type", "backup"},
                      {"subtype", "full"},
                      {"agent", "gaussdb"},
                      {"name", "full backup of prod to main"},
                      {"target", Object{{"pool", "main"}}},
                      {"source",
                       Object{{"id", "u-1"}, {"name", "prod"}, {"entries", Array{"gaussdb/prod"}}}},
                      {"options", Object{}}}),
              backup({}));
}

TEST(Definition, scripts_are_taken_as_they_stand) {
    Job_Wishes wishes;
    for (char const* const key :
         {"precondition", "pre_action", "post_action", "ignore_pre_action_failure",
          "ignore_post_action_failure", "run_post_action_always"})
        EXPECT_EQ(0U, backup(wishes).count(key)) << key;
    wishes.precondition = "test -e '/srv/a b'";
    wishes.pre_action = "one; two";
    wishes.post_action = "three\nfour";
    Object definition;
    std::string error;
    ASSERT_TRUE(make_restore_definition(BACKUP, nullptr, wishes, definition, error)) << error;
    for (Object const& made : {backup(wishes), definition}) {
        EXPECT_EQ(Value("test -e '/srv/a b'"), made.at("precondition"));
        EXPECT_EQ(Value("one; two"), made.at("pre_action"));
        EXPECT_EQ(Value("three\nfour"), made.at("post_action"));
        EXPECT_EQ(0U, made.count("run_post_action_always"));
    }
    wishes.ignore_pre_action_failure = true;
    EXPECT_EQ(Value(true), backup(wishes).at("ignore_pre_action_failure"));
    EXPECT_EQ(0U, backup(wishes).count("ignore_post_action_failure"));
    wishes.ignore_post_action_failure = true;
    EXPECT_EQ(Value(true), backup(wishes).at("ignore_post_action_failure"));
    wishes.run_post_action_always = true;
    EXPECT_EQ(Value(true), backup(wishes).at("run_post_action_always"));
}

TEST(Definition, rates_are_limits_at_the_pool) {
    Job_Wishes wishes;
    wishes.rates = {"200M", "08:00-18:00=1.5 KiB", "22:00-06:00=0"};
    std::string const text = "209715200;08:00-18:00=1536;22:00-06:00=0";
    EXPECT_EQ(Value(Object{{"dest_rate_limits", text}}), backup(wishes).at("rate_limits"));
    Object definition;
    std::string error;
    ASSERT_TRUE(make_restore_definition(BACKUP, nullptr, wishes, definition, error)) << error;
    EXPECT_EQ(Value(Object{{"src_rate_limits", text}}), definition.at("rate_limits"));
    EXPECT_EQ(0U, backup({}).count("rate_limits"));
    for (char const* const rate : {"", "fast", "=1", "08:00-18:00=", "8-18=1M", "1M=08:00-18:00",
                                   "08:00-08:00=1M", "-1", "1;2", "08:00-18:00=1M=2"}) {
        wishes.rates = {"1M", rate};
        EXPECT_EQ(std::string("invalid --rate '") + rate +
                      "' (expected bytes per second, such as 200M or 08:00-18:00=50M)",
                  backup_error(wishes));
    }
}

TEST(Definition, wishes_become_members_and_options) {
    Job_Wishes wishes;
    wishes.name = "nightly";
    wishes.uid = "user-1";
    wishes.compression = "zstd:3";
    wishes.channels = 4;
    wishes.options = {"mount=true", "cache_dir=/backup", "logging_level=\"1\"", "channels=8"};
    Object const definition = backup(wishes);
    EXPECT_EQ("nightly", definition.at("name").get_str());
    EXPECT_EQ("user-1", definition.at("uid").get_str());
    EXPECT_EQ(Value(Object{{"compression", "zstd"},
                           {"compression_level", 3},
                           {"channels", 8},
                           {"mount", true},
                           {"cache_dir", "/backup"},
                           {"logging_level", "1"}}),
              definition.at("options"));
}

TEST(Definition, a_name_with_a_slash_stays_one_name_of_the_entry) {
    Object const definition = backup({}, Object{{"name", "a/b c%"}, {"uuid", "u"}});
    EXPECT_EQ("gaussdb/a%2Fb%20c%25",
              definition.at("source").get_obj().at("entries").get_array().at(0).get_str());
}

TEST(Definition, an_instance_without_a_uuid) {
    EXPECT_EQ("the agent knows no uuid of this instance", backup_error({}, {{"name", "prod"}}));
}

TEST(Definition, compressions) {
    Object options;
    std::string error;
    EXPECT_TRUE(read_compression("none", options, error));
    EXPECT_EQ("none", options.at("compression").get_str());
    EXPECT_TRUE(read_compression("lzop", options, error));
    EXPECT_EQ(0u, options.count("compression_level"));
    for (char const* text : {"gzip", "zstd:", "zstd:x", "zstd:-1", "zstd:3:4", "none:1", ":3", ""})
        EXPECT_FALSE(read_compression(text, options, error)) << text;
    EXPECT_EQ((Object{{"compression", "lzop"}}), options);
    Job_Wishes wishes;
    wishes.compression = "gzip";
    EXPECT_EQ(
        "invalid compression 'gzip' (expected none, auto, zstd, lzop, zstd:LEVEL or lzop:LEVEL)",
        backup_error(wishes));
}

TEST(Definition, options) {
    Object options;
    std::string error;
    EXPECT_TRUE(read_option("a=b=c", options, error));
    EXPECT_TRUE(read_option("empty=", options, error));
    EXPECT_TRUE(read_option("real=1.5", options, error));
    EXPECT_TRUE(read_option("list=[1]", options, error));
    EXPECT_TRUE(read_option("null=null", options, error));
    EXPECT_EQ(
        (Object{{"a", "b=c"}, {"empty", ""}, {"real", 1.5}, {"list", "[1]"}, {"null", "null"}}),
        options);
    EXPECT_FALSE(read_option("=x", options, error));
    EXPECT_FALSE(read_option("x", options, error));
    Job_Wishes wishes;
    wishes.options = {"x"};
    EXPECT_EQ("invalid option 'x' (expected KEY=VALUE)", backup_error(wishes));
}

TEST(Definition, a_restore_to_where_the_backup_came_from) {
    Object definition;
    std::string error;
    ASSERT_TRUE(make_restore_definition(BACKUP, nullptr, {}, definition, error)) << error;
    EXPECT_EQ((Object{{"type", "restore"},
                      {"subtype", "instance"},
                      {"agent", "gaussdb"},
                      {"name", "restore of prod"},
                      {"target", Object{{"id", "u-1"}}},
                      {"source", Object{{"id", "u-1"},
                                        {"name", "prod"},
                                        {"catalog_id", "b-1"},
                                        {"backup_key", "20261121_100000"},
                                        {"original", "gaussdb/prod"},
                                        {"restore_as", "gaussdb/prod"},
                                        {"entries", Array{"gaussdb/prod"}}}},
                      {"options", Object{}}}),
              definition);
}

TEST(Definition, a_restore_to_another_instance_locks_that_one) {
    Object const other{{"name", "rehearsal"}, {"uuid", "u-2"}};
    Object definition;
    std::string error;
    ASSERT_TRUE(make_restore_definition(BACKUP, &other, {}, definition, error)) << error;
    EXPECT_EQ(Value(Object{{"id", "u-2"}}), definition.at("target"));
    EXPECT_EQ("gaussdb/rehearsal", definition.at("source").get_obj().at("restore_as").get_str());
    EXPECT_EQ("u-1", definition.at("source").get_obj().at("id").get_str());
    EXPECT_EQ("restore of prod as rehearsal", definition.at("name").get_str());
}

TEST(Definition, a_backup_that_cannot_be_restored_says_what_is_missing) {
    for (char const* key : {"uuid", "instance", "resource_uuid", "backup_key"}) {
        Object incomplete = BACKUP;
        incomplete[key] = "";
        Object definition;
        std::string error;
        EXPECT_FALSE(make_restore_definition(incomplete, nullptr, {}, definition, error));
        EXPECT_EQ(std::string("the catalog has no ") + key + " of this backup", error);
    }
    Object const nameless{{"uuid", "u-2"}};
    Object definition;
    std::string error;
    EXPECT_FALSE(make_restore_definition(BACKUP, &nameless, {}, definition, error));
    EXPECT_TRUE(definition.empty());
}

TEST(Definition, a_flavour_s_usual_options_are_added_where_they_are_absent) {
    auto const channels = [](Object const& usual, Job_Wishes const& wishes) {
        Object const options =
            backup(wishes, {{"name", "c"}, {"uuid", "u"}, {"usual_options", usual}})
                .at("options")
                .get_obj();
        return json_spirit::object_get_any(options, "channels");
    };
    Object const usual{{"channels", 4}};
    EXPECT_EQ(Value(4), channels(usual, {}));
    Job_Wishes wishes;
    wishes.channels = 2;
    EXPECT_EQ(Value(2), channels(usual, wishes));
    wishes.channels = 0;
    wishes.options = {"channels=3"};
    EXPECT_EQ(Value(3), channels(usual, wishes));
    EXPECT_EQ(Value(), channels({}, {}));
    Object set = BACKUP, definition;
    set["usual_options"] = usual;
    std::string error;
    ASSERT_TRUE(make_restore_definition(set, nullptr, {}, definition, error));
    EXPECT_EQ(Value(usual), definition.at("options"));
}

// schemas and tables

Array const TABLES{
    Object{{"uuid", "d1"}, {"parent_uuid", ""}, {"type", "database"}, {"name", "sales"}},
    Object{{"uuid", "s1"}, {"parent_uuid", "d1"}, {"type", "schema"}, {"name", "public"}},
    Object{{"uuid", "t1"}, {"parent_uuid", "s1"}, {"type", "table"}, {"name", "orders"}},
    Object{{"uuid", "t2"}, {"parent_uuid", "s1"}, {"type", "table"}, {"name", "T 1/x"}},
    Object{{"uuid", "d2"}, {"parent_uuid", ""}, {"type", "database"}, {"name", "shop"}},
    Object{{"uuid", "s2"}, {"parent_uuid", "d2"}, {"type", "schema"}, {"name", "public"}},
    Object{{"uuid", "t3"}, {"parent_uuid", "s2"}, {"type", "table"}, {"name", "items"}},
    Object{{"uuid", "t4"}, {"parent_uuid", "s2"}, {"type", "table"}, {"name", "T 1/x"}}};

Object backup_with_tables() {
    Object backup = BACKUP;
    backup["tables"] = TABLES;
    return backup;
}

TEST(Definition, a_backup_of_schemas) {
    Job_Wishes wishes;
    wishes.schemas = {"sales.public", "sales.S 2/x"};
    EXPECT_EQ(
        Value(Array{"gaussdb/prod/schema/sales/public", "gaussdb/prod/schema/sales/S%202%2Fx"}),
        backup(wishes).at("source").get_obj().at("entries"));
}

TEST(Definition, schemas_that_nothing_can_be) {
    for (char const* hostile : {"", "public", "a.b.c", ".b", "a.", "$(id).x", "a;id.x", "-a.b",
                                "a.b\nc", "a'b.c", "a b.c"}) {
        Job_Wishes wishes;
        wishes.schemas = {"sales.public", hostile};
        EXPECT_NE("", backup_error(wishes)) << hostile;
    }
}

TEST(Definition, what_a_set_holds_has_its_whole_path) {
    EXPECT_EQ((std::vector<std::string>{"sales", "sales.public", "sales.public.orders",
                                        "sales.public.T 1/x", "shop", "shop.public",
                                        "shop.public.items", "shop.public.T 1/x"}),
              held_names(backup_with_tables()));
    EXPECT_TRUE(held_names(BACKUP).empty());
}

TEST(Definition, a_restore_of_tables) {
    Job_Wishes wishes;
    wishes.tables = {"public.orders", "sales.public.T 1/x=old.T 1"};
    Object definition;
    std::string error;
    ASSERT_TRUE(make_restore_definition(backup_with_tables(), nullptr, wishes, definition, error))
        << error;
    EXPECT_EQ("table", definition.at("subtype").get_str());
    EXPECT_EQ(Value(Array{"gaussdb/prod/table/sales/public/orders/public/orders",
                          "gaussdb/prod/table/sales/public/T%201%2Fx/old/T%201"}),
              definition.at("source").get_obj().at("entries"));
}

TEST(Definition, tables_that_cannot_be_restored) {
    for (auto const& [wish, fault] : {std::pair{"orders", "is not [DATABASE.]SCHEMA.TABLE"},
                                      {"a.b.c.d", "is not [DATABASE.]SCHEMA.TABLE"},
                                      {"public.orders=x", "is not [DATABASE.]SCHEMA.TABLE"},
                                      {"public.orders=a.b.c", "is not [DATABASE.]SCHEMA.TABLE"},
                                      {"public.orders=a.b=c.d", "is not [DATABASE.]SCHEMA.TABLE"},
                                      {"public.none", "does not list table public.none"},
                                      {"public.T 1/x", "several databases have a table"},
                                      {"$(id).public.orders", "'$(id)'"},
                                      {"public.or\nders", "newline"},
                                      {"public.orders=a.b\nc", "newline"},
                                      {"public.=a.b", "is empty"}}) {
        Job_Wishes wishes;
        wishes.tables = {wish};
        Object definition;
        std::string error;
        EXPECT_FALSE(
            make_restore_definition(backup_with_tables(), nullptr, wishes, definition, error));
        EXPECT_NE(std::string::npos, error.find(fault)) << wish << ": " << error;
    }
    Job_Wishes wishes;
    wishes.tables = {"public.orders"};
    Object definition;
    std::string error;
    EXPECT_FALSE(make_restore_definition(BACKUP, nullptr, wishes, definition, error));
    EXPECT_EQ("the backup has no list of its tables; it cannot restore them one by one", error);
}

TEST(Definition, a_restore_as_a_new_cluster) {
    Job_Wishes wishes;
    wishes.config = "/home/omm/new.xml";
    Object const target{{"name", "dws2"}, {"uuid", "u-2"}};
    Object definition;
    std::string error;
    ASSERT_TRUE(make_restore_definition(BACKUP, &target, wishes, definition, error)) << error;
    EXPECT_EQ(Value(Object{{"xml_config_path", "/home/omm/new.xml"}}), definition.at("options"));
}

} // namespace
