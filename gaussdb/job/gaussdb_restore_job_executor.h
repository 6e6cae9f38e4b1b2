#ifndef GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_RESTORE_JOB_EXECUTOR_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "gaussdb/job/gaussdb_restore_job_options.h"
#include "gaussdb/job/gaussdb_restore_job_source.h"
#include "host/job/job_event_handler.h"
#include "job/job_executor_t.h"

#include <set>
#include <string>
#include <vector>

class Roach_Executor;
class Roach_Source;

/**
 * Restores a backup set of the 100 or the 200 series with the database's own backup tool and starts
 * the database: onto the cluster that it is of, or onto a new one, whose resource is another. The
 * target cluster's first machine does it; on the others the job is not active. Runs to one target
 * wait for each other. The catalog is only read.
 *
 * When the database does not start, its data is in place nevertheless, and the run has failed. A
 * cancel is not looked at: the tool runs to its end.
 */
class GaussDB_Restore_Job_Executor
    : public Job_Executor_T<GaussDB_Restore_Job_Source, GaussDB_Restore_Job_Options,
                            Job_Event_Handler> {
public:
    explicit GaussDB_Restore_Job_Executor(Job& job);
    ~GaussDB_Restore_Job_Executor() override;

protected:
    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;
    [[nodiscard]] bool is_active(Job::Action_Options const* options) override;

private:
    /** What the catalog says about the set that is asked for. */
    struct Chain {
        std::string pool_uuid;
        std::string compression;     ///< the method's name
        ACE_UINT64 total_size = 0;   ///< bytes of all sets that are restored
        json_spirit::Array catalogs; ///< the rows, newest first
    };
    using Hosts = std::vector<std::string>;

    [[nodiscard]] bool get_catalog(std::string const& backup_key, std::string& pool_uuid,
                                   std::string& compression, ACE_UINT64& total_size,
                                   json_spirit::Array& catalogs, GAUSSDB_VERSION const& version);
    [[nodiscard]] bool load_chain(Chain& chain);
    [[nodiscard]] bool choose_cache_dir();
    Roach_Source make_roach_source(Chain const& chain) const;
    [[nodiscard]] bool restore_roach_metadata(Roach_Source& roach_source, Chain const& chain);
    [[nodiscard]] bool notify(Roach_Source& roach_source, Hosts const& hosts, Chain const& chain);
    [[nodiscard]] bool run_roach(Roach_Executor& roach_executor, Roach_Source const& roach_source,
                                 Chain const& chain);
    std::set<std::string> data_directories() const;
    [[nodiscard]] bool start(Roach_Executor& roach_executor);
    [[nodiscard]] bool new_cluster() const;

    std::string instance_;                ///< the target cluster's name
    std::string cache_dir_;               ///< scratch directory; "" until there is one
    GaussDB_Cluster_Handler_var cluster_; ///< empty until is_active() has found it
};

#endif
