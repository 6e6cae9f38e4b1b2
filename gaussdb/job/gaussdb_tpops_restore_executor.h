#ifndef GAUSSDB_JOB_GAUSSDB_TPOPS_RESTORE_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_TPOPS_RESTORE_EXECUTOR_H

#include "gaussdb/job/gaussdb_restore_job_options.h"
#include "gaussdb/job/gaussdb_restore_job_source.h"
#include "gaussdb/job/gaussdb_tpops_run.h"
#include "job/job_executor_t.h"

#include <string>

class Roach_Source;

/**
 * Restores an instance of TPOPS, from one backup or to a point in time. The platform restores it,
 * and its backup agent on this host gets the data from the pool; this job leaves policy and counter
 * file for the agent and waits for the platform's job.
 *
 * Runs that restore to one instance wait for each other, and for its backups: see Run_Hold. A
 * cancel ends the run and not the platform's job. A run that fails leaves its policy, which the
 * next run of TPOPS on this host removes.
 */
class GaussDB_TPOPS_Restore_Executor
    : public Job_Executor_T<GaussDB_Restore_Job_Source, GaussDB_Restore_Job_Options,
                            Job_Event_Handler>,
      protected GaussDB_TPOPS_Run {
public:
    explicit GaussDB_TPOPS_Restore_Executor(Job& job);
    ~GaussDB_TPOPS_Restore_Executor() override;

protected:
    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;

private:
    [[nodiscard]] bool restore(std::string const& pool_uuid, std::string const& compression);
    [[nodiscard]] bool restore_on_platform();
    [[nodiscard]] bool load_catalog(std::string& pool_uuid, std::string& compression);
    [[nodiscard]] bool read_instance_id();
    Roach_Source make_roach_source(std::string const& pool_uuid, std::string const& compression,
                                   std::string const& policy_name) const;

    /**
     * Reads the sets that lead to the backup.
     * @param pool_uuid, compression  of the first of them
     */
    [[nodiscard]] bool get_catalog(std::string const& backup_key, std::string& pool_uuid,
                                   std::string& compression);
    void read_row(json_spirit::Object const& row, std::string const& backup_key);
    [[nodiscard]] bool check_agent_info();
    /** Reads the way to the backup agent that the platform keeps with the source instance. */
    [[nodiscard]] bool read_route(json_spirit::Value& route);
    [[nodiscard]] bool set_restore_time() const;
    [[nodiscard]] bool start_restore();
    [[nodiscard]] bool get_job_state(char const* job_id, TPOPS_Job_State& state);

    std::string source_id_;    ///< on the platform: the instance that was backed up
    std::string tgt_instance_; ///< name of the instance that is restored
    std::string os_user_;      ///< of the backup agent; "" when it was not found
    std::string instance_id_;  ///< on the platform: the instance that is restored
    std::string job_id_;       ///< the platform's job
    std::string backup_id_;    ///< on the platform; "" for a point in time
    TPOPS_RESTful_Client client_;
};

#endif
