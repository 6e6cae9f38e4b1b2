#include "gaussdb/job/gaussdb_backup_job_source_parser.h"

Job_Definition_Key const GaussDB_Backup_Job_Source_Parser::key_table[] = {
    {"id", 2, ID_BIT},
    {"name", 4, NAME_BIT},
    {"entries", 7, ENTRIES_BIT},
    {nullptr, 0, 0},
};
