#ifndef HOST_JOB_JOB_DEFINITION_TYPE_H
#define HOST_JOB_JOB_DEFINITION_TYPE_H

/** What kind of work a job definition asks for. The values are kept on disk. */
enum Job_Definition_Type : int {
    JOB_DEFINITION_NONE = 0,
    JOB_DEFINITION_BACKUP = 1,
    JOB_DEFINITION_RESTORE = 2,
    JOB_DEFINITION_STANDBY = 3,
    JOB_DEFINITION_STORAGE = 4
};

/**
 * How the work is done: the level of a backup, what a restore brings back, what a standby or a
 * storage job does. The values are kept on disk, the texts go into the catalog.
 */
enum Job_Definition_Subtype : int {
    JOB_DEFINITION_SUBTYPE_NONE = 0,

    // backups
    JOB_DEFINITION_SUBTYPE_FULL = 1,
    JOB_DEFINITION_SUBTYPE_INCREMENTAL = 2,  ///< what changed since the last backup of any level
    JOB_DEFINITION_SUBTYPE_CUMULATIVE = 3,   ///< what changed since the last full backup
    JOB_DEFINITION_SUBTYPE_DIFFERENTIAL = 4, ///< the same, in the words of other databases
    JOB_DEFINITION_SUBTYPE_LOG = 5,          ///< the transaction log
    JOB_DEFINITION_SUBTYPE_SYNTHETIC_FULL = 6,
    JOB_DEFINITION_SUBTYPE_SNAPSHOT = 7,
    JOB_DEFINITION_SUBTYPE_COPY = 8, ///< full, but no base for a later incremental
    JOB_DEFINITION_SUBTYPE_CONTINUOUS = 9,
    JOB_DEFINITION_SUBTYPE_METADATA = 10,

    // restores
    JOB_DEFINITION_SUBTYPE_INSTANCE = 11,
    JOB_DEFINITION_SUBTYPE_DATABASE = 12,
    JOB_DEFINITION_SUBTYPE_SCHEMA = 13,
    JOB_DEFINITION_SUBTYPE_TABLE = 14,
    JOB_DEFINITION_SUBTYPE_TABLESPACE = 15,
    JOB_DEFINITION_SUBTYPE_DATA_FILE = 16,
    JOB_DEFINITION_SUBTYPE_CONTROL_FILE = 17,
    JOB_DEFINITION_SUBTYPE_PARAMETER_FILE = 18,
    JOB_DEFINITION_SUBTYPE_POINT_IN_TIME = 19,
    JOB_DEFINITION_SUBTYPE_FILE = 20,
    JOB_DEFINITION_SUBTYPE_VOLUME = 21,
    JOB_DEFINITION_SUBTYPE_MACHINE = 22,
    JOB_DEFINITION_SUBTYPE_VERIFY = 23, ///< reads a set back without restoring it
    JOB_DEFINITION_SUBTYPE_REHEARSAL = 24,
    JOB_DEFINITION_SUBTYPE_MOUNT = 25,

    // standbys
    JOB_DEFINITION_SUBTYPE_REPLICATION = 26,
    JOB_DEFINITION_SUBTYPE_SWITCHOVER = 27,
    JOB_DEFINITION_SUBTYPE_FAILOVER = 28,
    JOB_DEFINITION_SUBTYPE_FAILBACK = 29,

    // storage
    JOB_DEFINITION_SUBTYPE_DUPLICATE = 30, ///< sets are copied to another pool
    JOB_DEFINITION_SUBTYPE_ARCHIVE = 31,   ///< sets are moved to another pool
    JOB_DEFINITION_SUBTYPE_RECLAIM = 32,
    JOB_DEFINITION_SUBTYPE_IMPORT = 33
};

/**
 * The word under which the catalog keeps a subtype: "full", "incremental", "log", ...
 * @param length  gets the word's length unless it is null
 * @return "" for a number that is no subtype; a text that lives for ever.
 */
char const* job_def_subtype_to_string(Job_Definition_Subtype subtype, int* length);

#endif
