#ifndef JOB_DEFAULT_JOB_T_H
#define JOB_DEFAULT_JOB_T_H

#include "host/job/job.h"
#include "qmrt/check.h"
#include "qmrt/thread_helper.h"

#include <ace/Thread_Manager.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <new>

/** The start message of a run: start_i() owns it until the thread is there, and then run(). */
struct Run_Options {
    void* job;
    Job::Action_Options opts;
};

/**
 * A job that runs one executor on a thread of its own. Each operation makes an executor on its
 * stack and destroys it before it returns, so that nothing of it outlives the operation.
 *
 * @tparam Executor  a Job_Executor_T; is constructible from Job&
 */
template <typename Executor>
class Default_Job_T : public Job {
public:
    explicit Default_Job_T(Job_Definition_var definition) : Job(definition) {}

    int handle_exception(ACE_HANDLE) override { return 0; }

protected:
    static constexpr long THREAD_FLAGS = THR_NEW_LWP | THR_DETACHED | THR_INHERIT_SCHED;

    /** Starts the run's thread and does not wait for it. */
    int start_i(Job::Action_Options const* options) override;
    /** Refused: the executor would not see it. */
    int stop_i(Job::Action_Options const*) override { return -1; }
    int resume_i(Job::Action_Options const*) override { return -1; }
    /** JOB_STATE_CANCELING. The thread is only marked: the run ends when its executor looks. */
    int abort_i(Job::Action_Options const* options) override;
    /** 0, whatever the executor says. */
    int remove_i(bool with_data, Job::Action_Options const* options) override;
    /** 0, whatever the executor says. */
    int update_i(Job_Definition_var definition) override;
    /** Returns while the rollback may still run; that holds a reference to the job. */
    int rollback_i() override;
    int setup_ondemand_i() override;
    int run_i(Job::Action_Options const* options) override;

    /** The thread's function. @param options  a Run_Options, which it takes */
    static ACE_THR_FUNC_RETURN run(void* options);
    int run_rollback();

private:
    /** Makes an executor, calls @a step with it, and destroys it. A step that fails logs it. */
    template <typename Step>
    void with_executor(Step step);

    ACE_thread_t thr_id_ = 0;
};

template <typename Executor>
int Default_Job_T<Executor>::start_i(Job::Action_Options const* options) {
    std::unique_ptr<Run_Options> opt(new (std::nothrow) Run_Options);
    if (QMRT_IS_NULL_AT(LM_ERROR, opt))
        return -1;
    opt->job = this;
    if (options)
        opt->opts = *options;
    if (ACE_Thread_Manager::instance()->spawn(run, opt.get(), THREAD_FLAGS, &thr_id_, nullptr,
                                              ACE_DEFAULT_THREAD_PRIORITY, -1, nullptr, 0,
                                              nullptr) == -1)
        return -1;
    opt.release();
    return 0;
}

template <typename Executor>
ACE_THR_FUNC_RETURN Default_Job_T<Executor>::run(void* options) {
    std::unique_ptr<Run_Options> const opt(static_cast<Run_Options*>(options));
    Default_Job_T* const job = static_cast<Default_Job_T*>(opt->job);
    int const result = job->run_i(opt->opts.empty() ? nullptr : &opt->opts);
    return reinterpret_cast<ACE_THR_FUNC_RETURN>(static_cast<intptr_t>(result));
}

template <typename Executor>
template <typename Step>
void Default_Job_T<Executor>::with_executor(Step step) {
    // an update meanwhile may let go of the definition that the executor refers to
    Job_Definition_var const def = definition();
    try {
        Executor executor(*this);
        step(executor);
    } catch (std::exception const& error) {
        // on a thread of its own it would take the whole agent down
        QMRT_LOG(LM_ERROR, "Job %s broke off: %s\n", def->name().c_str(), error.what());
    }
}

template <typename Executor>
int Default_Job_T<Executor>::run_i(Job::Action_Options const* options) {
    Job::set_job_thread();
    uuid_string_to_binary(definition()->uid(), activity().uid);
    // how it went is in the record afterwards, and has been told
    with_executor([&](Executor& executor) { (void)executor.execute(options); });
    Job::complete();
    return 0;
}

template <typename Executor>
int Default_Job_T<Executor>::abort_i(Job::Action_Options const*) {
    int const result = Job::state_i(JOB_STATE_CANCELING);
    ACE_Thread_Manager::instance()->cancel(thr_id_, 0);
    return result;
}

template <typename Executor>
int Default_Job_T<Executor>::remove_i(bool, Job::Action_Options const*) {
    Job_Schedule_var const schedule = definition()->schedule();
    if (!schedule.null() && schedule->type() == Job_Schedule::TYPE_ONDEMAND)
        with_executor([](Executor& executor) { (void)executor.remove_ondemand(); });
    with_executor([](Executor& executor) { (void)executor.remove(); });
    return 0;
}

template <typename Executor>
int Default_Job_T<Executor>::update_i(Job_Definition_var definition) {
    with_executor([&](Executor& executor) { (void)executor.update(definition); });
    return 0;
}

template <typename Executor>
int Default_Job_T<Executor>::setup_ondemand_i() {
    bool ready = false;
    with_executor([&](Executor& executor) { ready = executor.setup_ondemand(); });
    return ready ? 0 : -1;
}

template <typename Executor>
int Default_Job_T<Executor>::rollback_i() {
    Thread_Helper helper(THREAD_FLAGS, ACE_DEFAULT_THREAD_PRIORITY);
    Job_var const self(this);
    return helper.spawn([self] { static_cast<Default_Job_T*>(self.get())->run_rollback(); }) == -1
               ? -1
               : 0;
}

template <typename Executor>
int Default_Job_T<Executor>::run_rollback() {
    with_executor([](Executor& executor) { (void)executor.rollback(); });
    return 0;
}

#endif
