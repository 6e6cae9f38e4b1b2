#ifndef TESTS_CONTRACT_JOB_CONTRACT_H
#define TESTS_CONTRACT_JOB_CONTRACT_H

#include "host/agent/host_services.h"
#include "host/job/job.h"
#include "host/job/job_alert.h"
#include "host/job/job_backend.h"
#include "host/job/job_event_handler.h"
#include "host/job/thread_log.h"
#include "qmrt/log.h"
#include "qmrt/uuid.h"
#include "tests/support/log_capture.h"

#include <functional>
#include <gtest/gtest.h>
#include <thread>

/** A back end under test, with what it has kept of all jobs: how, is its own. */
struct Job_Backend_Subject {
    std::shared_ptr<Job_Backend> backend;
    std::function<Job_State(std::string const& run_id)> last_state;
    std::function<std::vector<Job_Outcome>(std::string const& run_id)> outcomes;
    std::function<std::vector<Job_Alert>(std::string const& run_id)> alerts;
    std::function<std::vector<std::string>(std::string const& run_id)> log_lines;
};

/**
 * What every keeper of runs promises; Job_Backend's comments say it in words. To run it:
 *
 *     INSTANTIATE_TEST_SUITE_P(Mine, Job_Contract, testing::Values([] { return Subject{...}; }));
 */
using Job_Backend_Maker = std::function<Job_Backend_Subject()>;

class Job_Contract : public testing::TestWithParam<Job_Backend_Maker> {
protected:
    using Steps = std::function<void(Job& job, Job_Event_Handler& events)>;

    /** Runs its steps on a thread of its own. */
    class Contract_Job : public Job {
    public:
        Contract_Job(Job_Definition_var definition, Steps steps)
            : Job(definition), steps_(std::move(steps)) {}
        void join() { thread_.join(); }

    protected:
        int start_i(Action_Options const* options) override {
            thread_ = std::thread([this, options] { run_i(options); });
            return 0;
        }
        int run_i(Action_Options const*) override {
            set_job_thread();
            Job_Event_Handler events(*this);
            events.handle_start_job();
            steps_(*this, events);
            complete();
            return 0;
        }

    private:
        Steps const steps_;
        std::thread thread_;
    };

    void SetUp() override { Host_Services::instance().jobs(subject_.backend); }
    void TearDown() override { Host_Services::instance().jobs(nullptr); }

    /** Runs a job with these steps and returns the run's id. */
    std::string run(Steps steps) {
        Contract_Job* const job = new Contract_Job(definition_, std::move(steps));
        Job_var const holder(job, false);
        EXPECT_EQ(0, job->start());
        job->join();
        return job->run_id();
    }
    static Job_Definition_var make_definition() {
        Job_Definition_var definition(new Job_Definition);
        definition->id(uuid_string());
        definition->name("contract");
        return definition;
    }

    Job_Backend_Subject const subject_ = GetParam()();
    Job_Definition_var const definition_ = make_definition();
};

TEST_P(Job_Contract, every_run_has_a_uuid_of_its_own) {
    auto const succeed = [](Job&, Job_Event_Handler& events) { events.handle_success(); };
    std::string const first = run(succeed);
    std::string const second = run(succeed);
    uuid_binary binary;
    EXPECT_TRUE(uuid_string_to_binary(first, binary));
    EXPECT_NE(first, second);
}

TEST_P(Job_Contract, keeps_a_success) {
    std::string const id = run([](Job&, Job_Event_Handler& events) {
        events.handle_progress(50, 1, 2, 3);
        events.handle_success();
    });
    EXPECT_EQ(JOB_STATE_COMPLETED, subject_.last_state(id));
    ASSERT_EQ(1u, subject_.outcomes(id).size());
    EXPECT_EQ(JOB_STATE_COMPLETED, subject_.outcomes(id)[0].state);
    EXPECT_EQ(0, subject_.outcomes(id)[0].code);
}

TEST_P(Job_Contract, keeps_a_failure_with_code_and_message) {
    std::string const id = run(
        [](Job&, Job_Event_Handler& events) { events.handle_failure(-1, "it's %s", "broken"); });
    EXPECT_EQ(JOB_STATE_ERROR, subject_.last_state(id));
    ASSERT_EQ(1u, subject_.outcomes(id).size());
    EXPECT_EQ(-1, subject_.outcomes(id)[0].code);
    EXPECT_EQ("it's broken", subject_.outcomes(id)[0].message);
}

TEST_P(Job_Contract, keeps_a_cancel) {
    std::string const id = run([](Job&, Job_Event_Handler& events) { events.handle_canceled(); });
    EXPECT_EQ(JOB_STATE_CANCELED, subject_.last_state(id));
    EXPECT_EQ(1u, subject_.outcomes(id).size());
}

TEST_P(Job_Contract, keeps_the_failure_of_a_run_that_told_no_outcome) {
    std::string const id = run([](Job&, Job_Event_Handler&) {});
    EXPECT_EQ(JOB_STATE_ERROR, subject_.last_state(id));
    EXPECT_EQ(1u, subject_.outcomes(id).size());
}

TEST_P(Job_Contract, keeps_alerts_by_their_run) {
    std::string const quiet = run([](Job&, Job_Event_Handler& events) { events.handle_success(); });
    std::string const loud = run([](Job& job, Job_Event_Handler& events) {
        write_job_alert(&job, 7, 3, 0, json_spirit::Value::null, 1);
        events.handle_failure(-1, nullptr);
    });
    EXPECT_TRUE(subject_.alerts(quiet).empty());
    ASSERT_EQ(1u, subject_.alerts(loud).size());
    Job_Alert const alert = subject_.alerts(loud)[0];
    EXPECT_EQ(7u, alert.level);
    EXPECT_EQ(3u, alert.code);
    EXPECT_EQ(1, alert.count);
    EXPECT_EQ(job_alert_text(7, 3), alert.text);
}

TEST_P(Job_Contract, takes_lines_of_several_threads_into_the_runs_log) {
    QMRT_LOG(LM_INFO, "before the run\n");
    std::string const id = run([](Job& job, Job_Event_Handler& events) {
        QMRT_LOG(LM_INFO, "of the job thread\n");
        std::thread side([&] {
            log_this_thread_to(job.log_msg_callback());
            QMRT_LOG(LM_INFO, "of a side thread\n");
        });
        for (int line = 0; line < 100; ++line)
            QMRT_LOG(LM_DEBUG, "meanwhile\n");
        side.join();
        events.handle_success();
    });
    QMRT_LOG(LM_INFO, "after the run\n");
    std::string all;
    for (std::string const& line : subject_.log_lines(id))
        all += line;
    EXPECT_NE(std::string::npos, all.find("of the job thread"));
    EXPECT_NE(std::string::npos, all.find("of a side thread"));
    EXPECT_EQ(std::string::npos, all.find("before the run"));
    EXPECT_EQ(std::string::npos, all.find("after the run"));
}

#endif
