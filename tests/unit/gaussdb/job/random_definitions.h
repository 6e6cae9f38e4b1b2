#ifndef TESTS_UNIT_GAUSSDB_JOB_RANDOM_DEFINITIONS_H
#define TESTS_UNIT_GAUSSDB_JOB_RANDOM_DEFINITIONS_H

#include "gaussdb/job/gaussdb_backup_job_options.h"
#include "gaussdb/job/gaussdb_backup_job_source.h"
#include "gaussdb/job/gaussdb_restore_job_options.h"
#include "gaussdb/job/gaussdb_restore_job_source.h"

#include <climits>
#include <cstdint>
#include <random>
#include <string>

/** Job definitions with every field at random, the same ones in each run. */
class Random_Definitions {
public:
    explicit Random_Definitions(unsigned int seed) : random_(seed) {}

    unsigned int below(unsigned int limit) { return random_() % limit; }
    bool flag() { return below(2) == 0; }

    /** One of the values at which something may change, or any. */
    int number() {
        static constexpr int EDGES[] = {0, 0, 1, -1, 2, 100, INT_MAX, INT_MIN};
        return below(3) ? EDGES[below(std::size(EDGES))] : static_cast<int>(random_());
    }
    int count() { return number() & INT_MAX; }

    /** One line of UTF-8, with all that JSON must escape in one; often empty. */
    std::string text() {
        static constexpr char const* PARTS[] = {
            "a",        "Z9", "\"",           "\\",     "/",
            "\xC3\xA4", " ",  "\xE2\x82\xAC", "{}[],:", "\xF0\x9F\x92\xBE",
            "%2F",      "'"};
        std::string result;
        for (unsigned int parts = below(8); parts > 0; --parts)
            result += PARTS[below(std::size(PARTS))];
        return result;
    }

    /** An id; often empty. */
    std::string id() {
        static constexpr char LETTERS[] = "aZ0_.-";
        std::string result;
        for (unsigned int letters = below(8); letters > 0; --letters)
            result += LETTERS[below(sizeof LETTERS - 1)];
        return result.empty() ? result : "a" + result;
    }

    /** What people call something; often empty. */
    std::string label() {
        std::string const result = text();
        return result.empty() ? result : "\"" + result + "\"";
    }

    /** An entry of any form, also one that names nothing. */
    std::string entry(char const* type, unsigned int whole) {
        std::string result = "gaussdb";
        for (unsigned int segment = 1, count = below(4) ? whole : below(10); segment < count;
             ++segment)
            result += "/" + (segment == 2 && below(4) ? std::string(type) : text());
        return result;
    }

    GaussDB_Backup_Job_Options backup_options() {
        GaussDB_Backup_Job_Options options;
        options.compression_ = static_cast<Compression_Method>(below(4));
        options.mount_ = flag();
        options.clean_meta_ = flag();
        for (int* const field :
             {&options.channels_, &options.max_memory_usage_, &options.buffer_size_,
              &options.buffer_block_size_, &options.compression_level_,
              &options.roach_compression_type_, &options.roach_compression_level_,
              &options.cpu_cores_, &options.cbm_recycle_level_})
            *field = number();
        options.filesplit_size_ =
            below(4) ? (uint64_t{random_()} << 32 | random_()) : (flag() ? 0 : UINT64_MAX);
        options.master_timeout_ = static_cast<unsigned int>(count());
        options.cache_dir_ = text();
        options.logging_level_ = text();
        return options;
    }

    GaussDB_Restore_Job_Options restore_options() {
        GaussDB_Restore_Job_Options options;
        for (int* const field : {&options.channels_, &options.max_memory_usage_,
                                 &options.buffer_size_, &options.buffer_block_size_})
            *field = number();
        options.master_timeout_ = static_cast<unsigned int>(count());
        options.mount_ = flag();
        options.xml_config_path_ = text();
        options.logging_level_ = text();
        options.restore_time_ = text();
        return options;
    }

    /** With at least one entry, as without one its text is no source. */
    GaussDB_Backup_Job_Source backup_source() {
        GaussDB_Backup_Job_Source source;
        source.id(id());
        source.name(label());
        for (unsigned int entries = 1 + below(5); entries > 0; --entries)
            source.add_entry(entry("schema", 5));
        return source;
    }

    /** With a restore_as_, as without one its text is no source. */
    GaussDB_Restore_Job_Source restore_source() {
        GaussDB_Restore_Job_Source source;
        source.id(id());
        source.name(label());
        source.catalog_uuid_ = id();
        source.backup_key_ = id();
        source.original_ = text();
        source.restore_as_ = "gaussdb/" + text();
        for (unsigned int entries = below(5); entries > 0; --entries)
            source.add_entry(entry("table", 8));
        return source;
    }

private:
    std::mt19937 random_;
};

#endif
