#include "host/job/job.h"

#include "host/agent/host_services.h"
#include "host/job/job_event_handler.h"
#include "host/process/cancellation.h"
#include "tests/support/fake_jobs.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/host/job/test_job.h"

#include <ace/Reactor.h>

#include <cstring>
#include <gtest/gtest.h>
#include <thread>

namespace {

using Texts = std::vector<std::string>;

class Job_Test : public testing::Test {
protected:
    /** A run that begins, as far as its own thread's first step. */
    void start_run() {
        ASSERT_EQ(0, job_->start());
        job_->set_job_thread();
        events_.handle_start_job();
        jobs_.clear();
        job_->calls.clear();
    }
    /** What a request that is refused leaves: nothing but the sentence. */
    void expect_refused(int result, std::string const& sentence) {
        EXPECT_EQ(-1, result);
        EXPECT_EQ(sentence, refusal_);
        EXPECT_LOGGED(LM_WARNING, sentence + "\n");
        EXPECT_EQ(Texts(), job_->calls);
        refusal_.clear();
    }
    /** The state while the job is in @a state, put there by hand. */
    void put_in(Job_State state) { job_->activity().state = state; }

    Fake_Jobs jobs_;
    Job_Definition_var definition_ = make_definition();
    Test_Job* const job_ = new Test_Job(definition_);
    Job_var const holder_{job_, false};
    Job_Event_Handler events_{*job_};
    std::string refusal_;
};

TEST_F(Job_Test, a_new_job_is_idle_enabled_and_named_after_its_definition) {
    EXPECT_EQ(JOB_STATE_IDLE, job_->state());
    EXPECT_TRUE(job_->activity().enabled);
    EXPECT_EQ(JOB_DEFINITION_BACKUP, job_->activity().type);
    EXPECT_EQ(definition_->id(), uuid_binary_to_string(job_->activity().def_id));
    EXPECT_EQ(definition_->uid(), uuid_binary_to_string(job_->activity().uid));
    EXPECT_EQ("00000000-0000-0000-0000-000000000000", job_->run_id());
    EXPECT_EQ(definition_.get(), job_->definition().get());
    EXPECT_FALSE(job_->running());
    EXPECT_EQ("", job_->message());
}

// start

TEST_F(Job_Test, start_gives_the_run_an_id_and_tells_that_it_is_starting) {
    EXPECT_EQ(0, job_->start());
    EXPECT_TRUE(job_->running());
    EXPECT_EQ(JOB_STATE_STARTING, job_->state());
    EXPECT_EQ(jobs_.run_ids(), Texts{job_->run_id()});
    EXPECT_EQ(Texts{"start"}, job_->calls);
    EXPECT_EQ(Texts{"state starting"}, jobs_.events());
    job_->complete();
}

TEST_F(Job_Test, start_is_refused_while_a_run_is_on) {
    start_run();
    expect_refused(job_->start(nullptr, &refusal_),
                   "Job nightly cannot be started: it is running already");
    job_->complete();
}

TEST_F(Job_Test, start_is_taken_again_after_the_run) {
    start_run();
    std::string const first = job_->run_id();
    events_.handle_success();
    job_->complete();
    EXPECT_EQ(0, job_->start());
    EXPECT_NE(first, job_->run_id());
    job_->complete();
}

TEST_F(Job_Test, start_is_refused_while_disabled) {
    ASSERT_EQ(0, job_->disable());
    expect_refused(job_->start(nullptr, &refusal_),
                   "Job nightly cannot be started: it is disabled");
    ASSERT_EQ(0, job_->enable());
    EXPECT_EQ(0, job_->start());
    job_->complete();
}

TEST_F(Job_Test, start_is_refused_without_a_run_id) {
    jobs_.refuse_runs();
    expect_refused(job_->start(nullptr, &refusal_),
                   "Job nightly cannot be started: there is no run id for it");
    EXPECT_EQ(JOB_STATE_IDLE, job_->state());
    EXPECT_FALSE(job_->running());
}

TEST_F(Job_Test, start_is_refused_without_a_job_service) {
    Host_Services::instance().jobs(nullptr);
    expect_refused(job_->start(nullptr, &refusal_),
                   "Job nightly cannot be started: there is no run id for it");
    EXPECT_LOGGED(LM_ERROR, "No job service is installed for job nightly\n");
    Host_Services::instance().jobs(jobs_.backend());
}

TEST_F(Job_Test, start_is_refused_without_a_definition) {
    Test_Job* const empty = new Test_Job(Job_Definition_var());
    Job_var const holder(empty, false);
    EXPECT_EQ(-1, empty->start(nullptr, &refusal_));
    EXPECT_EQ("Job without a definition cannot be started: it has no definition", refusal_);
    EXPECT_LOGGED(LM_WARNING, refusal_);
}

TEST_F(Job_Test, a_run_that_cannot_begin_leaves_the_job_as_it_was) {
    put_in(JOB_STATE_COMPLETED);
    job_->result = -1;
    EXPECT_EQ(-1, job_->start(nullptr, &refusal_));
    EXPECT_EQ("Job nightly cannot be started: its run could not begin", refusal_);
    EXPECT_LOGGED(LM_WARNING, refusal_);
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
    EXPECT_FALSE(job_->running());
    EXPECT_EQ("00000000-0000-0000-0000-000000000000", job_->run_id());
    EXPECT_EQ((Texts{"state starting", "state completed"}), jobs_.events());
    job_->result = 0;
    EXPECT_EQ(0, job_->start());
    job_->complete();
}

TEST_F(Job_Test, a_timer_starts_the_job_and_stays_when_it_is_refused) {
    EXPECT_EQ(0, job_->handle_timeout(ACE_Time_Value::zero, nullptr));
    EXPECT_TRUE(job_->running());
    EXPECT_EQ(0, job_->handle_timeout(ACE_Time_Value::zero, nullptr));
    EXPECT_LOGGED(LM_WARNING, "Job nightly cannot be started: it is running already");
    job_->complete();
}

// requests to a run

TEST_F(Job_Test, requests_to_a_run_are_refused_when_none_is_on) {
    expect_refused(job_->stop(nullptr, &refusal_),
                   "Job nightly cannot be stopped: it is not running");
    expect_refused(job_->abort(nullptr, &refusal_),
                   "Job nightly cannot be aborted: it is not running");
    expect_refused(job_->pause(nullptr, &refusal_),
                   "Job nightly cannot be paused: it is not running");
    expect_refused(job_->resume(nullptr, &refusal_),
                   "Job nightly cannot be resumed: it is not running");
    expect_refused(job_->switch_over(nullptr, &refusal_),
                   "Job nightly cannot be switched: it is not running");
    EXPECT_EQ(JOB_STATE_IDLE, job_->state());
    EXPECT_EQ(Texts(), jobs_.events());
}

TEST_F(Job_Test, a_record_that_says_running_is_no_run) {
    put_in(JOB_STATE_RUNNING);
    expect_refused(job_->abort(nullptr, &refusal_),
                   "Job nightly cannot be aborted: it is not running");
    EXPECT_EQ(0, job_->start());
    job_->complete();
}

TEST_F(Job_Test, stop_and_abort_are_carried_out_on_a_run) {
    start_run();
    EXPECT_EQ(0, job_->stop());
    EXPECT_EQ(0, job_->abort());
    EXPECT_EQ((Texts{"stop", "abort"}), job_->calls);
    job_->complete();
}

TEST_F(Job_Test, abort_now_cancels_what_the_runs_threads_wait_for) {
    start_run();
    std::shared_ptr<Cancellation> const run = Cancellation::current();
    ASSERT_TRUE(run);
    EXPECT_EQ(run, job_->cancellation());
    EXPECT_EQ(0, job_->abort());
    EXPECT_FALSE(run->cancelled());
    EXPECT_EQ(0, job_->abort_now());
    EXPECT_TRUE(run->cancelled());
    job_->complete();
    EXPECT_EQ(nullptr, Cancellation::current());
    EXPECT_EQ(nullptr, job_->cancellation());

    start_run(); // the next run is not cancelled
    EXPECT_FALSE(Cancellation::current()->cancelled());
    job_->complete();
}

TEST_F(Job_Test, abort_now_before_the_run_has_its_thread_counts_for_it) {
    ASSERT_EQ(0, job_->start());
    EXPECT_EQ(0, job_->abort_now());
    job_->set_job_thread();
    ASSERT_TRUE(Cancellation::current());
    EXPECT_TRUE(Cancellation::current()->cancelled());
    job_->complete();
}

TEST_F(Job_Test, abort_now_without_a_run_is_refused) {
    expect_refused(job_->abort_now(nullptr, &refusal_),
                   "Job nightly cannot be aborted: it is not running");
}

TEST_F(Job_Test, abort_is_taken_before_the_run_has_its_thread) {
    ASSERT_EQ(0, job_->start());
    EXPECT_EQ(0, job_->abort());
    EXPECT_EQ((Texts{"start", "abort"}), job_->calls);
    job_->complete();
}

TEST_F(Job_Test, a_second_cancel_has_no_effect) {
    start_run();
    for (Job_State state : {JOB_STATE_CANCELING, JOB_STATE_ABORTING}) {
        put_in(state);
        EXPECT_EQ(0, job_->abort());
        EXPECT_EQ(0, job_->stop());
    }
    EXPECT_EQ(Texts(), job_->calls);
    job_->complete();
}

TEST_F(Job_Test, requests_are_refused_once_the_outcome_is_told) {
    start_run();
    events_.handle_success();
    expect_refused(job_->abort(nullptr, &refusal_),
                   "Job nightly cannot be aborted: it is not running");
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
    job_->complete();
}

TEST_F(Job_Test, what_its_kind_does_not_do_is_refused) {
    start_run();
    job_->result = -1;
    EXPECT_EQ(-1, job_->stop(nullptr, &refusal_));
    EXPECT_EQ("Job nightly cannot be stopped: its kind does not do that, or failed to", refusal_);
    EXPECT_LOGGED(LM_WARNING, refusal_);
    job_->complete();
}

TEST_F(Job_Test, pause_and_switch_need_a_run_in_state_running) {
    start_run();
    EXPECT_EQ(0, job_->pause());
    EXPECT_EQ(0, job_->switch_over());
    EXPECT_EQ((Texts{"pause", "switch"}), job_->calls);
    job_->calls.clear();
    put_in(JOB_STATE_PAUSED);
    expect_refused(job_->pause(nullptr, &refusal_), "Job nightly cannot be paused: it is paused");
    put_in(JOB_STATE_COMPLETING);
    expect_refused(job_->switch_over(nullptr, &refusal_),
                   "Job nightly cannot be switched: it is completing");
    job_->complete();
}

TEST_F(Job_Test, resume_needs_a_run_that_pauses) {
    start_run();
    expect_refused(job_->resume(nullptr, &refusal_),
                   "Job nightly cannot be resumed: it is running");
    put_in(JOB_STATE_PAUSING);
    EXPECT_EQ(0, job_->resume());
    put_in(JOB_STATE_PAUSED);
    EXPECT_EQ(0, job_->resume());
    EXPECT_EQ((Texts{"resume", "resume"}), job_->calls);
    job_->complete();
}

// requests to the job

TEST_F(Job_Test, enable_and_disable_write_the_record_and_tell) {
    EXPECT_EQ(0, job_->disable());
    EXPECT_FALSE(job_->activity().enabled);
    EXPECT_EQ(0, job_->enable());
    EXPECT_TRUE(job_->activity().enabled);
    EXPECT_EQ((Texts{"synced", "synced"}), jobs_.events());
}

TEST_F(Job_Test, disable_leaves_a_run_alone) {
    start_run();
    EXPECT_EQ(0, job_->disable());
    EXPECT_EQ(JOB_STATE_RUNNING, job_->state());
    EXPECT_TRUE(job_->running());
    job_->complete();
}

TEST_F(Job_Test, remove_ends_in_state_deleted) {
    EXPECT_EQ(0, job_->remove(true));
    EXPECT_EQ(Texts{"remove with data"}, job_->calls);
    EXPECT_EQ(JOB_STATE_DELETED, job_->state());
    EXPECT_EQ((Texts{"state deleting", "state deleted"}), jobs_.events());
}

TEST_F(Job_Test, a_removed_job_takes_no_request) {
    ASSERT_EQ(0, job_->remove());
    job_->calls.clear();
    std::string const because = ": it has been removed";
    expect_refused(job_->start(nullptr, &refusal_), "Job nightly cannot be started" + because);
    expect_refused(job_->stop(nullptr, &refusal_), "Job nightly cannot be stopped" + because);
    expect_refused(job_->enable(nullptr, &refusal_), "Job nightly cannot be enabled" + because);
    expect_refused(job_->disable(nullptr, &refusal_), "Job nightly cannot be disabled" + because);
    expect_refused(job_->pause(nullptr, &refusal_), "Job nightly cannot be paused" + because);
    expect_refused(job_->resume(nullptr, &refusal_), "Job nightly cannot be resumed" + because);
    expect_refused(job_->abort(nullptr, &refusal_), "Job nightly cannot be aborted" + because);
    expect_refused(job_->switch_over(nullptr, &refusal_),
                   "Job nightly cannot be switched" + because);
    expect_refused(job_->remove(false, nullptr, &refusal_),
                   "Job nightly cannot be removed" + because);
    expect_refused(job_->update(make_definition(), &refusal_),
                   "Job nightly cannot be updated" + because);
    expect_refused(job_->rollback(&refusal_), "Job nightly cannot be rolled back" + because);
    expect_refused(job_->setup_ondemand(&refusal_), "Job nightly cannot be set up" + because);
}

TEST_F(Job_Test, a_job_that_cannot_be_removed_is_as_it_was) {
    put_in(JOB_STATE_ERROR);
    job_->result = -1;
    EXPECT_EQ(-1, job_->remove());
    EXPECT_LOGGED(LM_WARNING, "Job nightly cannot be removed: ");
    EXPECT_EQ(JOB_STATE_ERROR, job_->state());
    job_->result = 0;
    EXPECT_EQ(0, job_->start());
    job_->complete();
}

TEST_F(Job_Test, a_job_with_a_run_is_not_removed_updated_or_rolled_back) {
    start_run();
    expect_refused(job_->remove(false, nullptr, &refusal_),
                   "Job nightly cannot be removed: it is running already");
    expect_refused(job_->update(make_definition(), &refusal_),
                   "Job nightly cannot be updated: it is running already");
    expect_refused(job_->rollback(&refusal_),
                   "Job nightly cannot be rolled back: it is running already");
    job_->complete();
}

TEST_F(Job_Test, update_exchanges_the_definition_after_the_job_has_agreed) {
    Job_Definition_var const changed = make_definition("hourly");
    job_->during_call = [&] { EXPECT_EQ(definition_.get(), job_->definition().get()); };
    EXPECT_EQ(0, job_->update(changed));
    EXPECT_EQ(Texts{"update to hourly"}, job_->calls);
    EXPECT_EQ(changed.get(), job_->definition().get());
}

TEST_F(Job_Test, an_update_that_fails_keeps_the_definition) {
    job_->result = -1;
    EXPECT_EQ(-1, job_->update(make_definition("hourly")));
    EXPECT_LOGGED(LM_WARNING, "Job nightly cannot be updated: ");
    EXPECT_EQ(definition_.get(), job_->definition().get());
}

TEST_F(Job_Test, an_update_needs_a_definition_of_the_same_id) {
    expect_refused(job_->update(Job_Definition_var(), &refusal_),
                   "Job nightly cannot be updated: there is no new definition");
    Job_Definition_var const other = make_definition();
    other->id("ffffffff-4455-6677-8899-aabbccddeeff");
    expect_refused(job_->update(other, &refusal_),
                   "Job nightly cannot be updated: the new definition is another job's");
    job_->updatable = false;
    put_in(JOB_STATE_EXPIRED);
    expect_refused(job_->update(make_definition(), &refusal_),
                   "Job nightly cannot be updated: it is expired");
}

TEST_F(Job_Test, updates_may_come_in_every_state_that_is_no_runs) {
    EXPECT_TRUE(job_->can_update_i(JOB_STATE_IDLE));
    EXPECT_TRUE(job_->can_update_i(JOB_STATE_ERROR));
    EXPECT_FALSE(job_->can_update_i(JOB_STATE_RUNNING));
    EXPECT_FALSE(job_->can_update_i(JOB_STATE_CANCELING));
}

TEST_F(Job_Test, rollback_is_carried_out_when_no_run_is_on) {
    EXPECT_EQ(0, job_->rollback());
    EXPECT_EQ(Texts{"rollback"}, job_->calls);
}

TEST_F(Job_Test, setup_ondemand_needs_such_a_schedule) {
    std::string const sentence = "Job nightly cannot be set up: it has no on-demand schedule";
    expect_refused(job_->setup_ondemand(&refusal_), sentence);
    definition_->schedule(Job_Schedule_var(new Job_Schedule(Job_Schedule::TYPE_DAILY)));
    expect_refused(job_->setup_ondemand(&refusal_), sentence);
    definition_->schedule()->type(Job_Schedule::TYPE_ONDEMAND);
    EXPECT_EQ(0, job_->setup_ondemand());
    EXPECT_EQ(0, job_->setup_ondemand_by_job());
    EXPECT_EQ((Texts{"setup_ondemand", "setup_ondemand"}), job_->calls);
}

// what a job that overrides nothing does

class Bare_Job : public Job {
public:
    using Job::complete;
    using Job::Job;
    using Job::remove_i;
    using Job::rollback_i;
    using Job::run_i;
    using Job::set_job_thread;
    using Job::setup_ondemand_i;
    using Job::update_i;
};

TEST_F(Job_Test, a_job_that_overrides_nothing_takes_no_request_to_run) {
    Bare_Job* const bare = new Bare_Job(definition_);
    Job_var const holder(bare, false);
    EXPECT_EQ(-1, bare->start());
    bare->set_job_thread();
    bare->activity().state = JOB_STATE_RUNNING;
    EXPECT_EQ(-1, bare->stop());
    EXPECT_EQ(-1, bare->abort());
    EXPECT_EQ(-1, bare->pause());
    EXPECT_EQ(-1, bare->switch_over());
    bare->activity().state = JOB_STATE_PAUSED;
    EXPECT_EQ(-1, bare->resume());
    EXPECT_EQ(-1, bare->run_i(nullptr));
    bare->activity().state = JOB_STATE_IDLE;
    bare->complete();
    EXPECT_EQ(-1, bare->rollback());
    EXPECT_EQ(-1, bare->setup_ondemand_i());
    EXPECT_EQ(0, bare->update_i(definition_));
    EXPECT_EQ(0, bare->remove_i(false, nullptr));
    EXPECT_EQ(7u, Log_Capture::instance().claim_all(LM_WARNING, "Job nightly cannot be "));
}

// the run

TEST_F(Job_Test, state_sets_and_tells) {
    job_->state(JOB_STATE_COMPLETING);
    EXPECT_EQ(JOB_STATE_COMPLETING, job_->state());
    EXPECT_EQ(Texts{"state completing"}, jobs_.events());
}

TEST_F(Job_Test, state_i_sets_and_tells_until_the_outcome_is_told) {
    start_run();
    EXPECT_EQ(0, job_->state_i(JOB_STATE_CANCELING));
    EXPECT_EQ(JOB_STATE_CANCELING, job_->state());
    events_.handle_canceled();
    EXPECT_EQ(-1, job_->state_i(JOB_STATE_CANCELING));
    EXPECT_EQ(JOB_STATE_CANCELED, job_->state());
    EXPECT_EQ((Texts{"state canceling", "state canceled", "ended canceled 0"}), jobs_.events());
    job_->complete();
}

TEST_F(Job_Test, sync_tells) {
    job_->sync(nullptr);
    EXPECT_EQ(Texts{"synced"}, jobs_.events());
}

TEST_F(Job_Test, complete_ends_the_run_and_tells_last) {
    start_run();
    events_.handle_success();
    job_->complete();
    EXPECT_FALSE(job_->running());
    EXPECT_EQ((Texts{"state completed", "ended completed 0", "finished"}), jobs_.events());
}

TEST_F(Job_Test, a_run_without_an_outcome_counts_as_failed) {
    for (Job_State state : {JOB_STATE_STARTING, JOB_STATE_RUNNING, JOB_STATE_PAUSED}) {
        start_run();
        put_in(state);
        job_->complete();
        EXPECT_EQ(JOB_STATE_ERROR, job_->state());
        EXPECT_EQ("The run ended without an outcome", job_->message());
        EXPECT_EQ(-1, job_->activity().code);
        EXPECT_EQ(
            (Texts{"state error", "ended error -1 The run ended without an outcome", "finished"}),
            jobs_.events());
    }
}

TEST_F(Job_Test, a_run_without_an_outcome_that_was_to_be_canceled_counts_as_canceled) {
    for (Job_State state : {JOB_STATE_CANCELING, JOB_STATE_ABORTING}) {
        start_run();
        put_in(state);
        job_->complete();
        EXPECT_EQ((Texts{"state canceled", "ended canceled 0", "finished"}), jobs_.events());
    }
}

TEST_F(Job_Test, a_run_that_was_skipped_or_stayed_idle_has_no_outcome) {
    for (Job_State state : {JOB_STATE_SKIPPED, JOB_STATE_IDLE}) {
        start_run();
        put_in(state);
        job_->complete();
        EXPECT_EQ(state, job_->state());
        EXPECT_EQ(Texts{"finished"}, jobs_.events());
    }
}

TEST_F(Job_Test, lines_of_the_job_thread_reach_the_jobs_log_until_complete) {
    ASSERT_EQ(0, job_->start());
    QMRT_LOG(LM_INFO, "before\n");
    job_->set_job_thread();
    QMRT_LOG(LM_INFO, "during\n");
    job_->complete();
    QMRT_LOG(LM_INFO, "after\n");
    EXPECT_EQ(Texts{"during\n"}, jobs_.log_lines());
}

TEST_F(Job_Test, without_a_job_service_there_is_no_log_and_one_error_line) {
    Host_Services::instance().jobs(nullptr);
    EXPECT_EQ(nullptr, job_->log_msg_callback());
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, "No job service is installed"));
    Host_Services::instance().jobs(jobs_.backend());
}

TEST_F(Job_Test, a_run_whose_job_service_goes_away_ends_all_the_same) {
    start_run();
    Host_Services::instance().jobs(nullptr);
    events_.handle_success();
    job_->complete();
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
    EXPECT_FALSE(job_->running());
    EXPECT_EQ(3u, Log_Capture::instance().claim_all(LM_ERROR, "No job service is installed"));
    Host_Services::instance().jobs(jobs_.backend());
}

// references

TEST_F(Job_Test, the_last_reference_destroys_the_job) {
    bool destroyed = false;
    Test_Job* const job = new Test_Job(definition_);
    job->destroyed = &destroyed;
    Job_var first(job, false);
    Job_var second;
    second = first;
    first = Job_var();
    EXPECT_FALSE(destroyed);
    second = Job_var();
    EXPECT_TRUE(destroyed);
}

TEST_F(Job_Test, a_run_keeps_the_job_until_complete) {
    bool destroyed = false;
    Test_Job* const job = new Test_Job(definition_);
    job->destroyed = &destroyed;
    {
        Job_var const holder(job, false);
        ASSERT_EQ(0, job->start());
    }
    EXPECT_FALSE(destroyed);
    job->complete();
    EXPECT_TRUE(destroyed);
    EXPECT_TRUE(jobs_.wait_for_finished());
}

TEST_F(Job_Test, a_run_that_cannot_begin_keeps_no_reference) {
    bool destroyed = false;
    Test_Job* const job = new Test_Job(definition_);
    job->destroyed = &destroyed;
    job->result = -1;
    {
        Job_var const holder(job, false);
        EXPECT_EQ(-1, job->start());
        EXPECT_LOGGED(LM_WARNING, "cannot be started");
    }
    EXPECT_TRUE(destroyed);
}

TEST_F(Job_Test, null_references_are_taken) {
    Job::intrusive_add_ref(nullptr);
    Job::intrusive_remove_ref(nullptr);
    Job_var empty;
    empty = Job_var();
    EXPECT_FALSE(empty);
}

TEST_F(Job_Test, a_reactor_holds_a_reference_while_a_timer_is_set) {
    bool destroyed = false;
    ACE_Reactor reactor;
    Test_Job* const job = new Test_Job(definition_);
    job->destroyed = &destroyed;
    {
        Job_var const holder(job, false);
        ASSERT_NE(-1, reactor.schedule_timer(job, nullptr, ACE_Time_Value(3600)));
    }
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(1, reactor.cancel_timer(job));
    EXPECT_TRUE(destroyed);
}

// the activity file

class Activity_File_Test : public Job_Test {
protected:
    /** The file as a process that was killed in this state would leave it. */
    void leave_file(Job_State state) {
        Job_Activity_Handle file;
        ASSERT_EQ(0, file.open_i(path_.c_str(), O_RDWR | O_CREAT));
        *file.operator->() = job_->activity();
        file->state = state;
        file->last_run_time = 1234;
        file->enabled = false;
    }

    Temporary_Directory files_;
    std::string const path_ = files_.path("activity");
};

TEST_F(Activity_File_Test, a_new_file_gets_the_record_that_the_job_has) {
    job_->activity().last_run_time = 99;
    ASSERT_EQ(0, job_->map_activity(path_));
    EXPECT_EQ(99, job_->activity().last_run_time);
    job_->activity().set_size = 5;
    Job_Activity_Handle other;
    ASSERT_EQ(0, other.open_i(path_.c_str(), O_RDWR));
    EXPECT_EQ(5u, other->set_size);
    EXPECT_EQ(Job_Activity::MAGIC, other->magic);
}

TEST_F(Activity_File_Test, a_record_of_the_same_definition_is_taken_over) {
    leave_file(JOB_STATE_COMPLETED);
    ASSERT_EQ(0, job_->map_activity(path_));
    EXPECT_EQ(1234, job_->activity().last_run_time);
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
    EXPECT_FALSE(job_->activity().enabled);
}

TEST_F(Activity_File_Test, a_run_that_died_with_its_process_has_failed) {
    leave_file(JOB_STATE_RUNNING);
    ASSERT_EQ(0, job_->map_activity(path_));
    EXPECT_LOGGED(LM_WARNING,
                  "Job nightly was cut short while it was running: its run has failed\n");
    EXPECT_EQ(JOB_STATE_ERROR, job_->state());
    EXPECT_EQ(-1, job_->activity().code);
    EXPECT_FALSE(job_->running());
}

TEST_F(Activity_File_Test, a_record_of_another_definition_is_overwritten) {
    leave_file(JOB_STATE_COMPLETED);
    Job_Definition_var const other = make_definition();
    other->id("ffffffff-4455-6677-8899-aabbccddeeff");
    Test_Job* const job = new Test_Job(other);
    Job_var const holder(job, false);
    ASSERT_EQ(0, job->map_activity(path_));
    EXPECT_EQ(0, job->activity().last_run_time);
    EXPECT_EQ(other->id(), uuid_binary_to_string(job->activity().def_id));
}

TEST_F(Activity_File_Test, whatever_else_is_in_the_file_is_overwritten) {
    std::string record(sizeof(Job_Activity), '\0');
    std::memcpy(record.data(), &job_->activity(), record.size());
    std::string bad_enabled = record;
    bad_enabled[offsetof(Job_Activity, enabled)] = 7;
    std::string bad_state = record;
    bad_state[offsetof(Job_Activity, state) + 3] = 0x7f;
    std::string bad_version = record;
    bad_version[offsetof(Job_Activity, version)] = 2;
    for (std::string const& content : {std::string(), std::string("x"), std::string(9000, '\xff'),
                                       bad_enabled, bad_state, bad_version}) {
        files_.write("activity", content);
        Job_var const job(new Test_Job(definition_), false);
        ASSERT_EQ(0, job->map_activity(path_));
        EXPECT_EQ(JOB_STATE_IDLE, job->state());
        EXPECT_TRUE(job->activity().enabled);
        EXPECT_EQ("", job->message());
        EXPECT_GE(files_.read("activity").size(), JOB_ACTIVITY_SIZE);
    }
}

TEST_F(Activity_File_Test, the_message_of_a_failure_outlives_the_process) {
    ASSERT_EQ(0, job_->map_activity(path_));
    start_run();
    events_.handle_failure(3, "no space");
    job_->complete();
    Test_Job* const next = new Test_Job(definition_);
    Job_var const holder(next, false);
    ASSERT_EQ(0, next->map_activity(path_));
    EXPECT_EQ("no space", next->message());
    EXPECT_EQ(3, next->activity().code);
}

TEST_F(Activity_File_Test, a_message_that_points_out_of_the_file_is_none) {
    ASSERT_EQ(0, job_->map_activity(path_));
    for (auto const& [size, offset] : {std::pair(1, 0), std::pair(1, 4096), std::pair(4000, 200),
                                       std::pair(65535, 65535), std::pair(5, 100)}) {
        job_->activity().message.size = static_cast<ACE_UINT16>(size);
        job_->activity().message.offset = static_cast<ACE_UINT16>(offset);
        EXPECT_EQ("", job_->message()) << size << " at " << offset;
    }
}

TEST_F(Activity_File_Test, a_file_that_cannot_be_mapped_leaves_the_record_in_memory) {
    job_->activity().set_size = 7;
    EXPECT_EQ(-1, job_->map_activity("/nonexistent/activity"));
    EXPECT_LOGGED(LM_ERROR, "Failed to memory map /nonexistent/activity");
    EXPECT_EQ(7u, job_->activity().set_size);
    ASSERT_EQ(0, job_->map_activity(path_));
    job_->activity().set_size = 8;
    EXPECT_EQ(-1, job_->map_activity("/nonexistent/activity"));
    EXPECT_LOGGED(LM_ERROR, "Failed to memory map /nonexistent/activity");
    EXPECT_EQ(8u, job_->activity().set_size);
}

TEST_F(Activity_File_Test, the_file_is_not_changed_under_a_run) {
    start_run();
    EXPECT_EQ(-1, job_->map_activity(path_));
    EXPECT_LOGGED(LM_WARNING, "Job nightly cannot change its activity file: it is running already");
    EXPECT_FALSE(files_.exists("activity"));
    job_->complete();
}

// threads

TEST_F(Job_Test, requests_and_the_run_meet_in_order) {
    for (int round = 0; round < 50; ++round) {
        jobs_.clear();
        ASSERT_EQ(0, job_->start());
        std::thread run([this] {
            job_->set_job_thread();
            events_.handle_start_job();
            events_.handle_progress(50, 0, 0, 0);
            events_.handle_success();
            job_->complete();
        });
        std::thread requests([this] {
            job_->state_i(JOB_STATE_CANCELING);
            static_cast<void>(job_->activity().progress == 50);
            job_->run_id();
            job_->message();
        });
        run.join();
        requests.join();
        // a cancel that came too late has not overwritten the end
        EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
        Texts const events = jobs_.events();
        ASSERT_GE(events.size(), 3u);
        EXPECT_EQ("finished", events[events.size() - 1]);
        EXPECT_EQ("ended completed 0", events[events.size() - 2]);
        EXPECT_EQ("state completed", events[events.size() - 3]);
    }
}

} // namespace
