#include "host/job/job_thread_helper.h"

#include "qmrt/log.h"
#include "tests/support/fake_jobs.h"
#include "tests/unit/host/job/test_job.h"

#include <future>
#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;

constexpr long JOINABLE = THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED;
constexpr long DETACHED = THR_NEW_LWP | THR_DETACHED | THR_INHERIT_SCHED;

struct Worker {
    void run() { QMRT_LOG(LM_INFO, "from the side\n"); }
};

TEST(Job_Thread_Helper, what_a_side_thread_logs_reaches_the_jobs_log) {
    Fake_Jobs jobs;
    Job_var const job(new Test_Job(make_definition()), false);
    Worker worker;
    {
        Job_Thread_Helper helper(job.get(), JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
        ASSERT_NE(-1, helper.spawn(&Worker::run, &worker));
    }
    EXPECT_EQ(Texts{"from the side\n"}, jobs.log_lines());
}

TEST(Job_Thread_Helper, a_detached_thread_logs_on_when_helper_and_job_are_gone) {
    Fake_Jobs jobs;
    std::promise<void> gone;
    std::promise<void> done;
    {
        Job_var const job(new Test_Job(make_definition()), false);
        Job_Thread_Helper helper(job.get(), DETACHED, ACE_DEFAULT_THREAD_PRIORITY);
        ASSERT_NE(-1, helper.spawn([&] {
            gone.get_future().wait();
            QMRT_LOG(LM_INFO, "late\n");
            done.set_value();
        }));
    }
    gone.set_value();
    done.get_future().wait();
    EXPECT_EQ(Texts{"late\n"}, jobs.log_lines());
}

TEST(Job_Thread_Helper, without_a_job_it_is_a_plain_helper) {
    Fake_Jobs jobs;
    Worker worker;
    {
        Job_Thread_Helper helper(nullptr, JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
        ASSERT_NE(-1, helper.spawn(&Worker::run, &worker));
    }
    EXPECT_EQ(Texts(), jobs.log_lines());
}

} // namespace
