#ifndef GAUSSDB_JOB_GAUSSDB_T_RESTORE_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_T_RESTORE_EXECUTOR_H

#include "gaussdb/job/gaussdb_restore_job_options.h"
#include "gaussdb/job/gaussdb_restore_job_source.h"
#include "gaussdb/job/gaussdb_t_run.h"
#include "gaussdb/job/set_directory.h"
#include "gaussdb/job/set_notes.h"
#include "host/job/job_event_handler.h"
#include "job/job_executor_t.h"

#include <list>
#include <optional>
#include <string>
#include <vector>

/**
 * Restores a backup set of a lone instance of GaussDB T with all that it builds on. The sets are
 * brought to where they stood when they were written: fetched, or by a mount of the pool. Then the
 * instance is stopped, its data directory is emptied, and the database restores and recovers itself
 * by SQL. The catalog is only read.
 *
 * Nothing of the instance is touched before it is certain that the chain is whole, that all of it
 * is in the pool, and that there is room for what is fetched. A run that fails after that leaves
 * the instance down, and says so.
 *
 * A cancel ends the transfer or the statement. Runs of the source and of the target wait for each
 * other.
 */
class GaussDB_T_Restore_Executor
    : public Job_Executor_T<GaussDB_Restore_Job_Source, GaussDB_Restore_Job_Options,
                            Job_Event_Handler>,
      protected GaussDB_T_Run {
public:
    explicit GaussDB_T_Restore_Executor(Job& job);
    /** Removes what was fetched. */
    ~GaussDB_T_Restore_Executor() override;

protected:
    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;

private:
    /** A row of the catalog: one set of the chain. */
    struct Chain_Set {
        std::string uuid, pool_uuid, uri, meta_destination, backup_key, incarnation;
        uint64_t size = 0;               ///< bytes of its files
        std::vector<std::string> pieces; ///< names below the uri; of a mount none are told
    };

    [[nodiscard]] bool load_catalog(std::string& pool_uuid);
    [[nodiscard]] bool clean_data_dir() const;
    [[nodiscard]] bool execute_zctl(char const* cmd) const;
    [[nodiscard]] bool execute_restore();
    [[nodiscard]] bool connect_to_storage(char const* pool_uuid, char const* uri);
    [[nodiscard]] bool get_backup_set(char const* dir, json_spirit::Array const& pieces);

    [[nodiscard]] bool query_chain(json_spirit::Array& rows) const;
    [[nodiscard]] bool check_chain() const;
    [[nodiscard]] bool check_stored(Chain_Set const& set);
    [[nodiscard]] bool check_room();
    [[nodiscard]] bool fetch(Chain_Set const& set, json_spirit::Array const& pieces);
    [[nodiscard]] bool has_tool(char const* name) const;
    [[nodiscard]] bool restore_by_mount(std::string const& pool_uuid);
    [[nodiscard]] bool rebuild();

    std::string pool_uuid_;               ///< of the set that is asked for
    std::string cache_dir_;               ///< the set that the statement names
    std::string temp_dir_;                ///< the tools' HOME
    std::vector<Chain_Set> chain_;        ///< newest first
    std::optional<Set_Notes> notes_;      ///< of cache_dirs_, dropped after their removal
    std::list<Set_Directory> cache_dirs_; ///< what was fetched, newest first
    uint64_t fetched_ = 0;                ///< bytes, of all sets
};

#endif
