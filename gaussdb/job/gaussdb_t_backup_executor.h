#ifndef GAUSSDB_JOB_GAUSSDB_T_BACKUP_EXECUTOR_H
#define GAUSSDB_JOB_GAUSSDB_T_BACKUP_EXECUTOR_H

#include "gaussdb/job/gaussdb_backup_job_options.h"
#include "gaussdb/job/gaussdb_backup_job_source.h"
#include "gaussdb/job/gaussdb_backup_set.h"
#include "gaussdb/job/gaussdb_t_run.h"
#include "host/job/job_event_handler.h"
#include "job/job_executor_t.h"

#include <list>
#include <sstream>
#include <string>

class Set_Directory;
class Set_History;

/**
 * Backs up a lone instance of GaussDB T by one SQL statement, with which the database writes a set
 * as files into a directory: into the cache directory, from where they are sent to the pool, or
 * straight into the pool, which is mounted there for that time. Runs of one instance wait for each
 * other.
 *
 * The set is entered into the catalog when its files are in the pool. A run that fails takes back
 * what it has sent, and leaves nothing in the cache directory. What the database has written
 * through the mount stays in the pool when the statement fails; the agent removes it at the end of
 * the run.
 *
 * A cancel ends the statement or the transfer, and the run fails.
 *
 * The database does not know which of its sets are lost. So a run that fails after the statement
 * says that the next backup has to be a full one, and a run whose set would be built on a lost one
 * is refused.
 */
class GaussDB_T_Backup_Executor
    : public Job_Executor_T<GaussDB_Backup_Job_Source, GaussDB_Backup_Job_Options,
                            Job_Event_Handler>,
      protected GaussDB_T_Run {
public:
    explicit GaussDB_T_Backup_Executor(Job& job);

protected:
    [[nodiscard]] bool execute_i(Job::Action_Options const* options) override;
    [[nodiscard]] bool is_active(Job::Action_Options const* options) override;

public:
    ~GaussDB_T_Backup_Executor() override;

private:
    void generate_backup_cmd();
    [[nodiscard]] bool backup_to_mount();
    [[nodiscard]] bool backup_by_directory();
    [[nodiscard]] bool connect_to_storage();
    [[nodiscard]] bool run_backup();
    [[nodiscard]] bool send_files(Set_Directory const& directory);
    [[nodiscard]] bool get_incarnation(std::string& result) const;
    [[nodiscard]] bool commit_catalog();
    [[nodiscard]] bool get_database_status(std::string& status) const;
    [[nodiscard]] bool setup_client_io_opts();
    ACE_UINT64 datafile_size() const;
    [[nodiscard]] bool is_full() const { return def_.subtype() == JOB_DEFINITION_SUBTYPE_FULL; }
    [[nodiscard]] bool is_base_kept(Set_History const& history) const;
    [[nodiscard]] bool run_statement();
    void describe(GaussDB_Backup_Set& bset) const;
    void take_back();

    std::string timestamp_;                ///< of this run
    std::string backup_dir_;               ///< the directory that the statement names
    std::string ext_;                      ///< suffix of the files in the pool
    std::ostringstream cmd_;               ///< the statement
    std::list<std::string> backup_pieces_; ///< in the order in which they were handled
    bool noted_ = false;                   ///< the database has carried out the statement
    Pool_Info info_;
    Client_IO_Base::Options io_opts_;
};

#endif
