#ifndef GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_OPTIONS_H
#define GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_OPTIONS_H

#include "host/job/job_definition.h"
#include "host/storage/compression.h"

#include <cstdint>
#include <string>

/**
 * The tuning of a backup job; docs/job-definitions.md says which option is for which flavour. A
 * value of 0, or an empty one, leaves a matter to the tool that does the backup, unless said
 * otherwise. Plain data: filled once, then read from any thread.
 */
struct GaussDB_Backup_Job_Options : public Job_Options {
    Compression_Method compression_ = COMPR_NONE; ///< of what is stored in the pool
    bool mount_ = false;                          ///< write into the pool through a mount
    bool clean_meta_ = false; ///< a full backup first removes the old metadata on the nodes
    int channels_ = 0;        ///< parallel streams
    int max_memory_usage_ = 0;
    int buffer_size_ = 0;
    int buffer_block_size_ = 0;
    int compression_level_ = 0;
    int roach_compression_type_ = 0; ///< of the tool's own; 0 is also written
    int roach_compression_level_ = 0;
    int cpu_cores_ = 0;
    uint64_t filesplit_size_ = 4294967296; ///< bytes; whole GiB count
    int cbm_recycle_level_ = -1;           ///< below 0: the tool's own; 0 is a level
    unsigned int master_timeout_ = 0;
    std::string cache_dir_; ///< where the database writes its backup sets, or the pool is mounted
    std::string logging_level_;

    /**
     * Writes the options as one JSON object, without those that are 0, false or empty; only
     * "compression_level" is always there. So "filesplit_size" and "cbm_recycle_level" of 0 have
     * their defaults again when the text is parsed.
     * @return 0; -1 when the generator is null (logged) or refuses
     */
    int generate(yajl_gen generator) override;
};

#endif
