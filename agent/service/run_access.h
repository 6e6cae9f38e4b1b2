#ifndef AGENT_SERVICE_RUN_ACCESS_H
#define AGENT_SERVICE_RUN_ACCESS_H

#include "agent/jobs/run_holds.h"
#include "agent/rpc/run_keys.h"
#include "host/job/job_backend.h"

#include <map>
#include <mutex>
#include <set>
#include <string>

class Job;

/**
 * Gives each run of this agent its key, and takes it back. A member's backup server is told of
 * both, since that is what the data path of a member asks. Asks that server for the resources that
 * a run wants for itself, too, since runs of other hosts may want the same. For any thread.
 */
class Run_Access {
public:
    /** @param keys, holds  must outlive this object; a member does not use its own holds */
    Run_Access(Run_Keys& keys, Run_Holds& holds, std::string host_uuid, bool member)
        : keys_(keys), holds_(holds), host_uuid_(std::move(host_uuid)), member_(member) {}

    /**
     * Makes the key of a run, waiting for the backup server where there is one.
     * @param instance  name of the instance that the run works on
     * @return "", logged, when no key could be made: the run can write no policy
     */
    secure_string begin(Job const& job, std::string const& instance);
    /** The run is over. Waits for nobody: a server that cannot be told learns it from runs(). */
    void end(std::string const& run_id);
    /** The running runs and the resources that each has, for group.join. */
    json_spirit::Array runs() const;

    /** See Job_Backend::hold() and release(). Waits for nothing but the backup server's answer. */
    Hold_Answer hold(Job const& job, std::set<std::string> const& resources);
    void release(Job const& job, std::set<std::string> const& resources);

    /** A run, as those that wait for it are told. */
    static std::string text_of(std::string const& job_name, std::string const& instance);

private:
    /** What a run of a member has; the backup server's table can be lost. */
    struct Held {
        std::string name; ///< of the job
        std::set<std::set<std::string>> requests;
    };

    Run_Keys& keys_;
    Run_Holds& holds_;
    std::string const host_uuid_;
    bool const member_;
    mutable std::mutex mutex_;
    std::map<std::string, Held> held_; ///< by the run's id; a member's only
};

#endif
