#ifndef AGENT_JOBS_SCHEDULER_H
#define AGENT_JOBS_SCHEDULER_H

#include "agent/jobs/job_manager.h"
#include "qmrt/thread_helper.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>

/**
 * Starts jobs when their schedules say so (Definition_Schedule).
 *
 * Of each definition it is on record up to when what was due has been dealt with. So a job that
 * was due while the agent was down, or while the machine slept, is started once when it is back,
 * however many times it has missed, unless its schedule does not catch up: then what is more than
 * two minutes late is passed over. A definition counts from when its schedule was saved. What is
 * due while the job is disabled is passed over with a line in the log; what is due while it still
 * runs, with a line and an alert of the running run. When the clock is set back by more than an
 * hour, schedules begin anew from the new time. A clock that is set is noticed within 30 seconds.
 *
 * The thread also calls Job_Manager::start_waiting() whenever a run has finished, when it is woken,
 * and at least every 30 seconds.
 *
 * A continuous job comes again so many seconds after its last run ended, however that was started,
 * or after its definition was saved or a start failed, whichever is the latest.
 */
class Scheduler {
public:
    /** @param all  not owned; must outlive this object */
    Scheduler(Job_Manager& manager, Definition_Store& definitions, Agent_Jobs& jobs,
              Storage_Clock& clock = Storage_Clock::system());
    /** Stops. */
    ~Scheduler();
    Scheduler(Scheduler const&) = delete;
    Scheduler& operator=(Scheduler const&) = delete;

    /** Starts the thread that does the work. @return 0, or -1 when there is no thread for it */
    int start();
    /** Ends that thread and waits for it. Runs go on. */
    void stop();
    /**
     * A definition may have changed, or what a waiting run waits for may be over: looks again now.
     * Thread-safe.
     */
    void wake();

    /**
     * One look: starts what is due. The thread's own work, and for one that has no thread.
     * @return when something will be due next, as far as is known now; 0 for nothing
     */
    time_t run_due();

    /** When a definition will be started next; 0 when nobody knows. Thread-safe. */
    time_t next_run(Described_Definition const& definition) const;
    /** The next runs of a definition, at most @a count; none of one that is disabled. Thread-safe.
     */
    std::vector<Due_Run> next_runs(Described_Definition const& definition, size_t count) const;

private:
    struct Bell;

    void work();
    time_t since(Described_Definition const& definition, Definition_Schedule const& schedule,
                 time_t now) const;
    time_t look_at(Described_Definition const& definition, time_t now);
    void deal_with(Stored_Definition const& stored, Definition_Schedule const& schedule,
                   time_t since, time_t now);
    [[nodiscard]] bool read_schedule(Stored_Definition const& stored,
                                     Definition_Schedule& schedule);

    Job_Manager& manager_;
    Definition_Store& definitions_;
    Storage_Clock& clock_;
    std::set<std::string> unreadable_; // definitions whose schedule cannot be read, told once
    std::shared_ptr<Bell> const bell_; // rung by runs that may outlive this
    Thread_Helper thread_;
};

#endif
