#include "gaussdb/job/gaussdb_backup_job_options_parser.h"
#include "gaussdb/job/gaussdb_backup_job_source_parser.h"
#include "gaussdb/job/gaussdb_restore_job_options_parser.h"
#include "gaussdb/job/gaussdb_restore_job_source_parser.h"
#include "host/yajl/yajl_gen.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <benchmark/benchmark.h>

/**
 * The streaming parsers and generators of job definitions, against the same text by way of the
 * value model: parse to a Value and take the fields out of it, make a Value and write its text.
 */
namespace {

using json_spirit::Object;

/** All options are set, and a source names 200 schemas or tables. */
struct Backup_Options {
    using Parser = GaussDB_Backup_Job_Options_Parser;
    using Job = GaussDB_Backup_Job_Options;

    static void fill(Job& job) {
        job.compression_ = COMPR_ZSTD;
        job.mount_ = job.clean_meta_ = true;
        job.channels_ = job.compression_level_ = job.roach_compression_type_ = 4;
        job.max_memory_usage_ = 4096;
        job.buffer_size_ = job.buffer_block_size_ = 1024;
        job.roach_compression_level_ = job.cpu_cores_ = 2;
        job.master_timeout_ = 3600;
        job.cache_dir_ = "/var/cache/quilmot/zenbrak3/gaussdb";
        job.logging_level_ = "DEBUG";
    }
    static void extract(Object const& object, Job& job) {
        std::string method;
        json_spirit::extract(object)("compression", method)("mount", job.mount_)(
            "clean_meta", job.clean_meta_)("channels", job.channels_)("max_memory_usage",
                                                                      job.max_memory_usage_)(
            "buffer_size", job.buffer_size_)("buffer_block_size", job.buffer_block_size_)(
            "compression_level", job.compression_level_)("roach_compression_type",
                                                         job.roach_compression_type_)(
            "roach_compression_level", job.roach_compression_level_)("cpu_cores", job.cpu_cores_)(
            "filesplit_size", job.filesplit_size_)("cbm_recycle_level", job.cbm_recycle_level_)(
            "master_timeout", job.master_timeout_)("cache_dir", job.cache_dir_)("logging_level",
                                                                                job.logging_level_);
        job.compression_ =
            compression_name_to_value(method.data(), static_cast<ssize_t>(method.size()));
    }
    static Object make(Job const& job) {
        return json_spirit::Object_Maker()("compression",
                                           compression_value_to_name(job.compression_))(
            "mount", job.mount_)("clean_meta", job.clean_meta_)("channels", job.channels_)(
            "max_memory_usage", job.max_memory_usage_)("buffer_size", job.buffer_size_)(
            "buffer_block_size", job.buffer_block_size_)(
            "compression_level", job.compression_level_)("roach_compression_type",
                                                         job.roach_compression_type_)(
            "roach_compression_level", job.roach_compression_level_)("cpu_cores", job.cpu_cores_)(
            "filesplit_size", job.filesplit_size_)("cbm_recycle_level", job.cbm_recycle_level_)(
            "master_timeout", job.master_timeout_)("cache_dir", job.cache_dir_)("logging_level",
                                                                                job.logging_level_);
    }
};

struct Restore_Options {
    using Parser = GaussDB_Restore_Job_Options_Parser;
    using Job = GaussDB_Restore_Job_Options;

    static void fill(Job& job) {
        job.channels_ = 4;
        job.max_memory_usage_ = 4096;
        job.buffer_size_ = job.buffer_block_size_ = 1024;
        job.master_timeout_ = 3600;
        job.mount_ = true;
        job.xml_config_path_ = "/opt/gaussdb/cluster_config.xml";
        job.logging_level_ = "DEBUG";
        job.restore_time_ = "2026-11-21T10:00:00+08:00";
    }
    static void extract(Object const& object, Job& job) {
        json_spirit::extract(object)("channels", job.channels_)(
            "max_memory_usage", job.max_memory_usage_)("buffer_size", job.buffer_size_)(
            "buffer_block_size", job.buffer_block_size_)("master_timeout", job.master_timeout_)(
            "mount", job.mount_)("xml_config_path", job.xml_config_path_)(
            "logging_level", job.logging_level_)("restore_time", job.restore_time_);
    }
    static Object make(Job const& job) {
        return json_spirit::Object_Maker()("channels", job.channels_)(
            "max_memory_usage", job.max_memory_usage_)("buffer_size", job.buffer_size_)(
            "buffer_block_size", job.buffer_block_size_)("master_timeout", job.master_timeout_)(
            "mount", job.mount_)("xml_config_path", job.xml_config_path_)(
            "logging_level", job.logging_level_)("restore_time", job.restore_time_);
    }
};

constexpr int ENTRIES = 200;

template <typename Job>
void extract_source(Object const& object, Job& job) {
    std::string id, name;
    json_spirit::Array const* entries = nullptr;
    json_spirit::extract(object)("id", id)("name", name)("entries", entries);
    job.id(std::move(id));
    job.name(std::move(name));
    if (entries)
        for (std::string const& entry : json_spirit::strings_of(*entries))
            job.add_entry(std::string(entry));
}

template <typename Job>
json_spirit::Object_Maker source_maker(Job const& job) {
    json_spirit::Array entries;
    for (std::string const& entry : job.entries_)
        entries.emplace_back(entry);
    json_spirit::Object_Maker maker;
    maker("id", job.id())("name", job.name())("entries", std::move(entries));
    return maker;
}

struct Backup_Source {
    using Parser = GaussDB_Backup_Job_Source_Parser;
    using Job = GaussDB_Backup_Job_Source;

    static void fill(Job& job) {
        job.id("6f9619ff-8b86-d011-b42d-00cf4fc9648f");
        job.name("production");
        for (int entry = 0; entry < ENTRIES; ++entry)
            job.add_entry("gaussdb/production/schema/sales/schema_" + std::to_string(entry));
    }
    static void extract(Object const& object, Job& job) { extract_source(object, job); }
    static Object make(Job const& job) { return source_maker(job); }
};

struct Restore_Source {
    using Parser = GaussDB_Restore_Job_Source_Parser;
    using Job = GaussDB_Restore_Job_Source;

    static void fill(Job& job) {
        job.id("6f9619ff-8b86-d011-b42d-00cf4fc9648f");
        job.name("production");
        job.catalog_uuid_ = "7f9619ff-8b86-d011-b42d-00cf4fc9648f";
        job.backup_key_ = "20261121_100000";
        job.original_ = "gaussdb/production";
        job.restore_as_ = "gaussdb/rehearsal";
        for (int entry = 0; entry < ENTRIES; ++entry)
            job.add_entry("gaussdb/production/table/sales/public/orders_" + std::to_string(entry) +
                          "/rehearsal/orders_" + std::to_string(entry));
    }
    static void extract(Object const& object, Job& job) {
        json_spirit::extract(object)("catalog_id", job.catalog_uuid_)(
            "backup_key", job.backup_key_)("original", job.original_)("restore_as",
                                                                      job.restore_as_);
        extract_source(object, job);
    }
    static Object make(Job const& job) {
        return source_maker(job)("catalog_id", job.catalog_uuid_)("backup_key", job.backup_key_)(
            "original", job.original_)("restore_as", job.restore_as_);
    }
};

template <typename Kind>
typename Kind::Job& sample() {
    static typename Kind::Job job = [] {
        typename Kind::Job filled;
        Kind::fill(filled);
        return filled;
    }();
    return job;
}

template <typename Kind>
std::string const& text() {
    static std::string const written = [] {
        YAJL_Gen gen;
        sample<Kind>().generate(gen.get());
        return gen.text();
    }();
    return written;
}

template <typename Kind>
void count(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text<Kind>().size()));
}

template <typename Kind>
void parse_stream(benchmark::State& state) {
    for (auto _ : state) {
        typename Kind::Parser parser;
        if (!parser.parse(text<Kind>().data(), text<Kind>().size()) || !parser.complete())
            state.SkipWithError(parser.error().c_str());
        benchmark::DoNotOptimize(parser.release());
    }
    count<Kind>(state);
}

template <typename Kind>
void parse_value(benchmark::State& state) {
    for (auto _ : state) {
        json_spirit::Value value;
        if (!json_spirit::parse(text<Kind>(), value, nullptr))
            state.SkipWithError("does not parse");
        auto job = std::make_unique<typename Kind::Job>();
        Kind::extract(value.get_obj(), *job);
        benchmark::DoNotOptimize(job);
    }
    count<Kind>(state);
}

template <typename Kind>
void generate_stream(benchmark::State& state) {
    for (auto _ : state) {
        YAJL_Gen gen;
        sample<Kind>().generate(gen.get());
        benchmark::DoNotOptimize(gen.text());
    }
    count<Kind>(state);
}

template <typename Kind>
void generate_value(benchmark::State& state) {
    for (auto _ : state)
        benchmark::DoNotOptimize(json_spirit::to_text(Kind::make(sample<Kind>())));
    count<Kind>(state);
}

#define BENCHMARK_KIND(Kind, name)                                                                 \
    BENCHMARK_TEMPLATE(parse_stream, Kind)->Name("parse_" name "_stream");                         \
    BENCHMARK_TEMPLATE(parse_value, Kind)->Name("parse_" name "_value");                           \
    BENCHMARK_TEMPLATE(generate_stream, Kind)->Name("generate_" name "_stream");                   \
    BENCHMARK_TEMPLATE(generate_value, Kind)->Name("generate_" name "_value")

BENCHMARK_KIND(Backup_Options, "backup_options");
BENCHMARK_KIND(Restore_Options, "restore_options");
BENCHMARK_KIND(Backup_Source, "backup_source");
BENCHMARK_KIND(Restore_Source, "restore_source");

} // namespace

BENCHMARK_MAIN();
