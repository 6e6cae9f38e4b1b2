#ifndef GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_SOURCE_PARSER_H
#define GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_SOURCE_PARSER_H

#include "gaussdb/job/gaussdb_backup_job_source.h"
#include "gaussdb/job/job_source_parser_t.h"

/** Parses a GaussDB_Backup_Job_Source. */
class GaussDB_Backup_Job_Source_Parser
    : public Job_Source_Parser_T<GaussDB_Backup_Job_Source_Parser, GaussDB_Backup_Job_Source> {
public:
    enum { ID_BIT = JOB_SOURCE_ID_BIT, NAME_BIT = JOB_SOURCE_NAME_BIT, ENTRIES_BIT = 4 };
    static constexpr uint64_t COMMON_BITS = ID_BIT | ENTRIES_BIT;
    static Job_Definition_Key const key_table[];

    /** Besides id and name it has no string of its own. */
    static std::string* text_field(GaussDB_Backup_Job_Source&, uint64_t) { return nullptr; }
    static names::Rule rule_of(uint64_t) { return names::fault_of_line; }
};

#endif
