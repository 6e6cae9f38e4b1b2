#ifndef GAUSSDB_JOB_GAUSSDB_TPOPS_BACKUP_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_TPOPS_BACKUP_EXECUTOR_H

#include "gaussdb/job/gaussdb_backup_job_options.h"
#include "gaussdb/job/gaussdb_backup_job_source.h"
#include "gaussdb/job/gaussdb_backup_set.h"
#include "gaussdb/job/gaussdb_tpops_run.h"
#include "job/job_executor_t.h"

#include <string>

class Client_IO_Ex;
class Roach_Source;

/**
 * Backs up an instance of TPOPS, a platform that takes the backup itself: fully, by what changed
 * since the last full backup, or the log. The platform's backup agent on this host sends the data
 * to the pool, through the XBSA library. This job tells the platform where that agent is, leaves
 * policy and counter file for it, waits for the platform's job and completes the set.
 *
 * A backup that is not full becomes one when the pool has no full one since the last restore. Runs
 * of one instance wait for each other: see Run_Hold. A cancel ends the run and not the platform's
 * job.
 *
 * A run that fails after the set was opened leaves the set open, for the agent to drop.
 */
class GaussDB_TPOPS_Backup_Executor
    : public Job_Executor_T<GaussDB_Backup_Job_Source, GaussDB_Backup_Job_Options,
                            Job_Event_Handler>,
      protected GaussDB_TPOPS_Run {
public:
    explicit GaussDB_TPOPS_Backup_Executor(Job& job);
    ~GaussDB_TPOPS_Backup_Executor() override;

protected:
    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;

private:
    [[nodiscard]] bool is_log() const { return backup_type_ == JOB_DEFINITION_SUBTYPE_LOG; }
    [[nodiscard]] bool is_full() const { return backup_type_ == JOB_DEFINITION_SUBTYPE_FULL; }
    Roach_Source make_roach_source() const;
    [[nodiscard]] bool run_backup(Roach_Source& policy, GaussDB_Backup_Set& cat);
    [[nodiscard]] bool complete_set(GaussDB_Backup_Set& cat);

    [[nodiscard]] bool init();
    [[nodiscard]] bool read_record();
    void get_incarnation();
    void get_databases_size();
    [[nodiscard]] bool set_backup_info();
    [[nodiscard]] bool change_backup_media();
    void init_catalog(GaussDB_Backup_Set& cat);
    [[nodiscard]] int get_node_count();
    [[nodiscard]] bool start_backup();
    [[nodiscard]] bool set_depend_backup_ids(Backup_Args& params) const;
    void init_query_info();
    [[nodiscard]] bool get_job_state(char const* job_id, TPOPS_Job_State& state);
    [[nodiscard]] bool get_log_job_state(Backup_Info_Query const& query, TPOPS_Job_State& state);
    [[nodiscard]] bool get_size(ACE_INT64& storage_size, ACE_INT64& set_size);
    void get_basic_recovery_time_file(json_spirit::Object const& piece);
    [[nodiscard]] bool set_catalog_with_backup_info(GaussDB_Backup_Set& cat);
    void read_backup_info(json_spirit::Array const& backups, GaussDB_Backup_Set& cat);
    [[nodiscard]] bool set_backup_time(GaussDB_Backup_Set& cat) const;
    [[nodiscard]] bool connect_to_storage(Client_IO_Ex& io) const;
    /** See begin_time of GaussDB_Backup_Set. */
    [[nodiscard]] static bool convert_time_to_timestamp(char const* time_str, time_t& timestamp);

    bool abort_catalog_ = true;     ///< the set is dropped by the destructor
    bool set_backup_media_ = false; ///< the medium has not been changed to XBSA yet
    std::string xbsa_route_;        ///< to the backup agent, as JSON
    std::string os_user_;           ///< of the backup agent
    std::string job_name_;          ///< what the platform calls the backup
    std::string backup_uuid_;       ///< the run's id, and the set's
    std::string instance_id_;       ///< on the platform
    std::string job_id_;            ///< the platform's job; of a log backup the backup's id
    std::string incarnation_;
    std::string timeline_;
    std::string basic_recovery_time_file_; ///< in the pool; says what time a log backup covers
    std::string policy_name_;
    Job_Definition_Subtype backup_type_ = JOB_DEFINITION_SUBTYPE_NONE;
    TPOPS_RESTful_Client tpops_client_;
    Backup_Info_Query backup_info_query_;
};

#endif
