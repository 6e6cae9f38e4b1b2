#ifndef HOST_JOB_JOB_BACKEND_H
#define HOST_JOB_JOB_BACKEND_H

#include "host/job/job_state.h"
#include "json_spirit/secure_string.h"
#include "json_spirit/value.h"

#include <cstdint>
#include <memory>
#include <set>
#include <string>

class ACE_Log_Msg_Callback;
class Job;

/** How far a run is. A counter of 0 says nothing. */
struct Job_Progress {
    int percent;             ///< as the executor reckoned it: it may fall, or be beyond 0 to 100
    uint64_t processed_size; ///< bytes
    uint64_t total_size;     ///< bytes
    uint64_t speed;          ///< bytes a second
};

/** How a run ended. */
struct Job_Outcome {
    Job_State state;     ///< COMPLETED, CANCELED or ERROR
    int code;            ///< 0 for a success
    std::string message; ///< why it failed, in words; may be ""
};

/** Something that an operator should see. */
struct Job_Alert {
    unsigned long level;       ///< 5: the run goes on, in another way than asked for; 7: it fails
    unsigned long code;        ///< what happened, within its level
    unsigned long detail_code; ///< 0: nothing more to say
    json_spirit::Value detail; ///< what the text may want to name
    long count;                ///< how often it happened
    std::string text;          ///< level and code in words
};

/** The answer to a run that wants resources for itself. */
struct Hold_Answer {
    enum Kind { GRANTED, WAIT, REFUSED };
    Kind kind = GRANTED;
    std::string text; ///< WAIT: for what, such as a job of an instance; REFUSED: why
};

/**
 * What becomes of what jobs tell: the agent's own implementation keeps runs, lines and alerts.
 *
 * The calls marked "in order" come one at a time for each job, in the order in which things
 * happened, while the job's own lock is held. Such a call may read the job. It must not wait for
 * anything that takes a request to that job, and a caller of requests (Job::start() and so on)
 * must not hold a lock that these calls take. The others may come at any time, on any thread.
 *
 * An implementation logs its own failures; a run goes on without it.
 */
class Job_Backend {
public:
    virtual ~Job_Backend() = default;

    /**
     * The id of a run that is about to start: a new uuid as text. In order.
     * @return "" refuses the run.
     */
    virtual std::string new_run_id(Job const& job) = 0;
    /** A state of the job that Job::state() already shows. In order. */
    virtual void state_changed(Job const& job, Job_State state) = 0;
    /** In order. */
    virtual void progressed(Job const& job, Job_Progress const& progress) = 0;
    /** At most once a run; none for a run that was skipped or whose precondition failed. In order.
     */
    virtual void ended(Job const& job, Job_Outcome const& outcome) = 0;
    /** The run's thread is about to leave the job; the last call of a run. In order. */
    virtual void finished(Job const& job) = 0;
    /** The activity record was changed by hand, its state too, perhaps. In order. */
    virtual void synced(Job const& job) = 0;

    /**
     * The key of the run that Job::run_id() names, which the run's threads use: see
     * Host_Manager::access_key(). Asked once a run, on its thread, without the job's lock. It is
     * void once finished() has been called. "" for a run without one, here.
     */
    virtual secure_string run_key(Job const& /*job*/) { return {}; }

    /**
     * Asks for resources, all or none, for the run that Job::run_id() names. A run that is told to
     * wait keeps its place in the queue as long as it asks again with the same resources. Does not
     * wait for other runs. Without the job's lock. Here: always granted. See Run_Hold.
     */
    virtual Hold_Answer hold(Job const& /*job*/, std::set<std::string> const& /*resources*/) {
        return {};
    }
    /** Ends what hold() began: the resources, or the place in the queue. */
    virtual void release(Job const& /*job*/, std::set<std::string> const& /*resources*/) {}
    /** What the run waits for, for people; "" when it waits no longer. */
    virtual void waiting(Job const& /*job*/, std::string const& /*what*/) {}
    /** What the run is doing, for people: "saving metadata". Called without the job's lock. */
    virtual void phase(Job const& /*job*/, std::string const& /*what*/) {}

    virtual void alert(Job const& job, Job_Alert const& alert) = 0;
    /**
     * Takes the log lines of the run that Job::run_id() names. Its log() may be called on several
     * threads at once, and as long as anybody holds it. May be null: the lines go to no log but
     * the agent's.
     */
    virtual std::shared_ptr<ACE_Log_Msg_Callback> log_callback(Job const& job) = 0;
};

#endif
