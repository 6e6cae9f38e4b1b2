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

    /** Asks for a job's state, which stays as it was on a failure. */
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
     * @return false also when several users run one there, since neither can be believed
     */
    [[nodiscard]] static bool find_backup_agent(std::string const& host, uint16_t port, bool ssl,
                                                std::string& user);
    /** Calls the platform; an answer that is not as it should be is a logged failure, too. */
    [[nodiscard]] bool ask_platform(std::function<bool()> const& call) const;

    /**
     * Writes the run's policy, once what runs of TPOPS that died have left on this host is removed.
     * @param name  of the policy
     */
    [[nodiscard]] bool write_policy(Roach_Source& source, std::string const& name);
    /** Opens `counter_`, the counter file of the policy, for the backup agent's user. Logs nothing
     * but the cause. */
    [[nodiscard]] bool open_counter(std::string const& user);

    [[nodiscard]] bool canceled() const;
    /** Until the next question for a job. */
    void sleep() const;
    /**
     * Asks until the job has ended. The run waits for a platform that does not answer without a
     * limit, and says so.
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
    /** Tells the run's log how to end what the platform goes on with after a cancel. */
    void tell_of_running(std::string const& what) const;

    GaussDB_Cluster_Handler_var cluster_; ///< empty until connect_to_platform() has found it
    ACE_UINT64 databases_size_ = 0;       ///< bytes that are 100 percent; 0 when not known
    Xbsa_Mem_Map_Handle counter_;
    ACE_Time_Value sleep_interval_{SLEEP_INTERVAL};

private:
    [[nodiscard]] bool is_running(TPOPS_Job_State state, bool building_runs) const;

    Job& run_job_;
    std::string platform_; ///< "HOST:PORT"
    std::string policy_;   ///< the name of the policy that this run has; "" for none yet
    bool waits_ = false;   ///< the platform does not answer
};

#endif
