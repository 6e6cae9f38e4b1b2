#ifndef GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_RUN_H
#define GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_RUN_H

#include "gaussdb/common/gaussdb_cluster_handler.h"

#include <ace/Event.h>
#include <ace/Time_Value.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

class Cancellation;
class Job;
class Roach_Executor;

/**
 * Base of the executors for a cluster without an agent: the cluster and its record, the service on
 * this host that moves the data, the database node, and the tool's run with the thread that stops
 * it on a cancel. Functions that return bool have logged a failure. For the job's thread.
 */
class GaussDB_Non_Intrusive_Run {
public:
    GaussDB_Non_Intrusive_Run(GaussDB_Non_Intrusive_Run const&) = delete;
    GaussDB_Non_Intrusive_Run& operator=(GaussDB_Non_Intrusive_Run const&) = delete;

protected:
    static constexpr int STOP_INTERVAL = 2; ///< seconds between two looks for a cancel
    /** Seconds for the stop command after the tool has ended. */
    static constexpr int STOP_LIMIT = 3;
    /** The same after Job::abort_now(): only this host's ssh has ended, the tool may still run. */
    static constexpr int STOP_LIMIT_NOW = 60;

    /** @param job  must outlive this object */
    explicit GaussDB_Non_Intrusive_Run(Job& job) : run_job_(job) {}
    ~GaussDB_Non_Intrusive_Run() = default;

    /** Finds the cluster `instance_` and the hosts that get its policy. */
    [[nodiscard]] bool find_instance();
    [[nodiscard]] bool is_opengauss() const;
    [[nodiscard]] bool canceled() const;

    /** Reads the cluster's record. @param failure  the error line's text */
    [[nodiscard]] bool read_instance(char const* failure);
    /** @param user  whose service moves the data */
    [[nodiscard]] bool find_service(std::string& user);
    [[nodiscard]] bool get_client_info(std::string& user);
    /** The node's own name. */
    [[nodiscard]] bool get_roach_host_name(std::string& hostname) const;
    /** What the run uses alone beside its instance, for Run_Hold. */
    std::set<std::string> resources(std::string const& policy_name,
                                    std::string const& host_name) const;

    [[nodiscard]] bool execute_ssh_command(std::string const& command, std::string& result) const;
    /** Writes a list to the node; remove_lists() removes it. */
    [[nodiscard]] bool send_list(std::vector<std::string> const& lines, std::string const& path,
                                 std::string const& run_id);
    void remove_lists();
    /**
     * Removes a directory from all nodes of the cluster, to which the node itself logs in. Logs a
     * warning for each node where this fails.
     * @param login  the options of the node's ssh, with a blank behind them
     */
    void remove_from_nodes(std::string const& path, std::string const& login) const;

    /**
     * Calls @a work with the tool, unless the run is canceled, while the stop thread looks for a
     * cancel; then @a clean_up, which may run programs for a canceled run, too.
     */
    [[nodiscard]] bool run_with_stop_thread(
        std::function<bool(Roach_Executor&)> const& work,
        std::function<void()> const& clean_up = [] {});
    void job_stop_thread(ACE_Event& event, std::shared_ptr<Cancellation> const& stop);

    ACE_Time_Value stop_interval_{STOP_INTERVAL};
    ACE_Time_Value stop_limit_{STOP_LIMIT};
    ACE_Time_Value stop_limit_now_{STOP_LIMIT_NOW};
    GaussDB_Cluster_Handler_var cluster_; ///< empty until find_instance() has found it
    std::string instance_;
    std::string address_;   ///< the node, for ssh
    std::string meta_path_; ///< the tool's metadata directory on the node
    std::string ssh_opts_;
    std::string source_commands_;
    std::string remote_ip_;    ///< where the backUpAgent listens; openGauss only
    uint16_t backup_port_ = 0; ///< of the tool's master
    uint16_t client_port_ = 0; ///< of the service that moves the data
    int nodes_count_ = 0;
    std::vector<std::string> host_uuids_; ///< the agents that get the policy

private:
    Job& run_job_;
    std::vector<std::string> lists_; ///< on the node
};

#endif
