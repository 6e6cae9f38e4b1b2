#include "host/job/job_thread_helper.h"

#include "host/agent/host_manager.h"
#include "qmrt/log.h"
#include "tests/support/fake_jobs.h"
#include "tests/unit/host/job/test_job.h"

#include <future>
#include <gtest/gtest.h>
#include <thread>

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

/** A job whose calling thread is the one of a run, as long as this lives. */
class Job_On {
public:
    Job_On() { job_->start(), job_->set_job_thread(); }
    ~Job_On() { job_->complete(); }
    Test_Job* operator->() const { return job_; }
    std::string key() const { return "key of " + job_->run_id(); }

private:
    Test_Job* const job_ = new Test_Job(make_definition());
    Job_var const holder_{job_, false};
};

std::string key_of_this_thread() {
    return Host_Manager::instance()->access_key().plain();
}

TEST(Job_Thread_Helper, the_threads_of_a_run_have_its_key_until_it_ends) {
    Fake_Jobs jobs;
    {
        Job_On const job;
        EXPECT_EQ(job.key(), key_of_this_thread());
        std::string beside = "not run", apart = "not run";
        Job_Thread_Helper helper(job.operator->(), JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
        ASSERT_NE(-1, helper.spawn([&] { beside = key_of_this_thread(); }));
        helper.join();
        Thread_Helper plain(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
        ASSERT_NE(-1, plain.spawn([&] { apart = key_of_this_thread(); }));
        plain.join();
        EXPECT_EQ(job.key(), beside);
        EXPECT_EQ("", apart) << "a thread that is not the run's";
    }
    EXPECT_EQ("", key_of_this_thread()) << "the run is over";
}

TEST(Job_Thread_Helper, two_runs_at_once_have_each_its_own_key) {
    Fake_Jobs jobs;
    Job_On const first;
    std::thread([&] {
        Job_On const second;
        EXPECT_EQ(second.key(), key_of_this_thread());
        EXPECT_NE(first.key(), second.key());
    }).join();
    EXPECT_EQ(first.key(), key_of_this_thread());
    EXPECT_EQ(first.key(), first->run_key().plain());
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
