#ifndef GAUSSDB_JOB_GAUSSDB_TPOPS_RUN_H
#define GAUSSDB_JOB_GAUSSDB_TPOPS_RUN_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "gaussdb/common/tpops_restful_client.h"
#include "host/job/job_event_handler.h"
#include "xbsa/xbsa_mem_map_handle.h"

#include <ace/Time_Value.h>

#include <functional>
#include <string>

class Job;
class Roach_Source;

/**
 * Base of the executors for an instance of TPOPS: the instance and its platform, the backup agent
 * on this host, the policy and the counter file that this one works by, and the wait for the
 * platform's job. Functions that return bool have logged a failure, unless they say otherwise. For
 * the job's thread.
 */
class GaussDB_TPOPS_Run {
public:
    GaussDB_TPOPS_Run(GaussDB_TPOPS_Run const&) = delete;
    GaussDB_TPOPS_Run& operator=(GaussDB_TPOPS_Run const&) = delete;

protected:
    static constexpr int SLEEP_INTERVAL = 3; ///< seconds between two polls

    /** Requests a job's state, which is unchanged on a failure. */
    using Ask_State = std::function<bool(TPOPS_Job_State& state)>;

    /** @param job  must outlive this object */
    explicit GaussDB_TPOPS_Run(Job& job) : run_job_(job) {}
    ~GaussDB_TPOPS_Run();

    /** Finds the instance `cluster_` and logs on to its platform; only the former logs a failure.
     */
    [[nodiscard]] bool connect_to_platform(std::string const& instance,
                                           TPOPS_RESTful_Client& client);
    /**
     * Finds the backup agent's user, which gets the policy of this run.
     * @return false also if several users run one with this route, since none can be trusted
     */
    [[nodiscard]] static bool find_backup_agent(std::string const& host, uint16_t port, bool ssl,
                                                std::string& user);
    /** Calls the platform. An invalid answer is a logged failure. */
    [[nodiscard]] bool ask_platform(std::function<bool()> const& call) const;

    /**
     * Removes the files that dead runs of TPOPS left on this host, and writes the run's policy.
     * @param name  of the policy
     */
    [[nodiscard]] bool write_policy(Roach_Source& source, std::string const& name);
    /** Opens `counter_`, the counter file of the policy, for the backup agent's user. Logs nothing
     * but the cause. */
    [[nodiscard]] bool open_counter(std::string const& user);

    [[nodiscard]] bool canceled() const;
    /** Sleeps until the next poll. */
    void sleep() const;
    /**
     * Polls until the job has ended. While the platform does not answer, the run waits without a
     * limit and reports that.
     * @param building_runs  whether TPOPS_JOB_STATE_BUILDING is reported as progress
     * @param state          gets how the job ended
     * @return false when the run was canceled
     */
    [[nodiscard]] bool wait_for_job(Job_Event_Handler& events, Ask_State const& ask,
                                    bool building_runs, TPOPS_Job_State& state);
    /**
     * Reads the state of a job of the platform; logs nothing of its own.
     * @param state   set also for a job that failed, for which this returns false
     * @param result  gets the platform's answer
     */
    [[nodiscard]] bool read_job_state(TPOPS_RESTful_Client& client, char const* job_id,
                                      TPOPS_Job_State& state, json_spirit::Value& result) const;
    /** Shows that the run waits for the platform, or no longer does. */
    void platform_answers(bool answers);
    /** Logs that the platform's job goes on after a cancel, and how to end it. */
    void tell_of_running(std::string const& what) const;

    GaussDB_Cluster_Handler_var cluster_; ///< empty until connect_to_platform() has found it
    ACE_UINT64 databases_size_ = 0;       ///< bytes that are 100 percent; 0 if unknown
    Xbsa_Mem_Map_Handle counter_;
    ACE_Time_Value sleep_interval_{SLEEP_INTERVAL};

private:
    [[nodiscard]] bool is_running(TPOPS_Job_State state, bool building_runs) const;

    Job& run_job_;
    std::string platform_; ///< "HOST:PORT"
    std::string policy_;   ///< name of this run's policy; "" before it has one
    bool waits_ = false;   ///< the platform does not answer
};

#endif
