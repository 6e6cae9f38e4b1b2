#include "gaussdb/job/gaussdb_restore_job_source_parser.h"

Job_Definition_Key const GaussDB_Restore_Job_Source_Parser::key_table[] = {
    {"id", 2, ID_BIT},
    {"name", 4, NAME_BIT},
    {"catalog_id", 10, CATALOG_ID_BIT},
    {"backup_key", 10, BACKUP_KEY_BIT},
    {"original", 8, ORIGINAL_BIT},
    {"restore_as", 10, RESTORE_AS_BIT},
    {"entries", 7, ENTRIES_BIT},
    {nullptr, 0, 0},
};

std::string* GaussDB_Restore_Job_Source_Parser::text_field(GaussDB_Restore_Job_Source& source,
                                                           uint64_t bit) {
    switch (bit) {
    case CATALOG_ID_BIT:
        return &source.catalog_uuid_;
    case BACKUP_KEY_BIT:
        return &source.backup_key_;
    case ORIGINAL_BIT:
        return &source.original_;
    case RESTORE_AS_BIT:
        return &source.restore_as_;
    default:
        return nullptr;
    }
}

names::Rule GaussDB_Restore_Job_Source_Parser::rule_of(uint64_t bit) {
    switch (bit) {
    case CATALOG_ID_BIT:
    case BACKUP_KEY_BIT:
        return names::fault_of_id;
    case ORIGINAL_BIT:
    case RESTORE_AS_BIT:
        return fault_of_job_source_entry;
    default:
        return names::fault_of_line;
    }
}
