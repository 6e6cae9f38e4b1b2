#ifndef GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_SOURCE_H
#define GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_SOURCE_H

#include "host/job/job_definition.h"

#include <map>
#include <string>
#include <vector>

/**
 * What a backup job protects. Its entries are
 *
 *     gaussdb/<instance>                               the whole instance
 *     gaussdb/<instance>/schema/<database>/<schema>    one schema of it
 *
 * Plain data: filled once, then read from any thread.
 */
struct GaussDB_Backup_Job_Source : public Job_Source {
    /** The segments of an entry, behind "gaussdb". */
    enum { INSTANCE_IDX = 1, TYPE_IDX = 2, DATABASE_IDX = 3, SCHEMA_IDX = 4 };

    std::map<std::string, std::vector<std::string>> schemas_; ///< a database's chosen schemas
    std::string instance_; ///< of the first entry that has one; the others are not compared
    std::vector<std::string> entries_; ///< as given, in the order given

    /** Keeps an entry of any form; one that names a schema is also filed in schemas_. */
    void add_entry(std::string&& entry);

    /**
     * Writes id, name and entries as one JSON object; an empty name and no entries are left out.
     * @return 0; -1 when the generator is null (logged) or refuses
     */
    int generate(yajl_gen generator) override;
};

#endif
