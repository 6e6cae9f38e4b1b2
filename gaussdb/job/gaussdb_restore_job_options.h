#ifndef GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_OPTIONS_H
#define GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_OPTIONS_H

#include "host/job/job_definition.h"

#include <string>

/**
 * The tuning of a restore job; docs/job-definitions.md says which option is for which flavour. A
 * value of 0, or an empty one, leaves a matter to the tool that does the restore. Plain data:
 * filled once, then read from any thread.
 */
struct GaussDB_Restore_Job_Options : public Job_Options {
    int channels_ = 0; ///< parallel streams
    int max_memory_usage_ = 0;
    int buffer_size_ = 0;
    int buffer_block_size_ = 0;
    unsigned int master_timeout_ = 0;
    bool mount_ = false;          ///< read from the pool through a mount
    std::string xml_config_path_; ///< the new cluster's configuration file, on its node
    std::string logging_level_;
    std::string restore_time_; ///< ISO 8601; empty: the state of the backup itself

    /**
     * Writes the options as one JSON object, without those that are 0, false or empty; only
     * "xml_config_path" and "restore_time" are always there.
     * @return 0; -1 when the generator is null (logged) or refuses
     */
    int generate(yajl_gen generator) override;
};

#endif
