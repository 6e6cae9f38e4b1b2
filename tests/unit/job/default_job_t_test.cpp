#include "job/default_job_t.h"

#include "tests/support/failing_new.h"
#include "tests/support/fake_jobs.h"
#include "tests/support/impossible_threads.h"
#include "tests/support/log_capture.h"
#include "tests/unit/job/test_executor.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

namespace {

using Texts = std::vector<std::string>;
using json_spirit::Value;

class Default_Job_Test : public testing::Test {
protected:
    /** The number of executors made so far. */
    size_t executors() const {
        Texts const calls = play_.calls();
        return static_cast<size_t>(std::count(calls.begin(), calls.end(), "made"));
    }
    void give_schedule(Job_Schedule::Type type) {
        def_->schedule(Job_Schedule_var(new Job_Schedule(type)));
    }
    /** Lets a run wait in its work until release_.set_value(), and waits until it does. */
    void start_held() {
        held_ = release_.get_future().share();
        play_.execute = [this](Job&, auto) {
            held_.wait();
            return true;
        };
        ASSERT_EQ(0, job_->start());
        ASSERT_TRUE(play_.wait_for("execute"));
    }

    Play play_;
    Job_Definition_var const def_ = make_definition(play_);
    std::promise<void> release_;
    std::shared_future<void> held_;
    Fake_Jobs jobs_;
    Default_Job* const job_ = new Default_Job(def_);
    Job_var const holder_{job_, false};
};

// start

TEST_F(Default_Job_Test, a_run_has_a_thread_of_its_own_and_start_does_not_wait_for_it) {
    std::thread::id thread;
    play_.execute = [&](Job&, auto) {
        thread = std::this_thread::get_id();
        held_.wait();
        return true;
    };
    held_ = release_.get_future().share();
    ASSERT_EQ(0, job_->start());
    release_.set_value();
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_NE(std::this_thread::get_id(), thread);
    EXPECT_EQ((Texts{"state starting", "state running", "state completed", "ended completed 0",
                     "finished"}),
              jobs_.events());
}

TEST_F(Default_Job_Test, options_arrive_as_a_copy) {
    Job::Action_Options options = {{"full", true}};
    Job::Action_Options seen;
    bool same = true;
    held_ = release_.get_future().share();
    play_.execute = [&](Job&, Job::Action_Options const* given) {
        held_.wait();
        same = given == &options;
        seen = *given;
        return true;
    };
    ASSERT_EQ(0, job_->start(&options));
    options["full"] = "changed since";
    release_.set_value();
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_FALSE(same);
    EXPECT_EQ((Job::Action_Options{{"full", true}}), seen);
}

TEST_F(Default_Job_Test, empty_options_and_no_options_arrive_as_null) {
    Job::Action_Options const empty;
    int nulls = 0;
    play_.execute = [&](Job&, Job::Action_Options const* given) {
        nulls += given == nullptr;
        return true;
    };
    ASSERT_EQ(0, job_->start(&empty));
    ASSERT_TRUE(jobs_.wait_for_finished(1));
    ASSERT_EQ(0, job_->start(nullptr));
    ASSERT_TRUE(jobs_.wait_for_finished(2));
    EXPECT_EQ(2, nulls);
}

TEST_F(Default_Job_Test, no_memory_for_the_start_message_is_a_failure_that_leaves_the_state) {
    job_->activity().state = JOB_STATE_COMPLETED;
    {
        Failing_New const no_memory(sizeof(Run_Options));
        EXPECT_EQ(-1, job_->start_i(nullptr));
    }
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "opt is NULL");
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
    EXPECT_EQ(Texts(), jobs_.events());
    EXPECT_EQ(0u, executors());
}

TEST_F(Default_Job_Test, a_thread_that_cannot_be_made_is_a_failure_that_leaves_the_state) {
    job_->activity().state = JOB_STATE_COMPLETED;
    Job::Action_Options const options = {{"full", true}};
    {
        Impossible_Threads const no_threads;
        EXPECT_EQ(-1, job_->start_i(&options));
    }
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
    EXPECT_EQ(Texts(), jobs_.events());
    EXPECT_EQ(0u, executors());
}

TEST_F(Default_Job_Test, a_start_that_failed_can_be_made_again) {
    {
        Impossible_Threads const no_threads;
        EXPECT_EQ(-1, job_->start());
    }
    EXPECT_LOGGED(LM_WARNING, "Job nightly cannot be started: its run could not begin");
    EXPECT_FALSE(job_->running());
    EXPECT_EQ(JOB_STATE_IDLE, job_->state());
    EXPECT_EQ(0, job_->start());
    EXPECT_TRUE(jobs_.wait_for_finished());
}

// the run

TEST_F(Default_Job_Test, run_i_writes_the_user_into_the_record) {
    std::memset(job_->activity().uid, 0, sizeof(uuid_binary));
    EXPECT_EQ(0, job_->run_i(nullptr));
    EXPECT_EQ(def_->uid(), uuid_binary_to_string(job_->activity().uid));
}

TEST_F(Default_Job_Test, run_i_makes_the_thread_the_jobs_for_as_long_as_it_runs) {
    play_.execute = [](Job& job, auto) {
        QMRT_LOG(LM_INFO, "during\n");
        return job.running();
    };
    EXPECT_EQ(0, job_->run_i(nullptr));
    QMRT_LOG(LM_INFO, "after\n");
    EXPECT_EQ(Texts{"during\n"}, jobs_.log_lines());
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
    EXPECT_FALSE(job_->running());
}

TEST_F(Default_Job_Test, the_executor_is_destroyed_before_the_agent_hears_that_the_run_is_over) {
    jobs_.on_event([this](std::string const& event) { play_.called(event); });
    EXPECT_EQ(0, job_->run_i(nullptr));
    Texts const calls = play_.calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ("finished", calls[calls.size() - 1]);
    EXPECT_EQ("destroyed", calls[calls.size() - 2]);
}

TEST_F(Default_Job_Test, run_i_returns_0_and_completes_whatever_the_executor_says) {
    play_.execute = [](Job&, auto) { return false; };
    EXPECT_EQ(0, job_->run_i(nullptr));
    EXPECT_EQ((Texts{"state running", "state error", "ended error -1", "finished"}),
              jobs_.events());
}

TEST_F(Default_Job_Test, a_skipped_run_completes_without_actions_or_events) {
    play_.active = false;
    def_->pre_action("exit 1");
    def_->post_action("exit 1");
    EXPECT_EQ(0, job_->run_i(nullptr));
    EXPECT_EQ(Texts{"finished"}, jobs_.events());
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
    EXPECT_FALSE(job_->running());
}

TEST_F(Default_Job_Test, a_run_without_a_source_has_failed_when_it_was_started) {
    def_->source(Job_Source_var(new Other_Source));
    ASSERT_EQ(0, job_->start());
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "src_ is NULL");
    EXPECT_EQ(JOB_STATE_ERROR, job_->state());
}

TEST_F(Default_Job_Test, an_exception_fails_the_run_and_leaves_the_agent_alive) {
    play_.execute = [](Job&, auto) -> bool { throw std::runtime_error("out of luck"); };
    ASSERT_EQ(0, job_->start());
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_LOGGED(LM_ERROR, "Job nightly broke off: out of luck\n");
    EXPECT_EQ(JOB_STATE_ERROR, job_->state());
    EXPECT_EQ("destroyed", play_.calls().back());
    EXPECT_EQ((Texts{"state starting", "state running", "state error",
                     "ended error -1 The run ended without an outcome", "finished"}),
              jobs_.events());
}

TEST_F(Default_Job_Test, every_run_has_an_executor_of_its_own) {
    for (size_t run = 1; run <= 3; ++run) {
        ASSERT_EQ(0, job_->start());
        ASSERT_TRUE(jobs_.wait_for_finished(run));
        EXPECT_EQ(run, executors());
    }
}

TEST_F(Default_Job_Test, a_run_outlives_everybody_elses_interest_in_the_job) {
    held_ = release_.get_future().share();
    play_.execute = [this](Job& job, auto) {
        held_.wait();
        return job.running();
    };
    {
        Default_Job* const job = new Default_Job(def_);
        job->play = &play_;
        Job_var const holder(job, false);
        ASSERT_EQ(0, job->start());
    }
    release_.set_value();
    ASSERT_TRUE(jobs_.wait_for_finished());
    ACE_Thread_Manager::instance()->wait();
    EXPECT_EQ("job destroyed", play_.calls().back());
    EXPECT_EQ(JOB_STATE_COMPLETED, jobs_.outcomes()[0].state);
}

// requests

TEST_F(Default_Job_Test, a_stop_is_refused_and_the_run_goes_on) {
    start_held();
    EXPECT_EQ(-1, job_->stop_i(nullptr));
    EXPECT_EQ(-1, job_->stop());
    EXPECT_LOGGED(LM_WARNING, "Job nightly cannot be stopped: its kind does not do that");
    EXPECT_EQ(JOB_STATE_RUNNING, job_->state());
    release_.set_value();
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
}

TEST_F(Default_Job_Test, an_abort_of_the_same_run_sets_canceling) {
    start_held();
    EXPECT_EQ(-1, job_->stop_i(nullptr));
    EXPECT_EQ(0, job_->abort_i(nullptr));
    EXPECT_EQ(JOB_STATE_CANCELING, job_->state());
    release_.set_value();
    ASSERT_TRUE(jobs_.wait_for_finished());
    // the work did not look at the state, and succeeded
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
}

TEST_F(Default_Job_Test, a_run_that_looks_at_the_state_is_canceled_by_an_abort) {
    play_.execute = [](Job& job, auto) {
        while (!is_cancel_state(job.state()))
            std::this_thread::yield();
        return false;
    };
    ASSERT_EQ(0, job_->start());
    ASSERT_TRUE(play_.wait_for("execute"));
    EXPECT_EQ(0, job_->abort());
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_EQ(JOB_STATE_CANCELED, job_->state());
}

TEST_F(Default_Job_Test, an_abort_while_the_run_is_starting_is_not_lost) {
    play_.execute = [](Job&, auto) { return true; };
    jobs_.on_event([this](std::string const& event) {
        // on the starting thread, before the run's own thread has come so far
        if (event == "state starting")
            job_->abort();
    });
    ASSERT_EQ(0, job_->start());
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_EQ(JOB_STATE_CANCELED, job_->state());
    Texts const calls = play_.calls();
    EXPECT_EQ(0, std::count(calls.begin(), calls.end(), "execute"));
}

TEST_F(Default_Job_Test, the_thread_of_an_aborted_run_is_only_marked) {
    bool marked = false;
    play_.execute = [&](Job& job, auto) {
        while (!is_cancel_state(job.state()))
            std::this_thread::yield();
        // the mark comes after the state
        while (!ACE_Thread_Manager::instance()->testcancel(ACE_OS::thr_self()))
            std::this_thread::yield();
        marked = true;
        return false;
    };
    ASSERT_EQ(0, job_->start());
    ASSERT_TRUE(play_.wait_for("execute"));
    EXPECT_EQ(0, job_->abort());
    ASSERT_TRUE(jobs_.wait_for_finished());
    EXPECT_TRUE(marked);
}

TEST_F(Default_Job_Test, pause_resume_and_switch_are_not_its_kind) {
    EXPECT_EQ(-1, job_->pause_i(nullptr));
    EXPECT_EQ(-1, job_->resume_i(nullptr));
    EXPECT_EQ(-1, job_->switch_i(nullptr));
    EXPECT_EQ(JOB_STATE_IDLE, job_->state());
}

TEST_F(Default_Job_Test, handle_exception_does_nothing) {
    EXPECT_EQ(0, job_->handle_exception(ACE_INVALID_HANDLE));
    EXPECT_EQ(Texts(), play_.calls());
}

// remove, update, on-demand

TEST_F(Default_Job_Test, remove_without_a_schedule_calls_only_remove) {
    EXPECT_EQ(0, job_->remove_i(true, nullptr));
    EXPECT_EQ((Texts{"made", "remove", "destroyed"}), play_.calls());
}

TEST_F(Default_Job_Test, remove_with_another_schedule_calls_only_remove) {
    give_schedule(Job_Schedule::TYPE_DAILY);
    EXPECT_EQ(0, job_->remove_i(false, nullptr));
    EXPECT_EQ((Texts{"made", "remove", "destroyed"}), play_.calls());
}

TEST_F(Default_Job_Test, remove_with_an_on_demand_schedule_takes_that_down_first) {
    give_schedule(Job_Schedule::TYPE_ONDEMAND);
    EXPECT_EQ(0, job_->remove_i(false, nullptr));
    EXPECT_EQ((Texts{"made", "remove_ondemand", "destroyed", "made", "remove", "destroyed"}),
              play_.calls());
}

TEST_F(Default_Job_Test, remove_and_update_succeed_whatever_the_executor_says) {
    play_.result = false;
    give_schedule(Job_Schedule::TYPE_ONDEMAND);
    EXPECT_EQ(0, job_->remove_i(false, nullptr));
    EXPECT_EQ(0, job_->update_i(def_));
    EXPECT_EQ("destroyed", play_.calls().back());
}

TEST_F(Default_Job_Test, update_shows_the_executor_the_new_definition) {
    Job_Definition_var const changed = make_definition(play_);
    changed->name("hourly");
    EXPECT_EQ(0, job_->update(changed));
    EXPECT_EQ((Texts{"made", "update to hourly", "destroyed"}), play_.calls());
    EXPECT_EQ("hourly", job_->definition()->name());
}

TEST_F(Default_Job_Test, setup_ondemand_is_as_good_as_the_executors) {
    EXPECT_EQ(0, job_->setup_ondemand_i());
    play_.result = false;
    EXPECT_EQ(-1, job_->setup_ondemand_i());
    EXPECT_EQ((Texts{"made", "setup_ondemand", "destroyed", "made", "setup_ondemand", "destroyed"}),
              play_.calls());
}

// rollback

TEST_F(Default_Job_Test, rollback_returns_while_it_still_runs) {
    held_ = release_.get_future().share();
    play_.during_rollback = [this] {
        held_.wait();
        play_.called("rolled back");
    };
    EXPECT_EQ(0, job_->rollback());
    Texts const calls = play_.calls();
    EXPECT_EQ(0, std::count(calls.begin(), calls.end(), "rolled back"));
    release_.set_value();
    ACE_Thread_Manager::instance()->wait();
    EXPECT_EQ((Texts{"made", "rollback", "rolled back", "destroyed"}), play_.calls());
}

TEST_F(Default_Job_Test, a_rollback_outlives_everybody_elses_interest_in_the_job) {
    held_ = release_.get_future().share();
    play_.during_rollback = [this] { held_.wait(); };
    {
        Default_Job* const job = new Default_Job(def_);
        job->play = &play_;
        Job_var const holder(job, false);
        ASSERT_EQ(0, job->rollback());
    }
    release_.set_value();
    ACE_Thread_Manager::instance()->wait();
    EXPECT_EQ((Texts{"made", "rollback", "destroyed", "job destroyed"}), play_.calls());
}

TEST_F(Default_Job_Test, an_update_during_a_rollback_leaves_its_definition_alone) {
    held_ = release_.get_future().share();
    play_.during_rollback = [this] { held_.wait(); };
    // as the job's own, so that the update lets go of the last reference but the rollback's
    Job_var job;
    {
        Job_Definition_var const own = make_definition(play_);
        job = Job_var(new Default_Job(own), false);
    }
    ASSERT_EQ(0, job->rollback());
    ASSERT_TRUE(play_.wait_for("rollback"));
    EXPECT_EQ(0, job->update(make_definition(play_)));
    release_.set_value();
    ACE_Thread_Manager::instance()->wait();
    EXPECT_EQ("destroyed", play_.calls().back());
}

TEST_F(Default_Job_Test, a_rollback_without_a_thread_is_a_failure) {
    Impossible_Threads const no_threads;
    EXPECT_EQ(-1, job_->rollback_i());
    EXPECT_EQ(Texts(), play_.calls());
}

TEST_F(Default_Job_Test, run_rollback_succeeds_whatever_the_executor_says) {
    play_.result = false;
    EXPECT_EQ(0, job_->run_rollback());
    EXPECT_EQ((Texts{"made", "rollback", "destroyed"}), play_.calls());
}

TEST_F(Default_Job_Test, an_exception_in_a_rollback_leaves_the_agent_alive) {
    play_.during_rollback = [] { throw std::runtime_error("no way back"); };
    EXPECT_EQ(0, job_->rollback());
    ACE_Thread_Manager::instance()->wait();
    EXPECT_LOGGED(LM_ERROR, "Job nightly broke off: no way back\n");
}

// threads

TEST_F(Default_Job_Test, requests_of_several_threads_meet_runs) {
    play_.execute = [](Job& job, auto) {
        while (!is_cancel_state(job.state()))
            std::this_thread::yield();
        return false;
    };
    constexpr size_t ROUNDS = 20;
    for (size_t round = 1; round <= ROUNDS; ++round) {
        std::atomic<int> started = 0;
        std::vector<std::thread> starters;
        for (int count = 0; count < 3; ++count)
            starters.emplace_back([&] { started += job_->start() == 0; });
        for (std::thread& thread : starters)
            thread.join();
        EXPECT_EQ(1, started);
        std::vector<std::thread> aborters;
        for (int count = 0; count < 3; ++count)
            aborters.emplace_back([&] {
                job_->abort();
                job_->definition();
                job_->run_id();
            });
        for (std::thread& thread : aborters)
            thread.join();
        ASSERT_TRUE(jobs_.wait_for_finished(round));
    }
    EXPECT_EQ(ROUNDS, jobs_.outcomes().size());
    EXPECT_EQ(2 * ROUNDS,
              Log_Capture::instance().claim_all(LM_WARNING, "cannot be started: it is running"));
    // the others came when it was over already
    Log_Capture::instance().claim_all(LM_WARNING, "cannot be aborted: it is not running");
}

} // namespace
