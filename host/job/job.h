#ifndef HOST_JOB_JOB_H
#define HOST_JOB_JOB_H

#include "host/job/job_activity.h"
#include "host/job/job_definition.h"
#include "json_spirit/secure_string.h"
#include "json_spirit/value.h"

#include <ace/Event_Handler.h>
#include <ace/Intrusive_Auto_Ptr.h>
#include <ace/Log_Msg_Callback.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

class Cancellation;
class Job;
class Job_Backend;
struct Job_Outcome;
struct Job_Progress;

/** Holds one reference. A Job that comes straight from new has one already: Job_var(job, false). */
using Job_var = ACE_Intrusive_Auto_Ptr<Job>;

/**
 * A job of the agent: a definition, an activity record, and runs, one at a time. What a run does
 * is a derived class's; what becomes of its states and lines is the Job_Backend's of
 * Host_Services.
 *
 * Requests, the public operations from start() to setup_ondemand(), may come on any thread. Each
 * checks here whether the job can take it now, under the job's lock, so that a run can neither
 * begin nor end in between. One that is refused changes nothing, is logged at LM_WARNING as
 * "Job NAME cannot be started: it is running already", and @a refusal, unless null, gets that
 * sentence. Then the operation of the same name with _i carries it out. All return 0 or -1, and
 * wait for nothing:
 *
 *     request            taken when
 *     start              enabled, and no run is on
 *     stop, abort        a run is on whose outcome is open; 0 without effect when it is being
 *                        canceled already
 *     abort_now          a run is on whose outcome is open
 *     pause, switch_over a run is in JOB_STATE_RUNNING
 *     resume             a run is in JOB_STATE_PAUSING or JOB_STATE_PAUSED
 *     enable, disable    at any time; a run that is on goes on
 *     update, remove,    no run is on
 *     rollback
 *     setup_ondemand     the schedule is Job_Schedule::TYPE_ONDEMAND
 *
 * A removed job takes none of them. Whether a run is on is known here, from start() or
 * set_job_thread() to complete(), and not read from the record, which may be older than the
 * process. A run holds a reference, so the job lives until its end whoever else lets go of it.
 * The code of a job that lives in a loaded module is still on the job thread's stack for a moment
 * after the run's last notification: before unloading, wait for the threads by
 * ACE_Thread_Manager::instance()->wait().
 */
class Job : public ACE_Event_Handler {
public:
    using Action_Options = json_spirit::Object;

    explicit Job(Job_Definition_var definition);

    int start(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    /** Ends the run in an orderly way; only some kinds of job can. */
    int stop(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    int enable(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    int disable(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    int pause(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    int resume(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    /** Cancels the run. It ends when its executor next looks at the state. */
    int abort(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    /**
     * abort(), and the programs that the run has started are ended, with all that they have
     * started; the run starts none any more. Its executor sees them fail.
     */
    int abort_now(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    int switch_over(Action_Options const* options = nullptr, std::string* refusal = nullptr);
    /** @param with_data  handed to remove_i(): what the job left outside goes too */
    int remove(bool with_data = false, Action_Options const* options = nullptr,
               std::string* refusal = nullptr);
    /** Exchanges the definition for another of the same id. */
    int update(Job_Definition_var definition, std::string* refusal = nullptr);
    int rollback(std::string* refusal = nullptr);
    int setup_ondemand(std::string* refusal = nullptr);

    /** Scheduled time has come: start(). Returns 0, so that a repeating timer stays. */
    int handle_timeout(ACE_Time_Value const& current_time, void const* act) override;

    /** What start() got it from, or the last update(). Null only if it was made with null. */
    Job_Definition_var definition() const;
    /** See there for who may touch what. Valid as long as the job. */
    Job_Activity& activity() { return *activity_; }
    Job_Activity const& activity() const { return *activity_; }
    /** The id of the run that is on, or of the last one; all zeros before the first. */
    std::string run_id() const;
    /** What the last run's failure was, in words; "" without one. */
    std::string message() const;
    /** True while a run is on. */
    [[nodiscard]] bool running() const { return running_; }

    Job_State state() const { return activity_->state; }
    /** Sets the state, on the job thread, and tells it. */
    void state(Job_State value);
    /** To be called after the record was written by hand. @a options is not looked at. */
    void sync(Action_Options const* options);
    /** Of the running run, cancelled by abort_now(); null if no run is running. */
    std::shared_ptr<Cancellation> cancellation() const;
    /** The key of the run that is on: see Host_Manager::access_key(). "" without one. */
    secure_string run_key() const;
    /** Takes log lines into the job's own log. Null, after an error line, without a back end. */
    std::shared_ptr<ACE_Log_Msg_Callback> log_msg_callback() const;
    /** Reports what the run is doing, for people: "saving metadata". */
    void phase(std::string const& what) const;

    /**
     * Keeps the activity record in a file from now on, so that it outlives the process. For the one
     * who made the job, before anybody else knows it: activity() is another one afterwards.
     *
     * A record of this definition that is there is taken over: times, sizes, enabled. When it says
     * that a run is on, that run died with its process: it becomes JOB_STATE_ERROR, with a warning
     * line. Anything else in the file is overwritten.
     * @return -1, with the record still in memory, when a run is on or the file cannot be mapped;
     *         logged either way.
     */
    int map_activity(std::string const& path);

    /** Both take null. */
    static void intrusive_add_ref(Job* job);
    static void intrusive_remove_ref(Job* job);
    Reference_Count add_reference() override;
    Reference_Count remove_reference() override;

protected:
    ~Job() override;

    /** Another job asks this one to get ready for on-demand runs. Here: setup_ondemand_i(). */
    virtual int setup_ondemand_by_job();
    /** Without an override a job cannot be started, stopped and so on: -1. */
    virtual int start_i(Action_Options const* options);
    virtual int stop_i(Action_Options const* options);
    /** These two write Job_Activity::enabled. */
    virtual int enable_i(Action_Options const* options);
    virtual int disable_i(Action_Options const* options);
    virtual int pause_i(Action_Options const* options);
    virtual int resume_i(Action_Options const* options);
    virtual int abort_i(Action_Options const* options);
    virtual int switch_i(Action_Options const* options);
    /** Nothing to clean up, here. */
    virtual int remove_i(bool with_data, Action_Options const* options);
    /** Called before definition() gives the new one; -1 keeps the old one. Nothing to do, here. */
    virtual int update_i(Job_Definition_var definition);
    virtual int rollback_i();
    /** Whether an update may come in this state. Here: in every one that is no run's. */
    [[nodiscard]] virtual bool can_update_i(Job_State state);
    virtual int setup_ondemand_i();
    /** The whole run, on its thread. */
    virtual int run_i(Action_Options const* options);

    /** Sets the state on a request and tells it. -1, with nothing set, once the outcome is told. */
    int state_i(Job_State value);
    /**
     * Makes the calling thread the job's until complete(): its log lines go to the job's log, it
     * has the run's key, and programs that it waits for end with abort_now().
     */
    void set_job_thread();
    /**
     * Ends the run, as the last thing on the job thread: the job may be gone after it. A run that
     * told no outcome and is in a run's state still counts as canceled or failed.
     */
    void complete();

private:
    friend class Job_Event_Handler;
    struct Activity_Page;

    // for Job_Event_Handler
    void begin_work();
    void report(Job_Progress const& progress);
    void end(Job_State result, int code, std::string const& message);

    int start_run(Action_Options const* options, std::string* refusal);
    int carry_out(char const* verb, std::string const& hindrance,
                  std::function<int()> const& operation, std::string* refusal);
    int refuse(char const* verb, std::string const& reason, std::string* refusal) const;
    std::string no_run_open() const;
    std::string run_on() const;
    std::string not_in(Job_State wanted, Job_State other) const;

    void change_state(Job_State value);
    void set_message(std::string const& text);
    void set_run_id(uuid_binary const& id);
    void set_run_key(secure_string const& key);
    void set_cancellation(std::shared_ptr<Cancellation> cancellation);
    std::shared_ptr<Job_Backend> backend() const;
    std::string label() const;
    void init_activity();

    // held also while notifications are made, so that they come in order
    std::recursive_mutex lock_;
    // for what is read while another thread holds the first; nothing is called under it
    mutable std::mutex data_lock_;
    std::atomic<Reference_Count> references_ = 1;
    Job_Definition_var definition_; // written under both
    std::unique_ptr<Activity_Page> page_;
    Job_Activity_Handle file_;
    Job_Activity* activity_;                     // its id and message are written under both
    secure_string run_key_;                      // under the second
    std::shared_ptr<Cancellation> cancellation_; // under the second
    Job_var self_;                               // set while a run that start() began is on
    std::atomic<bool> running_ = false;
    bool outcome_told_ = false;
    bool removed_ = false;
};

#endif
