#ifndef GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_OPTIONS_PARSER_H
#define GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_OPTIONS_PARSER_H

#include "gaussdb/job/gaussdb_restore_job_options.h"
#include "gaussdb/job/job_definition_parser.h"

/**
 * Parses a GaussDB_Restore_Job_Options. Levels do not matter: a nested map's keys count like those
 * of the top map, and an array is as if its values had come one after the other.
 */
class GaussDB_Restore_Job_Options_Parser
    : public Job_Definition_Parser_T<Job_Options, GaussDB_Restore_Job_Options> {
public:
    enum {
        CHANNELS_BIT = 1,
        MAX_MEMORY_USAGE_BIT = 2,
        BUFFER_SIZE_BIT = 4,
        BUFFER_BLOCK_SIZE_BIT = 8,
        MOUNT_BIT = 16,
        XML_CONFIG_PATH_BIT = 32,
        MASTER_TIMEOUT_BIT = 64,
        LOGGING_LEVEL_BIT = 128,
        RESTORE_TIME_BIT = 256
    };
    static Job_Definition_Key const key_table_1[];

    GaussDB_Restore_Job_Options_Parser() : Job_Definition_Parser_T(key_table_1) {}

    [[nodiscard]] bool handle_boolean_i(bool value) override;
    [[nodiscard]] bool handle_number_i(char const* text, size_t length) override;
    [[nodiscard]] bool handle_string_i(char const* text, size_t length) override;

private:
    /** False when there is nothing to fill, or no map whose value it would be. */
    [[nodiscard]] bool can_take_value() const { return object() && !states_.empty(); }
};

#endif
