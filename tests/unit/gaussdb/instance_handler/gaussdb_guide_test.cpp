#include "gaussdb/instance_handler/gaussdb_guide.h"

#include "gaussdb/common/gaussdb_const.h"
#include "json_spirit/access.h"

#include <gmock/gmock.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;

Database_Flavour flavour(int code) {
    for (Database_Flavour const& one : GaussDB_Guide().flavours())
        if (one.code == code)
            return one;
    ADD_FAILURE() << "no flavour " << code;
    return {};
}

Instance instance_with(Object const& options) {
    return {"gaussdb", "prod", "u-1", options, {}};
}

TEST(Guide, all_flavours_have_names_and_begin_with_full_backups) {
    std::vector<std::string> names;
    for (Database_Flavour const& one : GaussDB_Guide().flavours()) {
        names.push_back(one.name);
        EXPECT_THAT(one.title, HasSubstr("GaussDB")) << one.name;
        EXPECT_NE("", one.access);
        EXPECT_EQ("full", one.levels.at(0));
        EXPECT_EQ("instance", one.restores.at(0));
        EXPECT_THAT(one.backup_options, Contains("compression"));
        EXPECT_THAT(one.restore_options, Contains("channels"));
    }
    EXPECT_THAT(names, ElementsAre("100", "200", "T", "DWS", "openGauss", "TPOPS"));
}

TEST(Guide, what_is_special_of_a_flavour) {
    EXPECT_THAT(flavour(GAUSSDB_T).backup_options, Contains("cache_dir"));
    EXPECT_THAT(flavour(GAUSSDB_200).backup_options, Not(Contains("cache_dir")));
    EXPECT_THAT(flavour(GAUSSDB_TPOPS).restore_options, Contains("restore_time"));
    EXPECT_THAT(flavour(GAUSSDB_DWS).restore_options, Contains("xml_config_path"));
    EXPECT_THAT(flavour(GAUSSDB_200).levels, ElementsAre("full", "incremental"));
    EXPECT_THAT(flavour(GAUSSDB_TPOPS).levels, Contains("log"));
    EXPECT_THAT(flavour(GAUSSDB_DWS).parts, ElementsAre("schema"));
    EXPECT_THAT(flavour(GAUSSDB_FOR_OPENGAUSS).parts, ElementsAre());
    for (int const code : {GAUSSDB_T, GAUSSDB_DWS, GAUSSDB_FOR_OPENGAUSS})
        EXPECT_EQ((Object{{"channels", 4}}), flavour(code).usual_options);
    for (int const code : {GAUSSDB_100, GAUSSDB_200, GAUSSDB_TPOPS})
        EXPECT_EQ(Object(), flavour(code).usual_options);
}

TEST(Guide, a_record_says_flavour_and_version) {
    GaussDB_Guide const guide;
    auto const identify = [&](Object const& options) {
        Database_Guide::Identity const found = guide.identify(instance_with(options));
        return std::to_string(found.flavour) + " " + found.edition;
    };
    EXPECT_EQ("2 8.1.1", identify({{"version", 2}, {"edition", "8.1.1"}}));
    EXPECT_EQ("6 505.1.0", identify({{"tpops_host", "h"}, {"version", "505.1.0"}}));
    EXPECT_EQ("0 ", identify({}));
    EXPECT_EQ("0 ", identify({{"version", "2"}, {"edition", 8}}));
}

TEST(Guide, options_that_become_words_of_command_lines_are_held_to_their_rules) {
    GaussDB_Guide const guide;
    for (auto const& [key, hostile] : {std::pair{"ssh_options", "-o ProxyCommand=id"},
                                       {"ssh_options", "-oLocalCommand=id"},
                                       {"ssh_options", "-o StrictHostKeyChecking=no"},
                                       {"ssh_options", "-F /tmp/config"},
                                       {"ssh_options", "-o Port=22; id"},
                                       {"source_commands", "x' -oProxyCommand=id '"},
                                       {"address", "-oProxyCommand=id"},
                                       {"address", "$(id)"},
                                       {"address", "a@b@c"},
                                       {"meta_path", "/meta;id"},
                                       {"meta_path", "meta"},
                                       {"user", "omm\nroot"},
                                       {"tpops_host", "h/x"},
                                       {"instance", "../c"},
                                       {"name", "../c"},
                                       {"anything", "two\nlines"}})
        EXPECT_NE("", guide.fault_of_option(key, hostile)) << key << " " << hostile;
    for (auto const& [key, plain] : {std::pair{"address", "omm@10.0.0.1"},
                                     {"meta_path", "/gauss/meta"},
                                     {"ssh_options", "-o Port=2222 -i /root/.ssh/dws"},
                                     {"source_commands", "source \"$HOME/env\";"},
                                     {"user", "omm"},
                                     {"anything", "$(x)"}})
        EXPECT_EQ("", guide.fault_of_option(key, plain)) << key;
}

// before a backup

class Outlook_Test : public testing::Test {
protected:
    static Object set(char const* type, char const* timeline, char const* id) {
        return {{"type", type}, {"timeline", timeline}, {"backup_id", id}};
    }
    Backup_Outlook outlook(char const* level, Array const& usable, int version = 0) {
        Object options{{"tpops_host", "h"}};
        if (version)
            options = {{"version", version}};
        return GaussDB_Guide().outlook(instance_with(options), "main", level, usable);
    }
};

TEST_F(Outlook_Test, a_backup_of_a_platform_without_a_full_one_becomes_full) {
    for (char const* level : {"incremental", "log"}) {
        EXPECT_EQ("Pool main has no full backup of prod since its last restore: this becomes a "
                  "full backup.",
                  outlook(level, {}).note);
        EXPECT_EQ("", outlook(level, {}).refusal);
        EXPECT_EQ("", outlook(level, {}, GAUSSDB_DWS).note);
    }
    EXPECT_EQ("", outlook("full", {}).note);
}

TEST_F(Outlook_Test, a_log_of_a_platform_needs_a_backup_that_the_platform_knows) {
    Array const unknown{set("full", "t-1", "")};
    EXPECT_EQ("its platform knows no backup that the log could follow",
              outlook("log", unknown).refusal);
    EXPECT_EQ("Make a full backup first.", outlook("log", unknown).advice);
    EXPECT_EQ("", outlook("incremental", unknown).refusal);
    Array const of_other_timeline{set("full", "t-1", ""), set("incremental", "t-0", "b")};
    EXPECT_NE("", outlook("log", of_other_timeline).refusal);
    Array const known{set("incremental", "t-1", "b"), set("full", "t-1", "")};
    EXPECT_EQ("", outlook("log", known).refusal);
}

// what a set holds, and what is lost

Object schema_set() {
    return {{"granularity", "schema"},
            {"database", "shop"},
            {"series", GAUSSDB_DWS},
            {"tables", Array{Object{{"type", "database"}, {"name", "shop"}},
                             Object{{"type", "schema"}, {"name", "sale"}},
                             Object{{"type", "table"}, {"name", "orders"}},
                             Object{{"type", "schema"}, {"name", "archive"}}}}};
}

TEST(Guide, what_a_set_holds) {
    GaussDB_Guide const guide;
    EXPECT_THAT(guide.contents({{"type", "full"}}),
                ElementsAre(Pair("Holds", "the whole instance")));
    EXPECT_THAT(guide.contents(schema_set()),
                ElementsAre(Pair("Holds", "schemas sale, archive of database shop")));
    EXPECT_THAT(guide.contents({{"type", "log"}, {"series", GAUSSDB_TPOPS}, {"backup_id", "b"}}),
                ElementsAre(Pair("Holds", HasSubstr("log")), Pair("On the platform", "b")));
    EXPECT_THAT(guide.contents({{"series", GAUSSDB_T}, {"meta_destination", "/c/FULL"}}),
                Contains(Pair("Written to", "/c/FULL")));
}

TEST(Guide, a_restore_of_a_part_leaves_the_rest) {
    GaussDB_Guide const guide;
    Loss loss = guide.restore_loss(schema_set(), "prod", {});
    EXPECT_EQ("This rebuilds schemas of database shop of instance prod, which goes on running.",
              loss.title);
    EXPECT_THAT(loss.lost, HasSubstr("what these schemas hold, unless "));
    EXPECT_THAT(loss.lines, ElementsAre(Pair("Schema", "sale"), Pair("Schema", "archive")));
    loss = guide.restore_loss(schema_set(), "prod", {"shop.sale.orders"});
    EXPECT_EQ("This restores tables to instance prod, which goes on running.", loss.title);
    EXPECT_EQ("a table that has a target's name already", loss.lost);
    EXPECT_THAT(loss.lines, ElementsAre(Pair("Table", "shop.sale.orders")));
    Object nameless = schema_set();
    nameless.erase("database");
    EXPECT_THAT(guide.restore_loss(nameless, "prod", {}).title, HasSubstr("database unknown"));
    loss = guide.restore_loss({{"type", "full"}}, "prod", {});
    EXPECT_EQ("", loss.title + loss.lost) << "the usual words";
}

TEST(Guide, what_goes_with_a_backup) {
    GaussDB_Guide const guide;
    Object const newest{{"uuid", "b-2"}, {"series", GAUSSDB_T}};
    Object const older{{"uuid", "b-1"}, {"series", GAUSSDB_T}};
    Array const both{newest, older};
    EXPECT_THAT(guide.backup_loss(newest, both).lines,
                ElementsAre(Pair("Next backup", HasSubstr("must be a full one"))));
    EXPECT_TRUE(guide.backup_loss(older, both).lines.empty());
    EXPECT_TRUE(guide.backup_loss(newest, {}).lines.empty());
    EXPECT_THAT(guide.backup_loss({{"uuid", "b"}, {"series", GAUSSDB_TPOPS}}, {}).lines,
                ElementsAre(Pair("Platform", HasSubstr("keeps its own record"))));
}

TEST(Guide, what_goes_with_an_instance) {
    auto const lost = [](Object const& options) {
        return GaussDB_Guide().instance_loss(instance_with(options)).lines.at(0).second;
    };
    EXPECT_THAT(lost({{"tpops_host", "h"}}), HasSubstr("the platform keeps the instance"));
    EXPECT_THAT(lost({{"version", GAUSSDB_DWS}}), HasSubstr("its address"));
    EXPECT_THAT(lost({{"version", GAUSSDB_200}}), HasSubstr("the next search"));
}

} // namespace
