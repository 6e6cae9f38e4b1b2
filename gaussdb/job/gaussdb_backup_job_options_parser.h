#ifndef GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_OPTIONS_PARSER_H
#define GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_OPTIONS_PARSER_H

#include "gaussdb/job/gaussdb_backup_job_options.h"
#include "gaussdb/job/job_definition_parser.h"

/** Parses a GaussDB_Backup_Job_Options. Values count in the top map only; no key is required. */
class GaussDB_Backup_Job_Options_Parser
    : public Job_Level_Parser_T<Job_Options, GaussDB_Backup_Job_Options> {
public:
    enum {
        COMPRESSION_BIT = 1,
        CHANNELS_BIT = 2,
        MAX_MEMORY_USAGE_BIT = 4,
        BUFFER_SIZE_BIT = 8,
        BUFFER_BLOCK_SIZE_BIT = 16,
        COMPRESSION_LEVEL_BIT = 32,
        MOUNT_BIT = 64,
        CACHE_DIR_BIT = 128,
        CLEAN_META_BIT = 256,
        FILESPLIT_SIZE_BIT = 512,
        ROACH_COMPRESSION_TYPE_BIT = 1024,
        ROACH_COMPRESSION_LEVEL_BIT = 2048,
        CPU_CORES_BIT = 4096,
        MASTER_TIMEOUT_BIT = 8192,
        CBM_RECYCLE_LEVEL_BIT = 16384,
        LOGGING_LEVEL_BIT = 32768
    };
    static Job_Definition_Key const key_table_1[];

    GaussDB_Backup_Job_Options_Parser() : Job_Level_Parser_T(key_table_1) {}

    [[nodiscard]] bool handle_boolean_i(bool value) override;
    [[nodiscard]] bool handle_number_i(char const* text, size_t length) override;
    [[nodiscard]] bool handle_string_i(char const* text, size_t length) override;
};

#endif
