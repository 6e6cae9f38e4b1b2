#include "job/job_executor_t.h"

#include "tests/support/fake_jobs.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/job/test_executor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Texts = std::vector<std::string>;

class Job_Executor_Test : public testing::Test {
protected:
    /** A script that adds a line to the file of steps and ends like this. */
    std::string step(std::string const& name, int status = 0) {
        return "echo " + name + " >>" + steps_ + "; exit " + std::to_string(status);
    }
    /** What scripts and execute_i() have written, in order. */
    std::string steps() const { return files_.read("steps"); }

    bool execute(Job::Action_Options const* options = nullptr) {
        return Test_Executor(*job_).execute(options);
    }
    /** The runner tells of each script that ended badly. */
    static void expect_script_failure() {
        Log_Capture& log = Log_Capture::instance();
        EXPECT_TRUE(log.claim(LM_WARNING, "exited with status ") ||
                    log.claim(LM_ERROR, "exited with status "))
            << log.dump();
    }
    Job_Activity& act() { return job_->activity(); }

    Temporary_Directory files_;
    std::string const steps_ = files_.path("steps");
    Play play_;
    Job_Definition_var const def_ = make_definition(play_);
    Fake_Jobs jobs_;
    Default_Job* const job_ = new Default_Job(def_);
    Job_var const holder_{job_, false};
};

// what it is made of

TEST_F(Job_Executor_Test, refers_to_the_jobs_own_parts) {
    Test_Executor const executor(*job_);
    EXPECT_EQ(job_, &executor.job_);
    EXPECT_EQ(def_.get(), &executor.def_);
    EXPECT_EQ(&def_->target(), &executor.tgt_);
    EXPECT_EQ(&job_->activity(), &executor.act_);
    EXPECT_EQ(def_->source().get(), executor.src_);
    EXPECT_EQ(def_->options().get(), executor.opts_);
}

TEST_F(Job_Executor_Test, options_of_another_kind_are_none) {
    def_->options(Job_Options_var(new Other_Options));
    EXPECT_EQ(nullptr, Test_Executor(*job_).opts_);
}

/** Overrides only what every executor must. */
class Bare_Executor : public Job_Executor_T<Test_Source, Test_Options, Job_Event_Handler> {
public:
    using Job_Executor_T::check_condition;
    using Job_Executor_T::is_active;
    using Job_Executor_T::Job_Executor_T;

protected:
    bool execute_i(Job::Action_Options const*) override { return true; }
};

TEST_F(Job_Executor_Test, what_is_not_overridden_is_a_success) {
    Bare_Executor executor(*job_);
    EXPECT_TRUE(executor.remove());
    EXPECT_TRUE(executor.setup_ondemand());
    EXPECT_TRUE(executor.remove_ondemand());
    EXPECT_TRUE(executor.update(def_));
    EXPECT_TRUE(executor.rollback());
    EXPECT_TRUE(executor.check_condition());
    EXPECT_TRUE(executor.is_active(nullptr));
    EXPECT_TRUE(executor.execute(nullptr));
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
}

// a run that does not begin

TEST_F(Job_Executor_Test, without_a_source_nothing_happens) {
    def_->source(Job_Source_var());
    EXPECT_FALSE(execute());
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "src_ is NULL");
    EXPECT_EQ(JOB_STATE_IDLE, job_->state());
    EXPECT_EQ(Texts(), jobs_.events());
    EXPECT_EQ(Texts(), play_.calls());
}

TEST_F(Job_Executor_Test, a_source_of_another_kind_is_none) {
    def_->source(Job_Source_var(new Other_Source));
    EXPECT_FALSE(execute());
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "src_ is NULL");
    EXPECT_EQ(Texts(), jobs_.events());
}

TEST_F(Job_Executor_Test, a_run_that_is_not_active_is_skipped_without_actions_or_events) {
    play_.active = false;
    def_->precondition(step("precondition"));
    def_->pre_action(step("pre-action"));
    def_->post_action(step("post-action"));
    def_->run_post_action_always(true);
    time_t const before = time(nullptr);
    EXPECT_TRUE(execute());
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
    EXPECT_GE(act().last_run_time, before);
    EXPECT_EQ(0, act().start_time);
    EXPECT_EQ("", steps());
    EXPECT_EQ(Texts(), jobs_.events());
    EXPECT_EQ((Texts{"made", "active?", "destroyed"}), play_.calls());
}

TEST_F(Job_Executor_Test, a_failed_precondition_is_a_quiet_return_to_idle) {
    def_->precondition(step("precondition", 1));
    def_->pre_action(step("pre-action"));
    act().state = JOB_STATE_STARTING;
    time_t const before = time(nullptr);
    EXPECT_TRUE(execute());
    expect_script_failure();
    EXPECT_EQ(JOB_STATE_IDLE, job_->state());
    EXPECT_GE(act().start_time, before);
    EXPECT_EQ(static_cast<time_t>(act().start_time), act().last_run_time);
    EXPECT_EQ("precondition\n", steps());
    EXPECT_EQ(Texts{"synced"}, jobs_.events());
    EXPECT_EQ((Texts{"made", "active?", "destroyed"}), play_.calls());
}

TEST_F(Job_Executor_Test, a_failed_condition_is_a_quiet_return_to_idle) {
    def_->precondition(step("precondition"));
    def_->pre_action(step("pre-action"));
    play_.condition = false;
    EXPECT_TRUE(execute());
    EXPECT_EQ(JOB_STATE_IDLE, job_->state());
    EXPECT_NE(0, act().start_time);
    EXPECT_EQ(static_cast<time_t>(act().start_time), act().last_run_time);
    EXPECT_EQ("precondition\n", steps());
    EXPECT_EQ(Texts{"synced"}, jobs_.events());
}

// the order of a run

TEST_F(Job_Executor_Test, the_steps_come_in_their_order) {
    def_->precondition(step("precondition"));
    def_->pre_action(step("pre-action"));
    def_->post_action(step("post-action"));
    play_.execute = [this](Job&, auto) {
        std::ofstream(steps_, std::ios::app) << "execute\n";
        return true;
    };
    EXPECT_TRUE(execute());
    EXPECT_EQ("precondition\npre-action\nexecute\npost-action\n", steps());
    EXPECT_EQ((Texts{"made", "active?", "condition", "execute", "destroyed"}), play_.calls());
    EXPECT_EQ((Texts{"state running", "state completing", "state completed", "ended completed 0"}),
              jobs_.events());
}

TEST_F(Job_Executor_Test, the_options_reach_execute_i_as_they_are) {
    Job::Action_Options const options = {{"full", true}};
    Job::Action_Options const* seen = nullptr;
    play_.execute = [&](Job&, Job::Action_Options const* given) {
        seen = given;
        return true;
    };
    EXPECT_TRUE(execute(&options));
    EXPECT_EQ(&options, seen);
}

TEST_F(Job_Executor_Test, the_job_is_running_before_the_pre_action) {
    def_->pre_action(step("pre-action"));
    jobs_.on_event([this](std::string const& event) {
        if (event == "state running") {
            EXPECT_EQ("", steps());
        }
    });
    EXPECT_TRUE(execute());
    EXPECT_EQ("state running", jobs_.events().front());
}

TEST_F(Job_Executor_Test, a_run_without_scripts_runs_and_completes) {
    EXPECT_TRUE(execute());
    EXPECT_EQ((Texts{"state running", "state completed", "ended completed 0"}), jobs_.events());
}

// pre-action

TEST_F(Job_Executor_Test, a_failed_pre_action_fails_the_run_without_its_work) {
    def_->pre_action(step("pre-action", 3));
    def_->post_action(step("post-action"));
    EXPECT_FALSE(execute());
    expect_script_failure();
    EXPECT_EQ("pre-action\n", steps());
    EXPECT_EQ((Texts{"made", "active?", "condition", "destroyed"}), play_.calls());
    EXPECT_EQ((Texts{"state running", "state error", "ended error -1"}), jobs_.events());
}

TEST_F(Job_Executor_Test, a_failed_pre_action_can_be_ignored) {
    def_->pre_action(step("pre-action", 3));
    def_->ignore_pre_action_failure(true);
    EXPECT_TRUE(execute());
    expect_script_failure();
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
}

class Pre_Action_State_Test : public Job_Executor_Test {
protected:
    /**
     * Runs the pre-action on the job's own thread as far as its middle, makes the job this state
     * there, and lets it end with @a status.
     */
    void run_with(Job_State state, int status) {
        std::string const fifo = files_.path("fifo");
        ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
        def_->pre_action("read line <" + fifo + "; exit " + std::to_string(status));
        ASSERT_EQ(0, job_->start());
        // opens only together with the script
        int const fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_NE(-1, fd);
        job_->state(state);
        ASSERT_EQ(3, write(fd, "go\n", 3));
        close(fd);
        ASSERT_TRUE(jobs_.wait_for_finished());
    }
};

TEST_F(Pre_Action_State_Test, a_cancel_during_the_pre_action_takes_effect_after_it) {
    run_with(JOB_STATE_CANCELING, 0);
    EXPECT_EQ(JOB_STATE_CANCELED, job_->state());
    EXPECT_EQ((Texts{"made", "active?", "condition", "destroyed"}), play_.calls());
    EXPECT_EQ("ended canceled 0", jobs_.events()[jobs_.events().size() - 2]);
}

TEST_F(Pre_Action_State_Test, a_cancel_takes_effect_also_where_failures_are_ignored) {
    def_->ignore_pre_action_failure(true);
    run_with(JOB_STATE_CANCELING, 4);
    expect_script_failure();
    EXPECT_EQ(JOB_STATE_CANCELED, job_->state());
}

TEST_F(Pre_Action_State_Test, a_cancel_hides_why_the_pre_action_failed) {
    run_with(JOB_STATE_CANCELING, 4);
    expect_script_failure();
    EXPECT_EQ(JOB_STATE_CANCELED, job_->state());
}

TEST_F(Pre_Action_State_Test, any_other_state_after_the_pre_action_fails_the_run) {
    run_with(JOB_STATE_PAUSING, 0);
    EXPECT_EQ(JOB_STATE_ERROR, job_->state());
    EXPECT_EQ((Texts{"made", "active?", "condition", "destroyed"}), play_.calls());
}

// the work

TEST_F(Job_Executor_Test, failed_work_fails_the_run_without_the_post_action) {
    play_.execute = [](Job&, auto) { return false; };
    def_->post_action(step("post-action"));
    EXPECT_FALSE(execute());
    EXPECT_EQ("", steps());
    EXPECT_EQ((Texts{"state running", "state error", "ended error -1"}), jobs_.events());
    EXPECT_EQ("", job_->message());
}

TEST_F(Job_Executor_Test, failed_work_of_a_canceled_run_is_a_cancel) {
    play_.execute = [](Job& job, auto) {
        job.state(JOB_STATE_CANCELING);
        return false;
    };
    EXPECT_FALSE(execute());
    EXPECT_EQ((Texts{"state running", "state canceling", "state canceled", "ended canceled 0"}),
              jobs_.events());
}

TEST_F(Job_Executor_Test, work_that_succeeds_in_spite_of_a_cancel_is_a_success) {
    play_.execute = [](Job& job, auto) {
        job.state(JOB_STATE_CANCELING);
        return true;
    };
    EXPECT_TRUE(execute());
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
}

TEST_F(Job_Executor_Test, failed_work_of_an_aborted_run_is_a_failure) {
    play_.execute = [](Job& job, auto) {
        job.state(JOB_STATE_ABORTING);
        return false;
    };
    EXPECT_FALSE(execute());
    EXPECT_EQ(JOB_STATE_ERROR, job_->state());
    EXPECT_EQ("ended error -1", jobs_.events().back());
}

// post-action

TEST_F(Job_Executor_Test, the_job_is_completing_before_the_post_action) {
    def_->post_action(step("post-action"));
    jobs_.on_event([this](std::string const& event) {
        if (event == "state completing") {
            EXPECT_EQ("", steps());
        }
    });
    EXPECT_TRUE(execute());
    EXPECT_EQ("post-action\n", steps());
}

TEST_F(Job_Executor_Test, a_job_that_is_completing_already_is_not_told_so_again) {
    def_->post_action(step("post-action"));
    play_.execute = [](Job& job, auto) {
        job.state(JOB_STATE_COMPLETING);
        return true;
    };
    EXPECT_TRUE(execute());
    EXPECT_EQ((Texts{"state running", "state completing", "state completed", "ended completed 0"}),
              jobs_.events());
}

TEST_F(Job_Executor_Test, without_a_post_action_the_state_is_not_touched) {
    act().state = JOB_STATE_RUNNING;
    Test_Executor executor(*job_);
    EXPECT_TRUE(executor.execute_post_action());
    EXPECT_EQ(JOB_STATE_RUNNING, act().state);
    EXPECT_EQ(Texts(), jobs_.events());
}

TEST_F(Job_Executor_Test, a_failed_post_action_fails_the_run) {
    def_->post_action(step("post-action", 1));
    EXPECT_FALSE(execute());
    expect_script_failure();
    EXPECT_EQ((Texts{"state running", "state completing", "state error", "ended error -1"}),
              jobs_.events());
}

TEST_F(Job_Executor_Test, a_failed_post_action_can_be_ignored) {
    def_->post_action(step("post-action", 1));
    def_->ignore_post_action_failure(true);
    EXPECT_TRUE(execute());
    expect_script_failure();
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
}

TEST_F(Job_Executor_Test, the_post_action_of_a_canceled_run_that_succeeded_runs) {
    def_->post_action(step("post-action"));
    play_.execute = [](Job& job, auto) {
        job.state(JOB_STATE_CANCELING);
        return true;
    };
    EXPECT_TRUE(execute());
    EXPECT_EQ("post-action\n", steps());
    EXPECT_EQ(JOB_STATE_COMPLETED, job_->state());
}

TEST_F(Job_Executor_Test, with_run_always_failed_work_still_runs_the_post_action_and_stays_failed) {
    def_->run_post_action_always(true);
    play_.execute = [](Job&, auto) { return false; };
    for (int status : {0, 1}) {
        def_->post_action(step("post-action", status));
        jobs_.clear();
        EXPECT_FALSE(execute());
        EXPECT_EQ((Texts{"state running", "state completing", "state error", "ended error -1"}),
                  jobs_.events());
    }
    expect_script_failure();
    EXPECT_EQ("post-action\npost-action\n", steps());
}

TEST_F(Job_Executor_Test, with_run_always_a_failed_pre_action_still_runs_the_post_action) {
    def_->run_post_action_always(true);
    def_->pre_action(step("pre-action", 1));
    def_->post_action(step("post-action"));
    EXPECT_FALSE(execute());
    expect_script_failure();
    EXPECT_EQ("pre-action\npost-action\n", steps());
    EXPECT_EQ((Texts{"made", "active?", "condition", "destroyed"}), play_.calls());
    EXPECT_EQ("ended error -1", jobs_.events().back());
}

TEST_F(Job_Executor_Test,
       with_run_always_a_canceled_run_that_failed_ends_as_failed_after_its_post) {
    // the post-action has taken the state over
    def_->run_post_action_always(true);
    def_->post_action(step("post-action"));
    play_.execute = [](Job& job, auto) {
        job.state(JOB_STATE_CANCELING);
        return false;
    };
    EXPECT_FALSE(execute());
    EXPECT_EQ((Texts{"state running", "state canceling", "state completing", "state error",
                     "ended error -1"}),
              jobs_.events());
}

// the job's log

TEST_F(Job_Executor_Test, what_the_actions_print_reaches_the_jobs_log_but_not_the_precondition) {
    def_->precondition("echo from the precondition");
    def_->pre_action("echo from the pre-action");
    def_->post_action("echo from the post-action");
    play_.execute = [](Job&, auto) {
        QMRT_LOG(LM_INFO, "from the work\n");
        return true;
    };
    ASSERT_EQ(0, job_->start());
    ASSERT_TRUE(jobs_.wait_for_finished());
    std::string all;
    for (std::string const& line : jobs_.log_lines())
        all += line;
    EXPECT_NE(std::string::npos, all.find("from the pre-action"));
    EXPECT_NE(std::string::npos, all.find("from the work"));
    EXPECT_NE(std::string::npos, all.find("from the post-action"));
    EXPECT_EQ(std::string::npos, all.find("from the precondition"));
    EXPECT_LOGGED(LM_INFO, "from the precondition");
}

} // namespace
