#ifndef AGENT_SERVICE_RUN_ACCESS_H
#define AGENT_SERVICE_RUN_ACCESS_H

#include "agent/rpc/run_keys.h"

#include <string>

class Job;

/**
 * Gives each run of this agent its key, and takes it back. A member's backup server is told of
 * both, since that is what the data path of a member asks. For any thread.
 */
class Run_Access {
public:
    /** @param keys  must outlive this object */
    Run_Access(Run_Keys& keys, std::string host_uuid, bool member)
        : keys_(keys), host_uuid_(std::move(host_uuid)), member_(member) {}

    /**
     * Makes the key of a run, waiting for the backup server where there is one.
     * @param instance  name of the instance that the run works on
     * @return "", logged, when no key could be made: the run can write no policy
     */
    secure_string begin(Job const& job, std::string const& instance);
    /** The run is over. Waits for nobody: a server that cannot be told learns it from runs(). */
    void end(std::string const& run_id);
    /** The runs that are on, for group.join. */
    json_spirit::Array runs() const;

private:
    Run_Keys& keys_;
    std::string const host_uuid_;
    bool const member_;
};

#endif
