#include "gaussdb/job/job_definition_rules.h"

#include "gaussdb/job/gaussdb_backup_job_options_parser.h"
#include "gaussdb/job/gaussdb_backup_job_source_parser.h"
#include "gaussdb/job/gaussdb_restore_job_options_parser.h"
#include "gaussdb/job/gaussdb_restore_job_source_parser.h"

#include <gtest/gtest.h>
#include <map>
#include <set>

namespace {

std::map<GAUSSDB_VERSION, std::string> const FLAVOURS = {
    {GAUSSDB_200, "GaussDB 200"},
    {GAUSSDB_100, "GaussDB 100"},
    {GAUSSDB_T, "GaussDB T"},
    {GAUSSDB_DWS, "GaussDB DWS"},
    {GAUSSDB_FOR_OPENGAUSS, "GaussDB for openGauss"},
    {GAUSSDB_TPOPS, "GaussDB of TPOPS"},
};
using Names = std::set<GAUSSDB_VERSION>;

template <typename Parser>
auto parsed(std::string const& text, std::string* ignored = nullptr) {
    Parser parser;
    EXPECT_TRUE(parser.parse(text.data(), text.size()) && parser.complete()) << parser.error();
    if (ignored)
        *ignored = parser.ignored();
    return parser.release();
}

template <typename Parser>
std::string ignored(std::string const& text) {
    std::string found;
    parsed<Parser>(text, &found);
    return found;
}

constexpr char WHOLE[] = R"({"id":"r","entries":["gaussdb/c1"]})";
constexpr char RESTORE[] = R"({"id":"r","restore_as":"gaussdb/c1"})";

std::string fault_of_backup(std::string const& options, GAUSSDB_VERSION flavour,
                            std::string const& source = WHOLE) {
    Job_Definition definition;
    definition.type(JOB_DEFINITION_BACKUP);
    definition.subtype(JOB_DEFINITION_SUBTYPE_FULL);
    definition.options(
        Job_Options_var(parsed<GaussDB_Backup_Job_Options_Parser>(options).release()));
    definition.source(Job_Source_var(parsed<GaussDB_Backup_Job_Source_Parser>(source).release()));
    return fault_of_job_definition(definition, flavour);
}

std::string fault_of_restore(std::string const& options, GAUSSDB_VERSION flavour,
                             std::string const& source = RESTORE) {
    Job_Definition definition;
    definition.type(JOB_DEFINITION_RESTORE);
    definition.options(
        Job_Options_var(parsed<GaussDB_Restore_Job_Options_Parser>(options).release()));
    definition.source(Job_Source_var(parsed<GaussDB_Restore_Job_Source_Parser>(source).release()));
    return fault_of_job_definition(definition, flavour);
}

struct Option_Case {
    char const* name;
    char const* value;
    Names flavours;
};

/** Each flavour takes the option or names it. */
template <typename Fault_Of>
void expect_options(std::vector<Option_Case> const& cases, Fault_Of fault_of) {
    for (Option_Case const& one : cases) {
        std::string const text = std::string("{\"") + one.name + "\":" + one.value + "}";
        EXPECT_EQ("", fault_of(text, GAUSSDB_UNKNOWN)) << text;
        for (auto const& [flavour, name] : FLAVOURS)
            EXPECT_EQ(one.flavours.contains(flavour) ? ""
                                                     : std::string("options: \"") + one.name +
                                                           "\" is not an option of " + name,
                      fault_of(text, flavour))
                << text;
    }
}

Names all() {
    Names names;
    for (auto const& [flavour, name] : FLAVOURS)
        names.insert(flavour);
    return names;
}
Names const ROACH{GAUSSDB_200, GAUSSDB_DWS, GAUSSDB_FOR_OPENGAUSS};
Names const REMOTE{GAUSSDB_DWS, GAUSSDB_FOR_OPENGAUSS};
Names const DWS{GAUSSDB_DWS};
Names const ONLY_T{GAUSSDB_T};

TEST(Job_Definition_Rules, a_backup_option_is_that_of_its_flavours) {
    expect_options({{"compression", "\"zstd\"", all()},
                    {"channels", "2", all()},
                    {"max_memory_usage", "1", ROACH},
                    {"buffer_size", "1", ROACH},
                    {"buffer_block_size", "1", ROACH},
                    {"filesplit_size", "1", DWS},
                    {"roach_compression_type", "1", DWS},
                    {"roach_compression_level", "1", DWS},
                    {"cpu_cores", "1", DWS},
                    {"master_timeout", "1", DWS},
                    {"cbm_recycle_level", "1", DWS},
                    {"mount", "true", ONLY_T},
                    {"clean_meta", "true", DWS},
                    {"cache_dir", "\"/x\"", ONLY_T},
                    {"logging_level", "\"INFO\"", DWS}},
                   [](std::string text, GAUSSDB_VERSION flavour) {
                       if (flavour == GAUSSDB_T && text.find("cache_dir") == text.npos)
                           text.insert(text.size() - 1, R"(,"cache_dir":"/x")");
                       return fault_of_backup(text, flavour);
                   });
}

TEST(Job_Definition_Rules, a_restore_option_is_that_of_its_flavours) {
    expect_options({{"channels", "2", all()},
                    {"max_memory_usage", "1", ROACH},
                    {"buffer_size", "1", ROACH},
                    {"buffer_block_size", "1", ROACH},
                    {"mount", "true", ONLY_T},
                    {"xml_config_path", "\"/x\"", REMOTE},
                    {"master_timeout", "1", REMOTE},
                    {"logging_level", "\"INFO\"", REMOTE},
                    {"restore_time", "\"2026-11-21T10:00:00+08:00\"", {GAUSSDB_TPOPS}}},
                   [](std::string const& text, GAUSSDB_VERSION flavour) {
                       return fault_of_restore(text, flavour);
                   });
}

TEST(Job_Definition_Rules, a_restore_time_is_a_time) {
    EXPECT_EQ("options: \"restore_time\" is \"tomorrow\", not a time such as "
              "\"2026-11-21T10:00:00+08:00\"",
              fault_of_restore(R"({"restore_time":"tomorrow"})", GAUSSDB_TPOPS));
    for (char const* const time :
         {"2026-11-21T10:00:00Z", "2026-11-21 10:00:00", "2026-11-21T10:00:00+0800"})
        EXPECT_EQ("", fault_of_restore(std::string(R"({"restore_time":")") + time + "\"}",
                                       GAUSSDB_TPOPS));
}

TEST(Job_Definition_Rules, a_platform_has_levels_of_its_own) {
    Job_Definition definition;
    definition.type(JOB_DEFINITION_BACKUP);
    for (Job_Definition_Subtype const level :
         {JOB_DEFINITION_SUBTYPE_FULL, JOB_DEFINITION_SUBTYPE_INCREMENTAL,
          JOB_DEFINITION_SUBTYPE_LOG}) {
        definition.subtype(level);
        EXPECT_EQ("", fault_of_job_definition(definition, GAUSSDB_TPOPS));
    }
    definition.subtype(JOB_DEFINITION_SUBTYPE_CUMULATIVE);
    EXPECT_EQ("level \"cumulative\" is not one of GaussDB of TPOPS (expected full, incremental or "
              "log)",
              fault_of_job_definition(definition, GAUSSDB_TPOPS));
    EXPECT_EQ("", fault_of_job_definition(definition, GAUSSDB_200));
}

TEST(Job_Definition_Rules, the_log_is_backed_up_by_a_platform_alone) {
    Job_Definition definition;
    definition.type(JOB_DEFINITION_BACKUP);
    definition.options(Job_Options_var());
    for (GAUSSDB_VERSION const flavour :
         {GAUSSDB_200, GAUSSDB_100, GAUSSDB_T, GAUSSDB_DWS, GAUSSDB_FOR_OPENGAUSS}) {
        for (Job_Definition_Subtype const level :
             {JOB_DEFINITION_SUBTYPE_FULL, JOB_DEFINITION_SUBTYPE_INCREMENTAL,
              JOB_DEFINITION_SUBTYPE_CUMULATIVE}) {
            definition.subtype(level);
            EXPECT_EQ("", fault_of_job_definition(definition, flavour));
        }
        for (Job_Definition_Subtype const level :
             {JOB_DEFINITION_SUBTYPE_LOG, JOB_DEFINITION_SUBTYPE_TABLE}) {
            definition.subtype(level);
            EXPECT_NE(std::string::npos, fault_of_job_definition(definition, flavour)
                                             .find("(expected full, incremental or cumulative)"));
        }
    }
    EXPECT_EQ("", fault_of_job_definition(definition, GAUSSDB_UNKNOWN));
}

TEST(Job_Definition_Rules, a_default_is_as_good_as_nothing) {
    for (auto const& [flavour, name] : FLAVOURS) {
        std::string const cache_dir = flavour == GAUSSDB_T ? "/x" : "";
        EXPECT_EQ("", fault_of_backup(R"({"mount":false,"filesplit_size":4294967296,
            "cbm_recycle_level":-1,"cpu_cores":0,"cache_dir":")" +
                                          cache_dir + "\"}",
                                      flavour));
        EXPECT_EQ("", fault_of_restore(R"({"restore_time":"","xml_config_path":""})", flavour));
    }
}

TEST(Job_Definition_Rules, what_the_database_writes_into_is_one_plain_path) {
    EXPECT_EQ("options: \"cache_dir\" is absent, but GaussDB T needs it",
              fault_of_backup(R"({"mount":true})", GAUSSDB_T));
    EXPECT_EQ("", fault_of_backup(R"({"cache_dir":"/var/gaussdb/backup"})", GAUSSDB_T));
    EXPECT_EQ("options: \"cache_dir\" is not an absolute path",
              fault_of_backup(R"({"cache_dir":"backup"})", GAUSSDB_T));
    for (char const* path : {"/a b", "/a'b", "/a;b", "/a/../b"})
        EXPECT_NE("", fault_of_backup(std::string(R"({"cache_dir":")") + path + "\"}", GAUSSDB_T))
            << path;
}

TEST(Job_Definition_Rules, a_level_is_one_of_its_method) {
    for (auto const& [method, most] : {std::pair{"zstd", 22}, std::pair{"lzop", 9},
                                       std::pair{"auto", 0}, std::pair{"none", 0}}) {
        auto const fault = [&, method = method](int level) {
            return fault_of_backup(std::string(R"({"compression":")") + method +
                                       R"(","compression_level":)" + std::to_string(level) + "}",
                                   GAUSSDB_200);
        };
        EXPECT_EQ("", fault(most)) << method;
        EXPECT_NE("", fault(most + 1)) << method;
        EXPECT_NE("", fault(-1)) << method;
    }
    EXPECT_EQ("options: \"compression_level\" is 99, but zstd has the levels 0 to 22",
              fault_of_backup(R"({"compression":"zstd","compression_level":99})", GAUSSDB_UNKNOWN));
}

TEST(Job_Definition_Rules, numbers_are_not_negative) {
    for (std::string const name :
         {"channels", "max_memory_usage", "buffer_size", "buffer_block_size"}) {
        std::string const text = "{\"" + name + "\":-1}";
        EXPECT_EQ("options: \"" + name + "\" is -1, but must not be negative",
                  fault_of_backup(text, GAUSSDB_200));
        EXPECT_NE("", fault_of_restore(text, GAUSSDB_200));
    }
}

TEST(Job_Definition_Rules, a_part_of_an_instance_is_for_flavours_that_have_them) {
    char const schema[] = R"({"id":"r","entries":["gaussdb/c1/schema/db/public"]})";
    char const table[] = R"({"id":"r","restore_as":"gaussdb/c1",
                             "entries":["gaussdb/c1/table/db/s/t/s/t2"]})";
    for (auto const& [flavour, name] : FLAVOURS) {
        EXPECT_EQ(flavour == GAUSSDB_DWS, fault_of_backup("{}", flavour, schema).empty()) << name;
        EXPECT_EQ(REMOTE.contains(flavour), fault_of_restore("{}", flavour, table).empty()) << name;
    }
    EXPECT_EQ("source: the entry \"gaussdb/c1/schema/db/public\" is a part of an instance, but "
              "GaussDB 200 has only whole ones",
              fault_of_backup("{}", GAUSSDB_200, schema));
}

TEST(Job_Definition_Rules, an_entry_of_no_known_shape_is_refused) {
    for (std::string const entry : {"gaussdb", "gaussdb/c1/schema", "gaussdb/c1/schema/db",
                                    "gaussdb/c1/table/db/s", "gaussdb/c1/other/db/s"}) {
        EXPECT_EQ("source: the entry \"" + entry + "\" names neither an instance nor a part of one",
                  fault_of_backup("{}", GAUSSDB_DWS, R"({"id":"r","entries":[")" + entry + "\"]}"));
        EXPECT_NE("", fault_of_restore("{}", GAUSSDB_DWS,
                                       R"({"id":"r","restore_as":"gaussdb/c1","entries":[")" +
                                           entry + "\"]}"));
    }
    EXPECT_EQ(
        "source: the entry \"gaussdb/c2\" is of another instance than \"c1\"",
        fault_of_backup("{}", GAUSSDB_200, R"({"id":"r","entries":["gaussdb/c1","gaussdb/c2"]})"));
}

TEST(Job_Definition_Rules, parsers_tell_what_they_take_no_notice_of) {
    using Backup = GaussDB_Backup_Job_Options_Parser;
    using Restore = GaussDB_Restore_Job_Options_Parser;
    using Backup_Source = GaussDB_Backup_Job_Source_Parser;
    using Restore_Source = GaussDB_Restore_Job_Source_Parser;
    EXPECT_EQ("", ignored<Backup>(R"({"compression":"none","channels":2,"mount":true,
        "cache_dir":null})"));
    EXPECT_EQ("unknown key \"chanels\"", ignored<Backup>(R"({"chanels":2,"also":1})"));
    EXPECT_EQ("unknown key \"restore_tme\"", ignored<Restore>(R"({"restore_tme":"x"})"));
    EXPECT_EQ("unknown compression \"gzip\" (expected none, zstd, lzop or auto)",
              ignored<Backup>(R"({"compression":"gzip"})"));
    EXPECT_EQ("a boolean at key \"channels\", which takes none",
              ignored<Backup>(R"({"channels":true})"));
    EXPECT_EQ("a boolean at key \"channels\", which takes none",
              ignored<Restore>(R"({"channels":true})"));
    EXPECT_EQ("a list at key \"channels\", which takes none",
              ignored<Backup>(R"({"channels":[2]})"));
    EXPECT_EQ("a list at key \"channels\", which takes none",
              ignored<Restore>(R"({"channels":[2]})"));
    EXPECT_EQ("a map at key \"channels\", which takes none",
              ignored<Backup>(R"({"channels":{"x":2}})"));
    EXPECT_EQ("a map at key \"channels\", which takes none",
              ignored<Restore>(R"({"channels":{"channels":2}})"));
    for (char const* number : {"4.9", "4e2", "99999999999"}) {
        std::string const text = std::string("{\"channels\":") + number + "}";
        std::string const fault =
            std::string("\"channels\" wants a whole number of its range, not ") + number;
        EXPECT_EQ(fault, ignored<Backup>(text));
        EXPECT_EQ(fault, ignored<Restore>(text));
    }
    EXPECT_EQ("", ignored<Backup>(R"({"filesplit_size":18446744073709551615})"));
    EXPECT_EQ("", ignored<Backup_Source>(WHOLE));
    EXPECT_EQ("", ignored<Restore_Source>(R"({"id":"r","name":"n","restore_as":"gaussdb/c1",
        "backup_key":"k","original":"gaussdb/c1","catalog_id":"c","entries":["gaussdb/c1"]})"));
    EXPECT_EQ("unknown key \"schema\"",
              ignored<Backup_Source>(R"({"id":"r","entries":[],"schema":"x"})"));
    EXPECT_EQ("a number at key \"entries\", which takes none",
              ignored<Backup_Source>(R"({"id":"r","entries":[1]})"));
    EXPECT_EQ("a number at key \"name\", which takes none",
              ignored<Backup_Source>(R"({"id":"r","name":1,"entries":[]})"));
    EXPECT_EQ("a boolean at key \"backup_key\", which takes none",
              ignored<Restore_Source>(R"({"id":"r","backup_key":true,"restore_as":"gaussdb/c1"})"));
}

} // namespace
