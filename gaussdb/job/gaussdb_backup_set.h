#ifndef GAUSSDB_JOB_GAUSSDB_BACKUP_SET_H
#define GAUSSDB_JOB_GAUSSDB_BACKUP_SET_H

#include "gaussdb/common/gaussdb_const.h"
#include "host/catalog/backup_set.h"

/** A backup set of a GaussDB instance. Filled by the executor that makes it. */
class GaussDB_Backup_Set : public Backup_Set {
public:
    GaussDB_Backup_Set() : Backup_Set("gaussdb") {}

    /**
     * With a key for each field below, of the field's name, and "nodes_count" for the nodes again;
     * without "tables", "uri" and the platform's times if they are empty, and without the fields of
     * TPOPS for another series.
     */
    json_spirit::Object dump() const override;

    /** Uuid of the full set with which this chain begins; for a full backup the set's own. */
    std::string incarnation;
    std::string instance;
    std::string database_version;
    int64_t seq = 0;              ///< counts the sets of a resource, over all pools
    std::string meta_destination; ///< the backup tool's metadata directory
    std::string backup_key;       ///< what the backup tool calls this backup
    std::string prior_backup_key; ///< what an incremental one builds on; "" for a full one
    std::string compression;      ///< the method's name; "" for none
    int nodes = 0;                ///< machines of the cluster
    std::string granularity;      ///< "schema" for a set of schemas, "" for one of a whole cluster
    std::string database;         ///< of a set of schemas
    std::string uri; ///< folder of the pool that the pieces' paths begin in; "" for the pool's own
    /** Databases, schemas and tables in the set: {"uuid", "parent_uuid", "type", "name"} each. */
    json_spirit::Array tables;
    GAUSSDB_VERSION series = GAUSSDB_UNKNOWN;

    // only for an instance of TPOPS
    std::string timeline;    ///< uuid of the first full set since the instance was added
    std::string instance_id; ///< the instance's id on its platform
    std::string backup_id;   ///< what the platform calls this backup; "" when it is unknown
    time_t begin_time = 0;   ///< computed from the platform's text, reading its zone as hours
    time_t end_time = 0;     ///< the same; a log backup has the times of its log in both
    std::string platform_begin_time; ///< the platform's own text, such as "...T10:00:00+0800"
    std::string platform_end_time;   ///< the same; both are "" for a log backup
};

#endif
