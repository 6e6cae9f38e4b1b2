#ifndef AGENT_SERVICE_INSTANCE_CONDITION_H
#define AGENT_SERVICE_INSTANCE_CONDITION_H

#include "agent/jobs/definition_store.h"
#include "agent/jobs/start_condition.h"

#include <string>
#include <vector>

class Instance_Probe;

/**
 * Ties a run to the instance that its definition names: the run waits until this host has been
 * searched for instances once, and fails for an instance that no host has. One that only other
 * hosts of the group have is theirs to run: the run is skipped. A definition that names no instance
 * is left to its module. Thread-safe; asks the backup server about what this host does not have.
 */
class Instance_Condition {
public:
    /** Seconds that a run waits for the first search. */
    static constexpr int64_t LONGEST_WAIT = 15 * 60;

    /** @param probe  not owned; must outlive this object */
    Instance_Condition(Instance_Probe const& probe, std::string host_uuid)
        : probe_(probe), host_uuid_(std::move(host_uuid)) {}

    /** A Start_Condition. */
    Start_Answer may_start(Stored_Definition const& definition) const;
    /**
     * Finds an instance's uuid, as Definition_Defaults::find_instance says. One that only other
     * hosts of the group have is found, too.
     */
    [[nodiscard]] bool find(std::string const& instance, std::string& uuid,
                            std::string& error) const;
    /** An Agent_Jobs::Skip_Judge: a skip is right if another host has the instance. */
    std::string fault_of_skip(std::string const& instance) const;

private:
    /** @return false with the reason if the group could not be asked */
    [[nodiscard]] bool others_have(std::string const& instance, bool& have,
                                   std::string& error) const;

    Instance_Probe const& probe_;
    std::string const host_uuid_;
};

#endif
