#ifndef GAUSSDB_JOB_GAUSSDB_T_RUN_H
#define GAUSSDB_JOB_GAUSSDB_T_RUN_H

#include "gaussdb/common/gaussdb_client.h"
#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/mount_fuse.h"
#include "host/storage/pool_info.h"

#include <string>

class Job;

/**
 * Base of the executors for a lone instance of GaussDB T, which is backed up and restored by its
 * own SQL: the instance with its account, and the way into the pool. Functions that return bool
 * have logged a failure. For the job's thread.
 */
class GaussDB_T_Run {
public:
    GaussDB_T_Run(GaussDB_T_Run const&) = delete;
    GaussDB_T_Run& operator=(GaussDB_T_Run const&) = delete;

protected:
    /** @param job  must outlive this object */
    explicit GaussDB_T_Run(Job& job) : run_job_(job) {}
    ~GaussDB_T_Run() = default;

    /** Finds the account, the cluster and the client of `instance_`. */
    [[nodiscard]] bool find_instance();
    [[nodiscard]] bool canceled() const;
    /**
     * Reports the progress of a set's files, and ends the transfer when the run is canceled.
     * @param done   bytes of the files before this one
     * @param total  bytes of all files
     */
    Client_IO_Ex::Progress report_from(uint64_t done, uint64_t total) const;

    /** Connects `io_` to a folder of a pool. */
    [[nodiscard]] bool connect_to(Pool_Info const& pool, std::string const& folder,
                                  Client_IO_Base::Options const& opts);
    /** Mounts a folder of a pool for the instance's user. */
    [[nodiscard]] bool mount_pool(Mount_Fuse& fuse, Pool_Info const& pool,
                                  std::string const& folder, std::string const& mount_point,
                                  Client_IO_Base::Options const& opts) const;
    /**
     * A directory that stands between quotes in a statement and on a command line.
     * @param what  such as "option cache_dir"
     */
    [[nodiscard]] static bool check_path(char const* what, std::string const& path);

    std::string instance_;                ///< the instance's name
    std::string os_user_;                 ///< its operating-system user
    GaussDB_Cluster_Handler_var cluster_; ///< empty until find_instance() has found it
    GaussDB_Client_ptr client_;           ///< uses the environment of `cluster_`
    Client_IO_Ex io_;

private:
    Job& run_job_;
};

#endif
