#ifndef GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_SOURCE_PARSER_H
#define GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_SOURCE_PARSER_H

#include "gaussdb/job/gaussdb_restore_job_source.h"
#include "gaussdb/job/job_source_parser_t.h"

/** Parses a GaussDB_Restore_Job_Source. */
class GaussDB_Restore_Job_Source_Parser
    : public Job_Source_Parser_T<GaussDB_Restore_Job_Source_Parser, GaussDB_Restore_Job_Source> {
public:
    enum {
        ID_BIT = JOB_SOURCE_ID_BIT,
        NAME_BIT = JOB_SOURCE_NAME_BIT,
        CATALOG_ID_BIT = 4,
        BACKUP_KEY_BIT = 8,
        ORIGINAL_BIT = 16,
        RESTORE_AS_BIT = 32,
        ENTRIES_BIT = 128
    };
    static constexpr uint64_t COMMON_BITS = ID_BIT | RESTORE_AS_BIT;
    static Job_Definition_Key const key_table[];

    /** The field of a key's bit; null when it has none. */
    static std::string* text_field(GaussDB_Restore_Job_Source& source, uint64_t bit);
    static names::Rule rule_of(uint64_t bit);
};

#endif
