#include "host/job/job_event_handler.h"

#include "tests/support/fake_jobs.h"
#include "tests/support/log_capture.h"
#include "tests/unit/host/job/test_job.h"

#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;

class Job_Event_Handler_Test : public testing::Test {
protected:
    Fake_Jobs jobs_;
    Test_Job* const job_ = new Test_Job(make_definition());
    Job_var const holder_{job_, false};
    Job_Activity& act_ = job_->activity();
    Job_Event_Handler events_{*job_};
};

TEST_F(Job_Event_Handler_Test, the_start_resets_the_record_and_leaves_the_job_running) {
    time_t const before = time(nullptr);
    act_.progress = 80;
    act_.processed_size = 1;
    act_.speed = 2;
    act_.code = -1;
    act_.message.size = 3;
    act_.set_size = 4;
    events_.handle_start_job();
    EXPECT_EQ(JOB_STATE_RUNNING, act_.state);
    EXPECT_GE(act_.start_time, before);
    EXPECT_LE(act_.start_time, time(nullptr));
    EXPECT_EQ(static_cast<time_t>(act_.start_time), act_.last_run_time);
    EXPECT_EQ(0, act_.progress);
    EXPECT_EQ(0u, act_.processed_size);
    EXPECT_EQ(0u, act_.speed);
    EXPECT_EQ(0, act_.code);
    EXPECT_EQ(0, act_.message.size);
    EXPECT_EQ(4u, act_.set_size);
    EXPECT_EQ(Texts{"state running"}, jobs_.events());
}

TEST_F(Job_Event_Handler_Test, a_cancel_from_before_the_start_stands) {
    for (Job_State state : {JOB_STATE_CANCELING, JOB_STATE_ABORTING}) {
        ASSERT_EQ(0, job_->start());
        act_.state = state;
        jobs_.clear();
        events_.handle_start_job();
        EXPECT_EQ(state, act_.state);
        EXPECT_EQ(Texts(), jobs_.events());
        job_->complete();
    }
}

TEST_F(Job_Event_Handler_Test, a_canceled_run_from_before_does_not_keep_the_next_from_running) {
    act_.state = JOB_STATE_CANCELED;
    events_.handle_start_job();
    EXPECT_EQ(JOB_STATE_RUNNING, act_.state);
}

TEST_F(Job_Event_Handler_Test, progress_goes_into_the_record_and_on) {
    events_.handle_progress(40, 100, 200, 300);
    EXPECT_EQ(40, act_.progress);
    EXPECT_EQ(100u, act_.processed_size);
    EXPECT_EQ(200u, act_.size);
    EXPECT_EQ(300u, act_.speed);
    EXPECT_EQ(Texts{"progress 40"}, jobs_.events());
}

TEST_F(Job_Event_Handler_Test, a_counter_of_0_leaves_the_record_alone) {
    events_.handle_progress(40, 100, 200, 300);
    events_.handle_progress(30, 0, 0, 0);
    EXPECT_EQ(30, act_.progress);
    EXPECT_EQ(100u, act_.processed_size);
    EXPECT_EQ(200u, act_.size);
    EXPECT_EQ(300u, act_.speed);
}

TEST_F(Job_Event_Handler_Test, any_percentage_is_passed_on_as_it_is) {
    for (int percent : {-5, 150, INT_MIN, INT_MAX})
        events_.handle_progress(percent, 0, 0, 0);
    EXPECT_EQ((std::vector<int>{-5, 150, INT_MIN, INT_MAX}), jobs_.progress());
}

TEST_F(Job_Event_Handler_Test, a_success_is_at_100_percent) {
    events_.handle_start_job();
    events_.handle_progress(40, 0, 0, 0);
    events_.handle_success();
    EXPECT_EQ(JOB_STATE_COMPLETED, act_.state);
    EXPECT_EQ(0, act_.code);
    EXPECT_EQ(100, act_.progress);
    EXPECT_EQ("ended completed 0", jobs_.events().back());
}

TEST_F(Job_Event_Handler_Test, a_cancel_keeps_the_progress) {
    events_.handle_start_job();
    events_.handle_progress(40, 0, 0, 0);
    events_.handle_canceled();
    EXPECT_EQ(JOB_STATE_CANCELED, act_.state);
    EXPECT_EQ(40, act_.progress);
    EXPECT_EQ("ended canceled 0", jobs_.events().back());
}

TEST_F(Job_Event_Handler_Test, a_failure_has_a_code_and_a_formatted_message) {
    events_.handle_start_job();
    events_.handle_failure(17, "%s failed %d times", "it", 3);
    EXPECT_EQ(JOB_STATE_ERROR, act_.state);
    EXPECT_EQ(17, act_.code);
    EXPECT_EQ("it failed 3 times", job_->message());
    EXPECT_EQ("ended error 17 it failed 3 times", jobs_.events().back());
}

TEST_F(Job_Event_Handler_Test, a_failure_may_have_no_message) {
    events_.handle_start_job();
    events_.handle_failure(-1, nullptr);
    EXPECT_EQ("", job_->message());
    EXPECT_EQ("ended error -1", jobs_.events().back());
}

TEST_F(Job_Event_Handler_Test, a_message_too_long_for_the_record_is_cut_there) {
    std::string const text(100000, 'x');
    events_.handle_start_job();
    events_.handle_failure(-1, "%s", text.c_str());
    EXPECT_EQ(text.substr(0, JOB_ACTIVITY_SIZE - sizeof(Job_Activity)), job_->message());
    EXPECT_EQ(text, jobs_.outcomes()[0].message);
}

TEST_F(Job_Event_Handler_Test, a_second_outcome_is_ignored) {
    events_.handle_start_job();
    events_.handle_success();
    events_.handle_failure(-1, nullptr);
    EXPECT_LOGGED(LM_ERROR, "Job nightly told a second outcome, error: ignored\n");
    EXPECT_EQ(JOB_STATE_COMPLETED, act_.state);
    EXPECT_EQ(1u, jobs_.outcomes().size());
}

TEST_F(Job_Event_Handler_Test, job_act_id_is_the_runs_id) {
    ASSERT_EQ(0, job_->start());
    EXPECT_EQ(jobs_.run_ids()[0], events_.job_act_id());
    job_->complete();
}

} // namespace
