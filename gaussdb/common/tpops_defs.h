#ifndef GAUSSDB_COMMON_TPOPS_DEFS_H
#define GAUSSDB_COMMON_TPOPS_DEFS_H

#include "json_spirit/value.h"

#include <cstdint>
#include <string>
#include <vector>

/**
 * The records with which the module talks about TPOPS, the management platform of GaussDB
 * instances. All are plain values. Each load() throws json_spirit::Error for a required key that is
 * missing and for a value of another kind or out of range; the fields read before keep their new
 * values. None returns false.
 */

/** The default port of the platform's REST interface. */
constexpr uint16_t TPOPS_DEFAULT_PORT = 8002;

/** The states of a job of the platform. The numbers are fixed. */
enum TPOPS_Job_State {
    TPOPS_JOB_STATE_NONE = 0,
    TPOPS_JOB_STATE_RUNNING = 1,
    TPOPS_JOB_STATE_BUILDING = 2,
    TPOPS_JOB_STATE_COMPLETED = 3,
    TPOPS_JOB_STATE_ERROR = 4
};

/**
 * The word of a state; "failed" for TPOPS_JOB_STATE_ERROR, as the platform prints it.
 * @param len  gets the length of the word; may be null
 */
char const* tpops_state_to_string(TPOPS_Job_State state, int* len);

/**
 * The state for a word of the platform, ignoring case. A prefix of a known word matches it, and the
 * first known word wins; so "" is TPOPS_JOB_STATE_RUNNING.
 * @param len  bytes of @a str
 * @return TPOPS_JOB_STATE_NONE for any other word
 */
TPOPS_Job_State tpops_state_from_string(char const* str, int len);

/** How to log in to a platform. */
struct TPOPS_Login {
    /**
     * Requires "tpops_host", "tpops_port", "tpops_ssl", "username" and "password", the last in the
     * form of encrypt_string(). A password that cannot be deciphered is "" after an error line.
     */
    void load(json_spirit::Object const& object);

    std::string host;
    uint16_t port = TPOPS_DEFAULT_PORT;
    bool ssl = true;
    std::string username; ///< also the key of the cached token
    secure_string password;
};

/** A database instance as the platform reports it. */
struct TPOPS_Instance_Info {
    /** "version" and "node_count" are optional. */
    bool load(json_spirit::Value const& value);
    json_spirit::Object dump() const;

    std::string id;
    std::string name;
    std::string status;
    std::string type;
    std::string version;
    int32_t node_count = 0;
};

/** The same with what the agent keeps about the instance. */
struct GaussDB_TPOPS_Instance_Info : TPOPS_Instance_Info {
    /** Every key is optional; the field of a missing one is unchanged. */
    bool load(json_spirit::Value const& value);
    /** All keys, whether set or not. */
    json_spirit::Object dump() const;

    std::string tpops_host;
    uint16_t tpops_port = TPOPS_DEFAULT_PORT;
    bool tpops_ssl = false;
    std::string xbsa_host; ///< where the platform's backup agent finds the XBSA service
    uint16_t xbsa_port = 0;
    bool xbsa_ssl = false;
};

/** One database of an instance. */
struct TPOPS_Database_Info {
    bool load(json_spirit::Value const& value);
    json_spirit::Object dump() const;

    std::string name;
    std::string owner;
    std::string size; ///< text, as the platform reports it
    std::string character_set;
    std::string collate_set;
    std::string datctype;
};

/** What to back up. */
struct Backup_Args {
    /** "depend_backupIds" only when there are any. */
    json_spirit::Object dump() const;

    std::string instance_id;
    std::string name;
    std::string description;
    std::string backup_type;
    std::vector<std::string> depend_backup_ids;
};

/** Which backups to list. An empty field does not filter. */
struct Backup_Info_Query {
    std::string instance_id;
    std::string backup_id;
    std::string backup_type;
    std::string begin_time; ///< counts only together with end_time
    std::string end_time;
};

/** What to restore, and where to. */
struct Restore_Args {
    /** "source" and "target"; "restore_time" only when it is not 0. */
    json_spirit::Object dump() const;

    std::string source_id;     ///< the instance that the backup was taken from
    std::string backup_type;   ///< "backup" or "timestamp"
    std::string backup_id;     ///< the platform's id of the backup
    uint64_t restore_time = 0; ///< milliseconds since the epoch; 0 for none
    std::string target_id;     ///< the instance to restore into
};

#endif
