#ifndef GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_BACKUP_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_BACKUP_EXECUTOR_H

#include "gaussdb/job/gaussdb_backup_job_options.h"
#include "gaussdb/job/gaussdb_backup_job_source.h"
#include "gaussdb/job/gaussdb_backup_set.h"
#include "gaussdb/job/gaussdb_non_intrusive_run.h"
#include "host/job/job_event_handler.h"
#include "host/job/run_hold.h"
#include "job/job_executor_t.h"

#include <optional>
#include <string>
#include <vector>

class Roach_Source;

/**
 * Backs up a cluster of the DWS or the openGauss flavour, on whose machines no agent is installed:
 * the database's own backup tool runs on a database node, which is reached by ssh, and sends the
 * data to its counterpart on this host, roach_client or backUpAgent. A DWS cluster is saved as a
 * whole or by schemas of one database.
 *
 * Runs of one instance or one node wait for each other: see Run_Hold.
 *
 * A set is opened in the catalog before the tool runs. A run that fails after that drops the set
 * when the executor is destroyed. What the hosts were told for the backup tool is taken back only
 * after a success.
 *
 * An incremental backup builds on nothing, and keeps its level, when there is nothing to build on.
 * A cancel stops the tool on the node, and the run fails.
 */
class GaussDB_Non_Intrusive_Backup_Job_Executor
    : public Job_Executor_T<GaussDB_Backup_Job_Source, GaussDB_Backup_Job_Options,
                            Job_Event_Handler>,
      protected GaussDB_Non_Intrusive_Run {
public:
    explicit GaussDB_Non_Intrusive_Backup_Job_Executor(Job& job);
    ~GaussDB_Non_Intrusive_Backup_Job_Executor() override;

protected:
    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;
    [[nodiscard]] bool is_active(Job::Action_Options const* options) override;

private:
    [[nodiscard]] bool is_schema_backup() const { return !src_->schemas_.empty(); }
    [[nodiscard]] bool check_names() const;
    [[nodiscard]] bool choose_type();
    void choose_base(GaussDB_Backup_Set& bset) const;
    Roach_Source make_roach_source(std::string const& user) const;
    void count_nodes();
    [[nodiscard]] bool make_command(std::string& cmd, std::string const& prior_backup_key);
    [[nodiscard]] bool open_set(GaussDB_Backup_Set& bset);
    [[nodiscard]] bool run_tool(std::string const& cmd, GaussDB_Backup_Set& bset);
    [[nodiscard]] bool complete_set(GaussDB_Backup_Set& bset);
    [[nodiscard]] bool save_schemas(std::string const& database, json_spirit::Array& tables) const;
    [[nodiscard]] bool save_tables(GaussDB_Client& client, std::string const& database,
                                   std::string const& schema, std::string const& parent,
                                   json_spirit::Array& tables) const;

    [[nodiscard]] bool get_size(ACE_INT64& storage_size, ACE_INT64& set_size) const;
    [[nodiscard]] bool get_prior_backup(std::string& incarnation, std::string& backup_key,
                                        bool full, bool schema_only) const;
    [[nodiscard]] bool get_seq(ACE_INT64& seq) const;
    void init_catalog(GaussDB_Backup_Set& bset) const;
    void clean_dws_metadata() const;
    [[nodiscard]] bool generate_dws_backup_cmd(std::string& cmd);
    [[nodiscard]] bool generate_for_opengauss_backup_cmd(std::string& cmd) const;
    [[nodiscard]] bool generate_common_backup_cmd(std::string& cmd,
                                                  std::string const& prior_backup_key) const;
    [[nodiscard]] bool save_tables_info(json_spirit::Array& tables) const;
    [[nodiscard]] bool dump_schema_list(std::vector<std::string> const& schemas,
                                        std::string const& path);

    std::optional<Run_Hold> instance_hold_;
    bool abort_catalog_ = false;    ///< the set is open
    std::string job_instance_uuid_; ///< the run's id, and the set's
    Job_Definition_Subtype backup_type_ = JOB_DEFINITION_SUBTYPE_FULL;
};

#endif
