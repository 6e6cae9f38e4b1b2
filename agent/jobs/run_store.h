#ifndef AGENT_JOBS_RUN_STORE_H
#define AGENT_JOBS_RUN_STORE_H

#include "agent/jobs/job_answer.h"
#include "host/job/job_backend.h"
#include "json_spirit/value.h"

#include <ctime>
#include <set>
#include <string>
#include <vector>

class Agent_Database;

/** One run on record. */
struct Job_Run {
    std::string run_id;
    std::string definition; ///< its id
    std::string name;       ///< of the definition, when the run began
    std::string type;
    std::string subtype;
    std::string instance;
    Job_State state = JOB_STATE_STARTING;
    int code = 0;
    std::string message;         ///< for people: why it failed, or what it is about to do
    int percent = 0;             ///< 0 to 100
    uint64_t processed_size = 0; ///< bytes, as the others
    uint64_t total_size = 0;
    uint64_t speed = 0; ///< bytes a second
    uint64_t set_size = 0;
    time_t start_time = 0;
    time_t end_time = 0;      ///< 0 while it is on
    int alerts = 0;           ///< how many; only read
    bool became_full = false; ///< an alert says that a full backup was made; only read

    // computed when requested; not stored

    std::string waiting_for = {}; ///< what it waits for, for people; "" for nothing
    std::string phase = {};       ///< what it is doing, for people; "" if unknown
    uint64_t expected_size = 0;   ///< bytes that it will probably process; 0 if unknown
    uint64_t average_speed = 0;   ///< bytes a second
    int64_t elapsed = 0;          ///< seconds from its start to its end, or to now
    int64_t remaining = -1;       ///< seconds that it will probably still take; -1 if unknown
    uint64_t revision = 0;        ///< increases with each change of a running run
};

/**
 * {"run_id", "definition", ..., "remaining"}: all members but the revision. The state is that of
 * job_state_to_string(); an unknown "remaining" is null.
 */
json_spirit::Object run_to_json(Job_Run const& run);

struct Run_Alert {
    Job_Alert alert;
    time_t time;
};

/** {"level", "code", "text", "advice", "time", "count"}; RUN and INSTANCE in the advice are
 * replaced. */
json_spirit::Object alert_to_json(Run_Alert const& alert, Job_Run const& run);

/** Which runs to list; "" for any. */
struct Run_Query {
    static constexpr size_t MAX_LIMIT = 10000;

    std::string definition; ///< an id or a name that it has had
    std::string instance;
    std::string state;  ///< as job_state_to_string() has it
    size_t limit = 100; ///< at most MAX_LIMIT
};

/**
 * Runs and their alerts in the agent's database, whose tables (JOB_TABLES) must be there. A false
 * or FAILED means that the database failed, which is logged. May be used on any thread.
 */
class Run_Store {
public:
    /** @param database  not owned; lives longer than this */
    explicit Run_Store(Agent_Database& database) : database_(database) {}

    /** Adds a run. It gets the instance that its definition is on record with, into @a run too. */
    [[nodiscard]] bool add(Job_Run& run);
    /** Writes what a run changes: its state, outcome, sizes and times. */
    [[nodiscard]] bool update(Job_Run const& run);
    [[nodiscard]] bool add_alert(std::string const& run_id, Job_Alert const& alert, time_t time);

    /** The newest first. INVALID for a state that there is none of. */
    Job_Answer list(Run_Query const& query, std::vector<Job_Run>& result);
    /**
     * @param beginning  a run's id, or as much of its beginning as no other run has
     * @return NOT_FOUND, or INVALID when several runs have that beginning
     */
    Job_Answer find(std::string const& beginning, Job_Run& result);
    /**
     * Finds the size of the last completed backup of an instance and level.
     * @param size  0 if there has been none
     */
    [[nodiscard]] bool last_size(std::string const& instance, std::string const& subtype,
                                 uint64_t& size);
    /** A definition's last run. NOT_FOUND before the first. */
    Job_Answer last(std::string const& definition, Job_Run& result);
    /** In the order in which they came. */
    Job_Answer alerts(std::string const& run_id, std::vector<Run_Alert>& result);

    /**
     * Deletes all runs but the newest of @a definition, and of all definitions together that are
     * no longer there. Runs that are on stay.
     * @param deleted  gets the ids of those that went
     */
    [[nodiscard]] bool prune(std::string const& definition, size_t keep,
                             std::vector<std::string>& deleted);
    /**
     * Makes JOB_STATE_ERROR of the runs that are on, and raises the alert on each.
     * @param count  gets how many there were
     */
    [[nodiscard]] bool fail_open_runs(std::string const& message, Job_Alert const& alert,
                                      time_t now, int& count);
    [[nodiscard]] bool ids(std::set<std::string>& result);

private:
    Agent_Database& database_;
};

#endif
