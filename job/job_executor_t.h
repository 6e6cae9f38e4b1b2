#ifndef JOB_JOB_EXECUTOR_T_H
#define JOB_JOB_EXECUTOR_T_H

#include "host/job/execute_script.h"
#include "host/job/job.h"
#include "qmrt/check.h"
#include "qmrt/scoped_deleter.h"

/**
 * Base of what a job does. It fixes the order of a run; an executor fills in the steps. An
 * executor lives on the job's thread for one operation: what has to last goes into the activity
 * record or the catalog.
 *
 * The job, its definition and its record outlive the executor. `src_` and `opts_` are the
 * definition's source and options, null when the definition has none or has those of another
 * kind: execute() refuses a null `src_`.
 *
 * @tparam Source, Options  what the executor expects of the definition
 * @tparam Handler          made of the job; tells the run's beginning and end: Job_Event_Handler
 */
template <typename Source, typename Options, typename Handler>
class Job_Executor_T {
public:
    explicit Job_Executor_T(Job& job)
        : job_(job),
          def_(*job.definition()),
          tgt_(def_.target()),
          act_(job.activity()),
          evt_handler_(job),
          src_(dynamic_cast<Source*>(def_.source().get())),
          opts_(dynamic_cast<Options*>(def_.options().get())) {}
    virtual ~Job_Executor_T() = default;
    Job_Executor_T(Job_Executor_T const&) = delete;
    Job_Executor_T& operator=(Job_Executor_T const&) = delete;

    /** Removes what the job left outside of itself. The results of these are success. */
    [[nodiscard]] virtual bool remove() { return true; }
    [[nodiscard]] virtual bool setup_ondemand() { return true; }
    [[nodiscard]] virtual bool remove_ondemand() { return true; }
    /** The job is about to get that definition. */
    [[nodiscard]] virtual bool update(Job_Definition_var /*definition*/) { return true; }
    [[nodiscard]] virtual bool rollback() { return true; }

protected:
    /** The work itself, on the job thread. It raises its alerts and logs its failures. */
    [[nodiscard]] virtual bool execute_i(Job::Action_Options const* options) = 0;
    [[nodiscard]] virtual bool execute_pre_action();
    [[nodiscard]] virtual bool execute_post_action();
    /** False ends the run like a failed precondition. */
    [[nodiscard]] virtual bool check_condition() { return true; }
    /** False when the run is not this host's to do. */
    [[nodiscard]] virtual bool is_active(Job::Action_Options const* /*options*/) { return true; }

public:
    /**
     * The whole run: is_active(), precondition, check_condition(), pre-action, execute_i(),
     * post-action, outcome, in this order.
     * @param options  the request's; null when it had none
     * @return true for a success, a run that is not this host's and one whose precondition failed.
     */
    [[nodiscard]] bool execute(Job::Action_Options const* options);

protected:
    [[nodiscard]] bool execute_precondition();

    Job& job_;
    Job_Definition& def_;
    Job_Target& tgt_;
    Job_Activity& act_;
    Handler evt_handler_;
    Source* src_;
    Options* opts_;

private:
    [[nodiscard]] bool skip();
    [[nodiscard]] bool stay_idle();
    [[nodiscard]] bool run_steps(Job::Action_Options const* options);
};

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::execute(Job::Action_Options const* options) {
    if (QMRT_IS_NULL_AT(LM_ERROR, src_))
        return false;
    if (!is_active(options))
        return skip();
    if (!execute_precondition() || !check_condition())
        return stay_idle();

    evt_handler_.handle_start_job();
    if (run_steps(options)) {
        evt_handler_.handle_success();
        return true;
    }
    if (act_.state == JOB_STATE_CANCELING)
        evt_handler_.handle_canceled();
    else
        evt_handler_.handle_failure(-1, nullptr);
    return false;
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::skip() {
    act_.last_run_time = time(nullptr);
    act_.state = JOB_STATE_SKIPPED;
    return true;
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::stay_idle() {
    act_.start_time = time(nullptr);
    act_.last_run_time = act_.start_time;
    act_.state = JOB_STATE_IDLE;
    job_.sync(nullptr);
    return true;
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::run_steps(Job::Action_Options const* options) {
    bool const ok = execute_pre_action() && execute_i(options);
    bool post = true;
    if (ok || def_.run_post_action_always())
        post = execute_post_action();
    return ok && post;
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::execute_precondition() {
    // what it prints belongs to no run yet: it stays out of the job's log
    ACE_Log_Msg_Callback* const job_log = ACE_LOG_MSG->msg_callback(nullptr);
    Scoped_Deleter const back([=] { ACE_LOG_MSG->msg_callback(job_log); });
    return execute_script(def_.precondition(), false, {});
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::execute_pre_action() {
    if (!execute_script(def_.pre_action(), false, job_.log_msg_callback()) &&
        !def_.ignore_pre_action_failure())
        return false;
    // a stop that came meanwhile takes effect here
    return act_.state == JOB_STATE_RUNNING;
}

template <typename Source, typename Options, typename Handler>
bool Job_Executor_T<Source, Options, Handler>::execute_post_action() {
    if (def_.post_action().empty())
        return true;
    if (act_.state != JOB_STATE_COMPLETING)
        job_.state(JOB_STATE_COMPLETING);
    if (!execute_script(def_.post_action(), false, job_.log_msg_callback()) &&
        !def_.ignore_post_action_failure())
        return false;
    return true;
}

#endif
