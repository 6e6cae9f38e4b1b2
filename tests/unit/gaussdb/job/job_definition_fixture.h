#ifndef TESTS_UNIT_GAUSSDB_JOB_JOB_DEFINITION_FIXTURE_H
#define TESTS_UNIT_GAUSSDB_JOB_JOB_DEFINITION_FIXTURE_H

#include "gaussdb/job/gaussdb_backup_job_options_parser.h"
#include "gaussdb/job/gaussdb_backup_job_source_parser.h"
#include "gaussdb/job/gaussdb_restore_job_options_parser.h"
#include "gaussdb/job/gaussdb_restore_job_source_parser.h"
#include "host/yajl/yajl_gen.h"

#include <memory>
#include <string>
#include <string_view>
#include <tuple>

inline auto fields(GaussDB_Backup_Job_Options const& o) {
    return std::make_tuple(o.compression_, o.mount_, o.clean_meta_, o.channels_,
                           o.max_memory_usage_, o.buffer_size_, o.buffer_block_size_,
                           o.compression_level_, o.roach_compression_type_,
                           o.roach_compression_level_, o.cpu_cores_, o.filesplit_size_,
                           o.cbm_recycle_level_, o.master_timeout_, o.cache_dir_, o.logging_level_);
}

inline auto fields(GaussDB_Restore_Job_Options const& o) {
    return std::make_tuple(o.channels_, o.max_memory_usage_, o.buffer_size_, o.buffer_block_size_,
                           o.master_timeout_, o.mount_, o.xml_config_path_, o.logging_level_,
                           o.restore_time_);
}

inline auto fields(GaussDB_Backup_Job_Source const& s) {
    return std::make_tuple(s.id(), s.name(), s.schemas_, s.instance_, s.entries_);
}

/** tables_ as a list, which gtest can print. */
inline auto fields(GaussDB_Restore_Job_Source const& s) {
    std::vector<std::string> tables;
    for (auto const& [database, mappings] : s.tables_)
        for (Table_Mapping const& m : mappings)
            tables.push_back(database + "|" + m.source_schema + "|" + m.source_table + "|" +
                             m.target_schema + "|" + m.target_table);
    return std::make_tuple(s.id(), s.name(), s.catalog_uuid_, s.backup_key_, s.original_,
                           s.restore_as_, s.entries_, tables);
}

/** A parser, the class that it fills, and a text that it accepts. */
struct Backup_Options {
    using Parser = GaussDB_Backup_Job_Options_Parser;
    using Object = GaussDB_Backup_Job_Options;
    static constexpr char SAMPLE[] =
        R"({"compression":"zstd","compression_level":3,"mount":true,"channels":4,)"
        R"("x":[1,{"y":[]}],"cbm_recycle_level":-1,"cache_dir":"/v\u00e4r/\"x\"","mount":null})";
};
struct Restore_Options {
    using Parser = GaussDB_Restore_Job_Options_Parser;
    using Object = GaussDB_Restore_Job_Options;
    static constexpr char SAMPLE[] =
        R"({"channels":12,"mount":true,"x":{"y":[1,"z"]},"master_timeout":5,)"
        R"("xml_config_path":"/v\u00e4r/\"x\"","restore_time":"2026-11-21T10:00:00Z"})";
};
struct Backup_Source {
    using Parser = GaussDB_Backup_Job_Source_Parser;
    using Object = GaussDB_Backup_Job_Source;
    static constexpr char SAMPLE[] = R"({"id":"6f","name":"n\u00e4","x":{"y":[1]},)"
                                     R"("entries":["gaussdb/c","gaussdb/c/schema/d/s"]})";
};
struct Restore_Source {
    using Parser = GaussDB_Restore_Job_Source_Parser;
    using Object = GaussDB_Restore_Job_Source;
    static constexpr char SAMPLE[] =
        R"({"id":"6f","name":"n\u00e4","catalog_id":"7f","x":{"y":[1]},"backup_key":"2026",)"
        R"("original":"gaussdb/a","restore_as":"gaussdb/c",)"
        R"("entries":["gaussdb/c/table/d/s/t/s2/t2"]})";
};

/** What a text gives. */
template <typename Kind>
struct Parse {
    explicit Parse(std::string_view text) { finish(parser.parse(text.data(), text.size())); }
    /** The same, in pieces of @a size bytes. */
    Parse(std::string_view text, size_t size) {
        bool going = true;
        for (; going && !text.empty(); text.remove_prefix(std::min(size, text.size())))
            going = parser.parse(text.data(), std::min(size, text.size()));
        finish(going);
    }

    /** The object, also a half filled one. */
    typename Kind::Object& object() const {
        return dynamic_cast<typename Kind::Object&>(*parser.result());
    }
    int err() const { return parser.err(); }
    std::string const& error() const { return parser.error(); }

    mutable typename Kind::Parser parser;
    bool ok = false;

private:
    void finish(bool going) { ok = going && parser.complete(); }
};

/** The text that generate() writes; "failed" when it does not return 0. */
template <typename Object>
std::string generated(Object& object) {
    YAJL_Gen gen;
    return object.generate(gen.get()) == 0 ? gen.text() : "failed";
}

/** True when the handler was given a text literal and wants to go on. */
template <typename Parser>
bool feed_string(Parser& parser, std::string_view text) {
    return parser.handle_string_i(text.data(), text.size());
}
template <typename Parser>
bool feed_number(Parser& parser, std::string_view text) {
    return parser.handle_number_i(text.data(), text.size());
}
template <typename Parser>
bool feed_key(Parser& parser, std::string_view text) {
    return parser.handle_map_key_i(text.data(), text.size());
}

#endif
