#ifndef HOST_JOB_JOB_THREAD_HELPER_H
#define HOST_JOB_JOB_THREAD_HELPER_H

#include "qmrt/thread_helper.h"

class Job;

/**
 * A side thread of a job: what it logs goes to the job's log as well, it has the run's key, and
 * programs that it waits for end with Job::abort_now().
 */
class Job_Thread_Helper : public Thread_Helper {
public:
    /**
     * @param job  not owned; must live until spawn() has returned. Null: as a plain Thread_Helper.
     * The rest as for Thread_Helper.
     */
    Job_Thread_Helper(Job* job, long flags, long priority)
        : Thread_Helper(flags, priority), job_(job) {}

    void handle_starting() override;

private:
    Job* job_;
};

#endif
