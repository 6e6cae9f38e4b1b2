#ifndef AGENT_SERVICE_AGENT_SERVICE_H
#define AGENT_SERVICE_AGENT_SERVICE_H

#include "agent/catalog/sqlite_catalog.h"
#include "agent/database/agent_database.h"
#include "agent/instances/sqlite_instances.h"
#include "agent/jobs/agent_jobs.h"
#include "agent/jobs/job_manager.h"
#include "agent/jobs/scheduler.h"
#include "agent/module/agent_module.h"
#include "agent/rpc/method_table.h"
#include "agent/rpc/rest_routes.h"
#include "agent/rpc/rpc_server.h"
#include "agent/service/agent_config.h"
#include "agent/service/agent_group.h"
#include "agent/service/agent_identity.h"
#include "agent/service/data_directory.h"
#include "agent/service/group_instances.h"
#include "agent/service/group_members.h"
#include "agent/service/instance_condition.h"
#include "agent/service/instance_probe.h"
#include "agent/service/job_watch.h"
#include "agent/service/method_access.h"
#include "agent/service/pool_status.h"
#include "agent/service/run_access.h"
#include "agent/storage/agent_storage_backend.h"
#include "agent/storage/set_files.h"
#include "agent/storage/sqlite_pools.h"
#include "agent/storage/write_journal.h"

#include <memory>
#include <string>

/**
 * The agent, put together: takes its data directory, brings in order what a killed predecessor
 * left, loads the module, installs the back ends of Host_Services, and serves. One in a process.
 * All operations are for the main thread.
 */
class Agent_Service {
public:
    /** Version of the database that this program writes; it refuses a newer one. */
    static int database_version();
    /** @param error  when null is returned: what is wrong and what to do; nothing is left running
     */
    static std::unique_ptr<Agent_Service> start(Agent_Config const& config, std::string& error);
    /** Calls stop(). */
    ~Agent_Service();
    Agent_Service(Agent_Service const&) = delete;
    Agent_Service& operator=(Agent_Service const&) = delete;

    /** Takes over what counts without a new start. */
    void reload(Agent_Config const& config);

    /**
     * Serves nobody any more, ends the tools that somebody waits for, tells running jobs to cancel,
     * and drops the sets that are open still. What has not ended shortly before the configured
     * limit loses its tools: they are killed. At the limit the process ends, and leaves none of
     * them. More than once does no harm.
     * @return false when a job did not end: its threads may still use all that this object holds,
     *         so the process must end without destroying it
     */
    [[nodiscard]] bool stop();

private:
    explicit Agent_Service(Agent_Config const& config);

    [[nodiscard]] bool open_data(std::string& error);
    [[nodiscard]] bool load_keys(std::string& error);
    [[nodiscard]] bool install_back_ends(std::string& error);
    [[nodiscard]] bool load_module(std::string& error);
    void make_jobs();
    [[nodiscard]] bool recover(std::string& error);
    /**
     * Drops the sets that a host began before that time, and their files.
     * @param uuid  only that set; "" for all of the host
     */
    [[nodiscard]] bool drop_open_sets(std::string const& host_uuid, time_t before,
                                      std::string const& uuid = "");
    void drop_set_of(std::string const& run_id);
    Storage_Result find_pool(std::string const& pool, Pool_Info& info) const;
    Start_Answer pool_condition(Stored_Definition const& definition) const;
    [[nodiscard]] bool is_member() const { return config_.role == "member"; }
    /** Removes what a dropped set has in its pools; what cannot be removed now is noted for later.
     */
    void remove_files(Dropped_Set const& set);
    /** After a run: sees to it that nothing of it stays in the pools that no set has. */
    void clear_up();
    [[nodiscard]] bool end_jobs();
    void add_methods();
    void add_catalog_methods();
    [[nodiscard]] bool serve(std::string& error);

    Agent_Config config_;
    bool stopped_ = false;

    // in the order in which they come to be; they go the other way round
    std::unique_ptr<Data_Directory> directory_;
    std::unique_ptr<Agent_Database> database_;
    Agent_Identity identity_;
    secure_string access_key_;   ///< the administrator's
    secure_string upstream_key_; ///< of a member, towards the backup server
    Run_Keys keys_;
    Run_Holds holds_{[this](std::string const& host_uuid, std::string const& run_id) {
        return keys_.find_run(host_uuid, run_id) != nullptr;
    }};
    std::unique_ptr<Write_Journal> journal_;
    std::shared_ptr<SQLite_Catalog> catalog_;
    std::shared_ptr<SQLite_Instances> instances_;
    std::shared_ptr<SQLite_Pools> pools_;
    std::shared_ptr<Agent_Storage_Backend> storage_;
    std::unique_ptr<Set_Files> set_files_;
    std::unique_ptr<Pool_Status> pool_status_;
    std::unique_ptr<Group_Instances> group_instances_;
    std::unique_ptr<Group_Members> members_;
    std::unique_ptr<Method_Access> access_;
    std::unique_ptr<Run_Access> run_access_;
    std::shared_ptr<Agent_Module> module_;
    std::unique_ptr<Instance_Probe> probe_;
    std::unique_ptr<Instance_Condition> instance_condition_;
    std::unique_ptr<Definition_Store> definitions_;
    std::shared_ptr<Agent_Jobs> runs_;
    std::shared_ptr<Job_Watch> watch_;
    std::unique_ptr<Job_Manager> jobs_;
    std::unique_ptr<Scheduler> scheduler_;
    Method_Table methods_;
    Rest_Routes routes_;
    std::unique_ptr<Rpc_Server> server_;
    std::unique_ptr<Agent_Group> group_;
};

#endif
