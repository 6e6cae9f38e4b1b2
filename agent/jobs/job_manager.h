#ifndef AGENT_JOBS_JOB_MANAGER_H
#define AGENT_JOBS_JOB_MANAGER_H

#include "agent/jobs/agent_jobs.h"
#include "agent/jobs/definition_json.h"
#include "agent/jobs/definition_store.h"
#include "agent/jobs/job_modules.h"
#include "agent/jobs/start_condition.h"
#include "host/job/job.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

/** A definition with what its job is doing. */
struct Described_Definition {
    Stored_Definition stored;
    /** The running job's, or "disabled", or how the last run ended; "idle" before the first. */
    std::string state;
    time_t last_start = 0; ///< of the last run; 0 before the first
    time_t last_end = 0;   ///< of the last run; 0 while it is on
    bool running = false;
};

/** The definition with "state", "last_run" and "next_run", 0 for none. */
json_spirit::Object described_to_json(Described_Definition const& definition, time_t next_run);

/**
 * Owns the live job of each definition, and takes requests for definitions and runs. A job is made
 * when it is first started, and again after its definition has changed or for another level. A
 * definition can be changed while its job runs: what counts is what it was when the run began.
 *
 * Each request is carried out whole before the next begins; none waits for a run. Requests may come
 * on any thread that holds none of the jobs' locks.
 *
 * A run whose conditions do not hold yet is on record at once and waits. It counts as running, says
 * in Job_Run::waiting_for what it waits for, and can be canceled. start_waiting() starts it.
 */
class Job_Manager {
public:
    struct Settings {
        Job_Modules modules;
        Definition_Defaults defaults;
        /** For the jobs' activity files, one a definition; made with mode 0700. */
        std::string activity_directory;
        /** A run starts when all of them say so; the first one that does not decides. */
        std::vector<Start_Condition> conditions = {};
    };

    /** @param definitions, jobs, clock  not owned; live longer than this */
    Job_Manager(Definition_Store& definitions, Agent_Jobs& jobs, Settings settings,
                Storage_Clock& clock = Storage_Clock::system());

    /**
     * Checks a definition and keeps it. A run that is running or waits goes on as it began.
     * @param id  gets its id, which it had or was given
     */
    Job_Answer save(json_spirit::Object const& given, std::string& id);
    /**
     * Changes a definition as save() does.
     * @param changes  members that replace the definition's; those of objects are merged, null
     *                 removes one (RFC 7396)
     */
    Job_Answer change(std::string const& id_or_name, json_spirit::Object const& changes);
    /** Lets the job clean up, and deletes definition and activity. Runs stay on record. */
    Job_Answer remove(std::string const& id_or_name);
    Job_Answer show(std::string const& id_or_name, Described_Definition& result);
    Job_Answer list(std::vector<Described_Definition>& result);

    /**
     * Starts a run of a definition, or lets it wait.
     * @param run_id         gets the run's id
     * @param definition_id  gets the definition's
     * @param level          of the backup; "" for the definition's
     * @return REFUSED, with the reason, when it runs already, is disabled, the module makes no job
     *         of it, or the agent is about to end
     */
    Job_Answer start(std::string const& id_or_name, std::string& run_id, std::string& definition_id,
                     std::string const& level = "");
    /**
     * Starts a run that a schedule wants. One that cannot be started is on record as failed, with
     * an alert; if it is running already, the running run gets an alert.
     * @param why  when it was due, for the alert
     */
    void start_due(Stored_Definition const& stored, std::string const& level,
                   std::string const& why);
    /**
     * Saves a definition and starts it. Without an id it changes the one of its name: a member that
     * is not given keeps its value, such as a schedule; null removes one. Without a name it gets
     * one. A new definition that cannot be started is removed again.
     */
    Job_Answer start_new(json_spirit::Object const& given, std::string& run_id,
                         std::string& definition_id);
    /** Starts a run of a definition that is not kept, whose name is of no importance. */
    Job_Answer start_once(json_spirit::Object const& given, std::string& run_id,
                          std::string& definition_id);

    /**
     * Starts the waiting runs whose conditions hold by now, and ends those that cannot start.
     * Drops the jobs of start_once() that have ended.
     */
    void start_waiting();

    /** Requests to the run whose id begins like that. REFUSED when it has ended or cannot do it. */
    /** @param now  ends the run's programs, too: Job::abort_now() */
    Job_Answer cancel(std::string const& run, bool now = false);
    Job_Answer stop(std::string const& run);
    Job_Answer pause(std::string const& run);
    Job_Answer resume(std::string const& run);

    /** Whether a run of that definition, by its id, is on. */
    [[nodiscard]] bool is_running(std::string const& definition_id);

    /**
     * Refuses to start anything from now on, cancels all runs and waits for their end.
     * @param seconds  for how long at most
     * @return the names of those that did not end, which have been logged. The last lines of the
     *         ended ones' code may still run for a moment: see Job.
     */
    std::vector<std::string> shutdown(int64_t seconds);

private:
    /** A run whose job has not been started yet. */
    struct Waiting {
        std::string run_id;
        int64_t since;            ///< by the steady clock
        Stored_Definition stored; ///< as it was when the run was put on record
        bool is_kept;             ///< the definition is
    };
    struct Live_Job {
        Job_var job;
        json_spirit::Object body; ///< what it was made of
        bool is_kept;             ///< its definition is on record
    };
    using Request = int (Job::*)(Job::Action_Options const*, std::string*);

    Job_Answer save_i(json_spirit::Object const& given, std::string& id);
    Job_Answer change_i(Stored_Definition const& stored, json_spirit::Object const& changes);
    Job_Answer start_i(std::string const& id_or_name, std::string const& level, std::string& run_id,
                       std::string& definition_id);
    Job_Answer start_stored(Stored_Definition const& stored, std::string& run_id);
    Job_Answer complete(json_spirit::Object const& given, json_spirit::Object& normal,
                        Stored_Definition& stored) const;
    Job_Answer start_now(Stored_Definition const& stored, std::string& run_id, bool is_kept = true);
    Job_Answer start_later(Stored_Definition const& stored, Start_Answer const& may,
                           std::string& run_id, bool is_kept = true);
    Start_Answer may_start(Stored_Definition const& stored) const;
    [[nodiscard]] bool goes_on_waiting(Waiting const& waiting, Start_Answer may);
    Job_Answer remove_i(Stored_Definition const& stored);
    Job_Answer check(json_spirit::Object const& normal, Job_Definition_var& result) const;
    Job_Answer check_times(json_spirit::Object const& normal) const;
    Job_Answer job_of(Stored_Definition const& stored, Job_var& result, bool is_kept = true);
    Job_Answer make_job(Stored_Definition const& stored, bool is_kept, Job_var& result) const;
    Job_Answer request(std::string const& run, Request what);
    Job_Answer request_waiting(Job_Run const& run, Request what);
    [[nodiscard]] bool runs(std::string const& definition_id) const;
    Job_Answer describe(Stored_Definition const& stored, Described_Definition& result);
    Job_Module const* module_of(json_spirit::Object const& definition) const;
    std::string activity_path(std::string const& definition_id) const;

    Definition_Store& definitions_;
    Agent_Jobs& jobs_;
    Settings const settings_;
    Storage_Clock& clock_;
    std::mutex mutex_; // held during a whole request; taken before any job's lock
    std::map<std::string, Live_Job> live_; // by the definition's id, as below
    std::map<std::string, Waiting> waiting_;
    bool closing_ = false;
};

#endif
