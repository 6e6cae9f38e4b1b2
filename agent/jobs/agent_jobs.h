#ifndef AGENT_JOBS_AGENT_JOBS_H
#define AGENT_JOBS_AGENT_JOBS_H

#include "agent/jobs/run_log.h"
#include "agent/jobs/run_meter.h"
#include "agent/jobs/run_store.h"
#include "host/job/job_backend.h"
#include "host/storage/storage_clock.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class Agent_Database;

/**
 * The agent's own keeper of runs: states, outcomes and alerts in the database, lines in a log file
 * for each run. How far a run is, it keeps in memory, and in the database at most a second old.
 *
 * A run whose first record cannot be written does not start. Later failures of the database or of
 * the log's disk are logged and disturb no run. The newest runs of each definition are kept, with
 * their logs; older ones go when a run ends.
 *
 * Of a run that was skipped, or stayed away since its precondition failed, the record says
 * "skipped". All may be called on any thread; no caller may hold a lock that a job's run takes.
 */
class Agent_Jobs : public Job_Backend {
public:
    struct Settings {
        std::string log_directory;
        size_t keep_runs = 100; ///< of each definition
        uint64_t log_limit = Run_Logs::DEFAULT_LIMIT;
    };

    /** @param database, clock  not owned; live longer than this */
    Agent_Jobs(Agent_Database& database, Settings settings,
               Storage_Clock& clock = Storage_Clock::system());

    /**
     * To be called once, before anything runs: what is on by the record was cut off when the last
     * process ended, and becomes JOB_STATE_ERROR. Logs without a run are deleted.
     * @return false when the database failed
     */
    [[nodiscard]] bool recover();

    /**
     * As Run_Store has them, with how far the runs are now: a run has its outcome and its end only
     * when the job can be started again.
     */
    Job_Answer list(Run_Query const& query, std::vector<Job_Run>& result);
    Job_Answer find(std::string const& beginning, Job_Run& result);
    Job_Answer last(std::string const& definition, Job_Run& result);
    Job_Answer alerts(std::string const& run_id, std::vector<Run_Alert>& result);
    /** @param run_id  the whole id. FAILED when the file cannot be read; see Run_Logs::read(). */
    Job_Answer read_log(std::string const& run_id, uint64_t offset, uint64_t limit,
                        Run_Log_Piece& piece);

    /**
     * Waits until @a condition holds; it is asked at first and whenever a run has finished.
     * @return what it said at last
     */
    [[nodiscard]] bool wait_for_finished(std::function<bool()> const& condition, int64_t seconds);
    /** Whether a run is on; not one that has finished and calls what on_finished() was given. */
    [[nodiscard]] bool is_any_on();
    /** The runs that are on, and those whose threads have not left the job yet. */
    std::vector<Job_Run> running();

    /**
     * Puts a run on record before its job can be started. It is JOB_STATE_STARTING, and counts as
     * running, until that job's start, which takes the run over, or end_unstarted().
     * @param run  gets its id and start
     * @return false when the database failed
     */
    [[nodiscard]] bool add_unstarted(Job_Run& run);
    /**
     * Ends a run whose job was never started. The message of one that failed becomes an alert, too.
     * A run that has been taken over is left alone.
     */
    void end_unstarted(std::string const& run_id, Job_Outcome const& outcome);
    /** Adds a warning to the run of a definition that is running or waits; no-op without one. */
    void warn(std::string const& definition, std::string const& text);
    /** Says what a run that is on waits for, started or not; "" when it waits no longer. */
    void waits_for(std::string const& run_id, std::string const& what);
    /** Adds to the bytes that have arrived for a backup. No-op unless the run is running. */
    void stored(std::string const& run_id, uint64_t bytes);

    /** What has changed since a watcher last saw a run. */
    enum Change { NOTHING_NEW, NEW_NUMBERS, NEW_STATE, OVER };
    /** @param seen  the watcher's Job_Run::revision. @return OVER if the run is not running */
    Change change_since(std::string const& run_id, uint64_t seen);
    /** Called after each change of a run, on any thread, with locks held: must not wait. */
    void on_changed(std::function<void()> action) { on_changed_ = std::move(action); }

    /**
     * Judges a run whose job skipped itself.
     * @return what to report as an error instead; "" when the skip is right
     */
    using Skip_Judge = std::function<std::string(std::string const& instance)>;
    /** To be called before anything runs. Without it every skip is right. */
    void judge_skips(Skip_Judge judge) { skip_judge_ = std::move(judge); }

    /** Who makes the keys of runs, and is told when they are over. */
    struct Key_Hooks {
        /** See Job_Backend::run_key(). @param instance  name of what the run works on */
        std::function<secure_string(Job const& job, std::string const& instance)> begin;
        /** With the job's lock held. */
        std::function<void(std::string const& run_id)> end;
    };
    /** To be called before anything runs. Without it no run has a key. */
    void keys(Key_Hooks hooks) { keys_ = std::move(hooks); }
    /** Who knows which run has what for itself. */
    struct Hold_Hooks {
        /** See Job_Backend::hold() and release(). */
        std::function<Hold_Answer(Job const& job, std::set<std::string> const& resources)> hold;
        std::function<void(Job const& job, std::set<std::string> const& resources)> release;
    };
    /** To be called before anything runs. Without it every run has what it asks for. */
    void holds(Hold_Hooks hooks) { holds_ = std::move(hooks); }
    /**
     * Called when a run has finished without a success, before on_finished() and after its key has
     * ended, with the job's lock held: must not wait. To be called before anything runs.
     */
    void on_failed(std::function<void(std::string const& run_id)> action) {
        on_failed_ = std::move(action);
    }
    /** Calls it whenever a run has finished, on its thread, with the job's lock held: for ever. */
    void on_finished(std::function<void()> action);

    std::string new_run_id(Job const& job) override;
    void state_changed(Job const& job, Job_State state) override;
    void progressed(Job const& job, Job_Progress const& progress) override;
    void ended(Job const& job, Job_Outcome const& outcome) override;
    void finished(Job const& job) override;
    void synced(Job const& job) override;
    void alert(Job const& job, Job_Alert const& alert) override;
    secure_string run_key(Job const& job) override;
    Hold_Answer hold(Job const& job, std::set<std::string> const& resources) override;
    void release(Job const& job, std::set<std::string> const& resources) override;
    void waiting(Job const& job, std::string const& what) override;
    void phase(Job const& job, std::string const& what) override;
    std::shared_ptr<ACE_Log_Msg_Callback> log_callback(Job const& job) override;

private:
    void add_missing_alerts(std::string const& run_id, Job_State state, std::string const& message,
                            Run_Log* log);

    /** A run that is on. */
    struct Live {
        Job_Run run;
        int64_t written = 0; ///< when it was written last, by the steady clock
        std::shared_ptr<Run_Log> log;
        bool ended = false; ///< its outcome was told, and its thread has not left the job yet
        bool unstarted = false;
        Run_Meter meter{0};
        uint64_t stored = 0;         ///< bytes that the data path has reported
        uint64_t state_revision = 0; ///< of the last change of state, wait or phase
    };

    [[nodiscard]] bool add(Job_Run& run, bool unstarted = false);
    std::string instance_of(std::string const& run_id);
    /** Changes a live run and writes it; one that is not live is left alone. */
    void change(std::string const& run_id, std::function<void(Job_Run& run)> const& what,
                Change change = NEW_STATE);
    /** Gives the run a new revision and calls on_changed_. The caller holds the mutex. */
    void note_change(Live& live, Change change);
    /** Gives the meter the bytes that have passed. The caller holds the mutex. */
    void measure(Live& live);
    void reckon(Live const& live, Job_Run& run) const;
    Job_Answer show_present(Job_Run& run);
    void finish(std::string const& run_id, std::function<void(Job_Run& run)> const& what);
    void forget(std::string const& run_id);

    Run_Store store_;
    Run_Logs logs_;
    size_t const keep_runs_;
    Key_Hooks keys_;
    Skip_Judge skip_judge_;
    Hold_Hooks holds_;
    Storage_Clock& clock_;
    std::mutex mutex_; // the database is never asked under it
    std::condition_variable finished_;
    std::map<std::string, Live> live_;
    std::function<void(std::string const& run_id)> on_failed_;
    uint64_t revision_ = 0; ///< of the last change of any run
    std::function<void()> on_changed_;
    std::vector<std::function<void()>> on_finished_;
};

#endif
