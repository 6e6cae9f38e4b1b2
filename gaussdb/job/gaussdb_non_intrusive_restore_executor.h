#ifndef GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_RESTORE_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_RESTORE_EXECUTOR_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "gaussdb/job/gaussdb_restore_job_options.h"
#include "gaussdb/job/gaussdb_restore_job_source.h"
#include "host/job/job_event_handler.h"
#include "job/job_executor_t.h"

#include <ace/Event.h>
#include <ace/Time_Value.h>

#include <string>
#include <vector>

class Roach_Executor;
class Roach_Source;

/**
 * Restores a backup set of the DWS or the openGauss flavour by ssh on a database node. There are
 * three kinds of run:
 *
 * - the whole cluster, in place or as a new one, whose resource is another; the database is
 * started;
 * - tables, for a definition of the level "table": each comes back under the name it is mapped to;
 * - the rebuild of one database, when the chain of a run of the first kind has a schema backup.
 *
 * Runs of one instance or one node wait for each other: see Run_Hold. The catalog is only read. The
 * policy is taken back after a restore of the whole cluster and after a failure; the other kinds
 * leave it where it is. A cancel stops the tool on the node, and the run fails.
 */
class GaussDB_Non_Intrusive_Restore_Job_Executor
    : public Job_Executor_T<GaussDB_Restore_Job_Source, GaussDB_Restore_Job_Options,
                            Job_Event_Handler> {
public:
    explicit GaussDB_Non_Intrusive_Restore_Job_Executor(Job& job);

protected:
    static constexpr int STOP_INTERVAL = 2; ///< seconds between two looks for a cancel

    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;
    [[nodiscard]] bool is_active(Job::Action_Options const* options) override;

public:
    ~GaussDB_Non_Intrusive_Restore_Job_Executor() override;

protected:
    ACE_Time_Value stop_interval_{STOP_INTERVAL};

private:
    /** What the catalog says about the set that is asked for. */
    struct Chain {
        std::string pool_uuid;
        std::string compression;      ///< the method's name
        ACE_UINT64 original_size = 0; ///< bytes of all sets that are restored
        json_spirit::Array catalogs;  ///< the rows, newest first
    };

    [[nodiscard]] bool is_opengauss() const;
    [[nodiscard]] bool is_table_restore() const;
    [[nodiscard]] bool new_cluster() const;
    [[nodiscard]] bool check_names() const;
    [[nodiscard]] bool read_instance();
    [[nodiscard]] bool find_service(std::string& user);
    [[nodiscard]] bool load_chain(Chain& chain);
    [[nodiscard]] bool check_new_cluster() const;
    [[nodiscard]] bool read_row(json_spirit::Object const& row, std::string const& backup_key,
                                GAUSSDB_VERSION version, std::string& key, Chain& chain);
    [[nodiscard]] bool find_schema_set(std::string const& granularity, std::string const& database);
    Roach_Source make_roach_source(Chain const& chain, std::string const& user) const;
    [[nodiscard]] bool notify(Roach_Source& roach_source);
    [[nodiscard]] bool make_command(std::string& cmd);
    [[nodiscard]] bool send_table_lists(std::string const& user);
    void remove_table_lists();
    [[nodiscard]] bool run_tool(std::string& cmd, Roach_Source& roach_source, Chain const& chain);
    [[nodiscard]] bool start(Roach_Executor& roach_executor);

    [[nodiscard]] bool get_catalog(std::string const& backup_key, GAUSSDB_VERSION const& version,
                                   std::string& pool_uuid, std::string& compression,
                                   ACE_UINT64& original_size, json_spirit::Array& catalogs);
    [[nodiscard]] bool get_client_info(std::string& user);
    [[nodiscard]] bool generate_dws_restore_cmd(std::string& cmd);
    [[nodiscard]] bool generate_for_opengauss_restore_cmd(std::string& cmd) const;
    [[nodiscard]] bool generate_common_restore_cmd(std::string& cmd) const;
    [[nodiscard]] bool canceled() const;
    void job_stop_thread(ACE_Event& event);
    using Table_Mapping_List = std::forward_list<Table_Mapping>;
    [[nodiscard]] bool dump_table_list(Table_Mapping_List const& tables, std::string const& path,
                                       bool source_table) const;
    [[nodiscard]] bool clean_meta() const;

    std::string address_;   ///< the node, for ssh
    std::string meta_path_; ///< the tool's metadata directory of the instance
    std::string instance_;  ///< the target cluster's name
    std::string host_name_; ///< the old cluster's node, from the catalog
    std::string remote_ip_; ///< where the backUpAgent listens; openGauss only
    std::string ssh_opts_;
    std::string source_commands_;
    GaussDB_Cluster_Handler_var cluster_; ///< empty until is_active() has found it
    uint16_t backup_port_ = 0;            ///< of the tool's master
    uint16_t client_port_ = 0;            ///< of the service that gives the data
    int nodes_count_ = 0;
    std::vector<std::string> host_uuids_;  ///< the agents that get the policy
    bool disaster_recovery_ = false;       ///< the chain has a schema backup
    std::string schema_database_;          ///< of that backup
    std::string restore_meta_path_;        ///< this run's metadata directory on the node; DWS only
    std::vector<std::string> table_lists_; ///< on the node, while they are there
};

#endif
