#ifndef GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_RESTORE_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_RESTORE_EXECUTOR_H

#include "gaussdb/job/gaussdb_non_intrusive_run.h"
#include "gaussdb/job/gaussdb_restore_job_options.h"
#include "gaussdb/job/gaussdb_restore_job_source.h"
#include "host/job/job_event_handler.h"
#include "job/job_executor_t.h"

#include <string>
#include <vector>

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
                            Job_Event_Handler>,
      protected GaussDB_Non_Intrusive_Run {
public:
    explicit GaussDB_Non_Intrusive_Restore_Job_Executor(Job& job);

protected:
    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;
    [[nodiscard]] bool is_active(Job::Action_Options const* options) override;

public:
    ~GaussDB_Non_Intrusive_Restore_Job_Executor() override;

private:
    /** What the catalog says about the set that is asked for. */
    struct Chain {
        std::string pool_uuid;
        std::string compression;      ///< the method's name
        ACE_UINT64 original_size = 0; ///< bytes of all sets that are restored
        json_spirit::Array catalogs;  ///< the rows, newest first
    };

    [[nodiscard]] bool is_table_restore() const;
    [[nodiscard]] bool new_cluster() const;
    [[nodiscard]] bool check_names() const;
    [[nodiscard]] bool load_chain(Chain& chain);
    [[nodiscard]] bool check_new_cluster() const;
    [[nodiscard]] bool read_row(json_spirit::Object const& row, std::string const& backup_key,
                                GAUSSDB_VERSION version, std::string& key, Chain& chain);
    [[nodiscard]] bool find_schema_set(std::string const& granularity, std::string const& database);
    Roach_Source make_roach_source(Chain const& chain, std::string const& user) const;
    [[nodiscard]] bool notify(Roach_Source& roach_source);
    [[nodiscard]] bool make_command(std::string& cmd);
    [[nodiscard]] bool send_table_lists(std::string const& user);
    [[nodiscard]] bool run_tool(std::string& cmd, Roach_Source& roach_source, Chain const& chain);
    [[nodiscard]] bool finish(Roach_Executor& tool, Roach_Source& roach_source);
    [[nodiscard]] bool start(Roach_Executor& roach_executor);

    [[nodiscard]] bool get_catalog(std::string const& backup_key, GAUSSDB_VERSION const& version,
                                   std::string& pool_uuid, std::string& compression,
                                   ACE_UINT64& original_size, json_spirit::Array& catalogs);
    [[nodiscard]] bool generate_dws_restore_cmd(std::string& cmd);
    [[nodiscard]] bool generate_for_opengauss_restore_cmd(std::string& cmd) const;
    [[nodiscard]] bool generate_common_restore_cmd(std::string& cmd) const;
    using Table_Mapping_List = std::forward_list<Table_Mapping>;
    [[nodiscard]] bool dump_table_list(Table_Mapping_List const& tables, std::string const& path,
                                       bool source_table);
    [[nodiscard]] bool clean_meta() const;

    std::string host_name_;                ///< the old cluster's node, from the catalog
    bool disaster_recovery_ = false;       ///< the chain has a schema backup
    std::string schema_database_;          ///< of that backup
    std::string restore_meta_path_;        ///< this run's metadata directory on the node; DWS only
    std::vector<std::string> table_lists_; ///< on the node: of the sources, of the targets
};

#endif
