#ifndef GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_BACKUP_JOB_EXECUTOR_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "gaussdb/job/gaussdb_backup_job_options.h"
#include "gaussdb/job/gaussdb_backup_job_source.h"
#include "gaussdb/job/gaussdb_backup_set.h"
#include "host/job/job_event_handler.h"
#include "job/job_executor_t.h"

#include <ace/Event.h>
#include <ace/Time_Value.h>

#include <string>
#include <vector>

class Roach_Executor;
class Roach_Meta_Parser;
class Roach_Source;

/**
 * Backs up a cluster of the 100 or the 200 series with the database's own backup tool, and records
 * the backup set in the catalog. The cluster's first machine does it; on the others the job is not
 * active. Runs of one resource wait for each other.
 *
 * A set is opened in the catalog before the tool runs and completed when everything of it is in the
 * pool. A run that fails in between drops the set again when the executor is destroyed, which is
 * before the job is told that it is over. What the other hosts of the cluster were told for the
 * backup tool is taken back only after a success; this host's policy goes in any case.
 *
 * A run has its instance, and the tool's directories on all hosts of the cluster, for itself: see
 * Run_Hold.
 *
 * An incremental backup becomes a full one when there is nothing to build on. A cancel is not
 * looked at: the tool runs to its end.
 */
class GaussDB_Backup_Job_Executor
    : public Job_Executor_T<GaussDB_Backup_Job_Source, GaussDB_Backup_Job_Options,
                            Job_Event_Handler> {
public:
    explicit GaussDB_Backup_Job_Executor(Job& job);
    ~GaussDB_Backup_Job_Executor() override;

protected:
    static constexpr int SLEEP_INTERVAL = 5; ///< seconds between two looks at the progress

    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;
    [[nodiscard]] bool is_active(Job::Action_Options const* options) override;

    ACE_Time_Value sleep_interval_{SLEEP_INTERVAL};

private:
    using Hosts = std::vector<std::string>;

    [[nodiscard]] bool is_cluster_healthy();
    void init_catalog(GaussDB_Backup_Set& bset);
    void choose_base(GaussDB_Backup_Set& bset);
    void drop_lost_base(GaussDB_Backup_Set& bset, Roach_Meta_Parser& parser);
    void make_full(GaussDB_Backup_Set& bset) const;
    Roach_Source make_roach_source() const;
    [[nodiscard]] bool notify(Roach_Source& roach_source, Hosts const& hosts);
    [[nodiscard]] bool open_set(GaussDB_Backup_Set& bset);
    [[nodiscard]] bool run_roach(Roach_Source& roach_source, GaussDB_Backup_Set& bset,
                                 Roach_Meta_Parser& parser);
    [[nodiscard]] bool backup_200(Roach_Executor& roach_executor, Roach_Source& roach_source,
                                  GaussDB_Backup_Set& bset);
    [[nodiscard]] bool backup_100(Roach_Executor& roach_executor, Roach_Source const& roach_source,
                                  GaussDB_Backup_Set& bset, Roach_Meta_Parser& parser);
    [[nodiscard]] static bool has_backup_key(GaussDB_Backup_Set const& bset);
    [[nodiscard]] bool backup_roach_metadata(Roach_Source const& roach_source,
                                             GaussDB_Backup_Set& bset);
    [[nodiscard]] bool complete_set(GaussDB_Backup_Set& bset, Roach_Meta_Parser& parser);

    [[nodiscard]] bool get_prior_backup(std::string& incarnation, std::string& backup_key) const;
    [[nodiscard]] bool get_seq(ACE_INT64& seq) const;
    [[nodiscard]] bool get_storage_size(ACE_INT64& size) const;

    void report_progress();
    void follow_progress();
    [[nodiscard]] bool report_progress_once(GaussDB_Client const& client);

    std::string job_instance_uuid_; ///< the run's id, and the set's
    std::string instance_;
    GaussDB_Cluster_Handler_var cluster_; ///< empty until is_active() has found it
    bool abort_catalog_ = false;          ///< the set is open
    ACE_Event stop_progress_event_;
};

#endif
