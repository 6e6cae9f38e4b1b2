#include "job/controllable_job_t.h"

#include "tests/support/fake_jobs.h"
#include "tests/support/log_capture.h"
#include "tests/unit/job/test_executor.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

using Texts = std::vector<std::string>;

class Controllable_Job_Test : public testing::Test {
protected:
    /** Starts a run that works until it is canceled, and waits until it does. */
    void start_until_canceled() {
        play_.execute = [](Job& job, auto) {
            while (!is_cancel_state(job.state()))
                std::this_thread::yield();
            return false;
        };
        ASSERT_EQ(0, job_->start());
        ASSERT_TRUE(play_.wait_for("execute"));
    }

    Play play_;
    Fake_Jobs jobs_;
    Controllable_Job* const job_ = new Controllable_Job(make_definition(play_));
    Job_var const holder_{job_, false};
};

TEST_F(Controllable_Job_Test, each_request_only_sets_its_state) {
    EXPECT_EQ(0, job_->stop_i(nullptr));
    EXPECT_EQ(JOB_STATE_CANCELING, job_->state());
    EXPECT_EQ(0, job_->pause_i(nullptr));
    EXPECT_EQ(JOB_STATE_PAUSING, job_->state());
    EXPECT_EQ(0, job_->resume_i(nullptr));
    EXPECT_EQ(JOB_STATE_RUNNING, job_->state());
    EXPECT_EQ(0, job_->switch_i(nullptr));
    EXPECT_EQ(JOB_STATE_SWITCHING, job_->state());
    EXPECT_EQ(0, job_->abort_i());
    EXPECT_EQ(JOB_STATE_ABORTING, job_->state());
    EXPECT_EQ(0, job_->abort_i(nullptr));
    EXPECT_EQ(JOB_STATE_CANCELING, job_->state());
    EXPECT_EQ((Texts{"state canceling", "state pausing", "state running", "state switching",
                     "state aborting", "state canceling"}),
              jobs_.events());
    EXPECT_EQ(Texts(), play_.calls());
}

TEST_F(Controllable_Job_Test, each_request_gives_what_setting_the_state_gave) {
    ASSERT_EQ(0, job_->run_i(nullptr)); // its outcome is told
    EXPECT_EQ(-1, job_->stop_i(nullptr));
    EXPECT_EQ(-1, job_->pause_i(nullptr));
    EXPECT_EQ(-1, job_->resume_i(nullptr));
    EXPECT_EQ(-1, job_->switch_i(nullptr));
    EXPECT_EQ(-1, job_->abort_i());
    EXPECT_EQ(-1, job_->abort_i(nullptr));
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
}

TEST_F(Controllable_Job_Test, a_stop_cancels_a_run_that_looks) {
    start_until_canceled();
    EXPECT_EQ(0, job_->stop());
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_EQ(JOB_STATE_CANCELED, job_->state());
}

TEST_F(Controllable_Job_Test, a_run_is_paused_and_resumed) {
    start_until_canceled();
    EXPECT_EQ(0, job_->pause());
    EXPECT_EQ(JOB_STATE_PAUSING, job_->state());
    EXPECT_EQ(0, job_->resume());
    EXPECT_EQ(JOB_STATE_RUNNING, job_->state());
    EXPECT_EQ(0, job_->abort());
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_EQ((Texts{"state starting", "state running", "state pausing", "state running",
                     "state canceling", "state canceled", "ended canceled 0", "finished"}),
              jobs_.events());
}

TEST_F(Controllable_Job_Test, a_run_is_switched_over) {
    start_until_canceled();
    EXPECT_EQ(0, job_->switch_over());
    EXPECT_EQ(JOB_STATE_SWITCHING, job_->state());
    EXPECT_EQ(0, job_->stop());
    ASSERT_TRUE(jobs_.wait_for_finished());
}

TEST_F(Controllable_Job_Test, a_run_broken_off_has_failed) {
    start_until_canceled();
    EXPECT_EQ(0, job_->abort_i());
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_EQ(JOB_STATE_ERROR, job_->state());
}

} // namespace
