#ifndef AGENT_JOBS_DEFINITION_STORE_H
#define AGENT_JOBS_DEFINITION_STORE_H

#include "agent/jobs/job_answer.h"
#include "json_spirit/value.h"

#include <ctime>
#include <string>
#include <vector>

class Agent_Database;

/** A definition on record. */
struct Stored_Definition {
    std::string id;
    std::string name;
    std::string instance;
    bool enabled = true;
    json_spirit::Object body; ///< as normalise_definition() made it
    time_t planned = 0;       ///< what was due up to then has been dealt with
};

/**
 * Keeps job definitions in the agent's database, whose tables (JOB_TABLES) must be there. It looks
 * at what it is given no further than the names and the id: checking is definition_from_json()'s.
 * May be used on any thread.
 */
class Definition_Store {
public:
    /** @param database  not owned; lives longer than this */
    explicit Definition_Store(Agent_Database& database) : database_(database) {}

    /**
     * Adds a definition, or replaces the one of its id.
     * @param now  counts as `planned` for one that is new, or whose schedule or "enabled" has
     *             changed: no time before is made up for
     * @return REFUSED when another one has the name
     */
    Job_Answer save(json_spirit::Object const& body, time_t now);
    /** @param id_or_name  an id goes before a name; NOT_FOUND for any other text */
    Job_Answer find(std::string const& id_or_name, Stored_Definition& result);
    /** All, by their names. */
    Job_Answer list(std::vector<Stored_Definition>& result);
    /** NOT_FOUND when there is none of that id. Its runs stay. */
    Job_Answer remove(std::string const& id);
    /** A definition that is gone meanwhile is a success. */
    Job_Answer set_planned(std::string const& id, time_t planned);

private:
    Agent_Database& database_;
};

#endif
