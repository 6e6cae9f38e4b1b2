#ifndef JOB_CONTROLLABLE_JOB_T_H
#define JOB_CONTROLLABLE_JOB_T_H

#include "job/default_job_t.h"

/**
 * A Default_Job_T whose run can be stopped, paused, resumed and switched over. A request does no
 * more than set the state; the executor looks at it and acts.
 */
template <typename Executor>
class Controllable_Job_T : public Default_Job_T<Executor> {
public:
    using Default_Job_T<Executor>::Default_Job_T;

protected:
    int stop_i(Job::Action_Options const*) override { return Job::state_i(JOB_STATE_CANCELING); }
    int pause_i(Job::Action_Options const*) override { return Job::state_i(JOB_STATE_PAUSING); }
    int resume_i(Job::Action_Options const*) override { return Job::state_i(JOB_STATE_RUNNING); }
    int switch_i(Job::Action_Options const*) override { return Job::state_i(JOB_STATE_SWITCHING); }

    using Default_Job_T<Executor>::abort_i;
    /** Breaks the run off: JOB_STATE_ABORTING. */
    virtual int abort_i() { return Job::state_i(JOB_STATE_ABORTING); }
};

#endif
