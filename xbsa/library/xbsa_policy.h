#ifndef XBSA_LIBRARY_XBSA_POLICY_H
#define XBSA_LIBRARY_XBSA_POLICY_H

#include "host/storage/compression.h"
#include "host/storage/rate_limits.h"
#include "json_spirit/secure_string.h"
#include "xbsa/library/xbsa_result.h"

#include <string>

/**
 * What a job has told about its data's way: the policy file that the job's agent keeps on every
 * host of the database as long as the job runs, one JSON object.
 */
struct Xbsa_Policy {
    std::string name;
    std::string backupd_host; ///< where the agent serves
    unsigned short backupd_port = 0;
    bool backupd_ssl = true;
    secure_string access_key;
    std::string cluster_id; ///< the first folder of all that is stored; one name
    std::string device_uuid;
    std::string pool_uuid;
    std::string uuid;   ///< the backup set that is being written; "" when a job only reads
    uint64_t retry = 0; ///< seconds for which what cannot be reached is tried again
    uint64_t resumption_buffer_size = 0;
    Compression_Method compression = COMPR_NONE; ///< COMPR_AUTO: as the pool has it
    int compression_level = 0;
    Rate_Limits rate_limits; ///< of one session

    /** The directory of the policy files. */
    static constexpr char DIRECTORY[] = "/var/cache/quilmot/zenbrak3/gaussdb";

    /**
     * Reads a policy by its name. BSA_RC_INVALID_ENV for a name that is none, and a file that is
     * not there or not what it should be; BSA_RC_ACCESS_FAILURE for one that may not be read.
     * On a failure @a policy is unchanged.
     */
    static Xbsa_Result read(std::string const& name, Xbsa_Policy& policy);

    /** Makes a policy of a file's text. Results as of read(). */
    static Xbsa_Result parse(std::string const& name, std::string const& text, Xbsa_Policy& policy);

    /** Where the job counts what passes, if it does. */
    std::string counter_path() const;
};

#endif
