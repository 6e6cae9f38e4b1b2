#ifndef GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_SOURCE_H
#define GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_SOURCE_H

#include "host/job/job_definition.h"

#include <forward_list>
#include <map>
#include <string>
#include <vector>

/** Which table is restored as which. */
struct Table_Mapping {
    std::string source_schema;
    std::string source_table;
    std::string target_schema;
    std::string target_table;

    bool operator==(Table_Mapping const&) const = default;
};

/**
 * What a restore job puts back, and where. Its entries are
 *
 *     gaussdb/<instance>
 *     gaussdb/<instance>/table/<database>/<schema>/<table>/<target schema>/<target table>
 *
 * Plain data: filled once, then read from any thread.
 */
struct GaussDB_Restore_Job_Source : public Job_Source {
    /** The segments of an entry, behind "gaussdb". */
    enum {
        INSTANCE_OFF = 1,
        TYPE_OFF = 2,
        DATABASE_OFF = 3,
        SOURCE_SCHEMA_OFF = 4,
        SOURCE_TABLE_OFF = 5,
        TARGET_SCHEMA_OFF = 6,
        TARGET_TABLE_OFF = 7
    };

    std::string catalog_uuid_;         ///< the backup set in the catalog
    std::string backup_key_;           ///< the backup tool's own name of the set
    std::string original_;             ///< the resource that the backup is of
    std::string restore_as_;           ///< an entry; its instance is where the restore goes
    std::vector<std::string> entries_; ///< as given, in the order given
    /** The tables to restore of each database, the last entry's first. */
    std::map<std::string, std::forward_list<Table_Mapping>> tables_;

    /** Keeps an entry of any form; one that names a table is also filed in tables_. */
    void add_entry(std::string&& entry);

    /**
     * Writes all but tables_ as one JSON object; "id" is always there, the others unless empty.
     * @return 0; -1 when the generator is null (logged) or refuses
     */
    int generate(yajl_gen generator) override;
};

#endif
