#include "agent/jobs/agent_jobs.h"

#include "agent/jobs/definition_store.h"
#include "host/agent/host_services.h"
#include "host/job/job_alert.h"
#include "json_spirit/access.h"
#include "qmrt/uuid.h"
#include "tests/support/virtual_clock.h"
#include "tests/unit/agent/jobs/jobs_fixture.h"
#include "tests/unit/agent/jobs/stepped_job.h"

#include <ace/Thread_Manager.h>

namespace {

class Agent_Jobs_Test : public Jobs_Fixture {
protected:
    void SetUp() override {
        Jobs_Fixture::SetUp();
        make(100);
    }
    void TearDown() override {
        ACE_Thread_Manager::instance()->wait();
        Host_Services::instance().jobs(nullptr);
    }
    void make(size_t keep_runs) {
        jobs_ = std::make_shared<Agent_Jobs>(
            *database_, Agent_Jobs::Settings{directory_.path("logs"), keep_runs}, clock_);
        Host_Services::instance().jobs(jobs_);
    }
    Job_var job(Job_Steps steps, std::string const& id = RESOURCE) {
        Job_Definition_var definition(new Job_Definition);
        definition->id(id);
        definition->name("nightly");
        definition->type(JOB_DEFINITION_BACKUP);
        definition->subtype(JOB_DEFINITION_SUBTYPE_FULL);
        return Job_var(new Stepped_Job(definition, std::move(steps), &removals_), false);
    }
    /** Runs the steps to their end. */
    std::string run(Job_Steps steps, std::string const& id = RESOURCE) {
        Job_var const made = job(std::move(steps), id);
        EXPECT_EQ(0, made->start());
        EXPECT_TRUE(jobs_->wait_for_finished([&] { return !made->running(); }, 60));
        ACE_Thread_Manager::instance()->wait();
        return made->run_id();
    }
    Job_Run found(std::string const& id) {
        Job_Run run;
        EXPECT_TRUE(jobs_->find(id, run)) << id;
        return run;
    }
    /** What the database has of a run, however far it is by now. */
    Job_Run written(std::string const& id) {
        Job_Run run;
        EXPECT_TRUE(Run_Store(*database_).find(id, run)) << id;
        return run;
    }
    void execute(char const* sql) {
        ASSERT_TRUE(database_->change("break", [&](SQLite::Database& database) {
            database.exec(sql);
            return true;
        }));
    }
    static void succeed(Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        events.handle_success();
    }

    Virtual_Clock clock_;
    std::shared_ptr<Agent_Jobs> jobs_;
    std::atomic<int> removals_ = 0;
};

TEST_F(Agent_Jobs_Test, keeps_all_that_a_run_tells) {
    ASSERT_TRUE(
        Definition_Store(*database_)
            .save(normal(backup("nightly", std::string(R"(,"id":")") + RESOURCE + "\"")), 1));
    std::string const id = run([&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        events.handle_progress(40, 10, 20, 30);
        clock_.sleep_ns(5 * NS_PER_SECOND);
        job.activity().set_size = 99;
        events.handle_success();
    });
    Job_Run const run = found(id);
    EXPECT_EQ(RESOURCE, run.definition);
    EXPECT_EQ("nightly", run.name);
    EXPECT_EQ("backup", run.type);
    EXPECT_EQ("full", run.subtype);
    EXPECT_EQ("production", run.instance);
    EXPECT_EQ(JOB_STATE_COMPLETED, run.state);
    EXPECT_EQ(100, run.percent);
    EXPECT_EQ(10u, run.processed_size);
    EXPECT_EQ(20u, run.total_size);
    EXPECT_EQ(30u, run.speed);
    EXPECT_EQ(99u, run.set_size);
    EXPECT_EQ(5, run.end_time - run.start_time);
}

TEST_F(Agent_Jobs_Test, a_job_that_tells_percents_only_has_its_size_in_the_end) {
    auto const end_as = [&](bool success) {
        return run([&](Job& job, Job_Event_Handler& events) {
            events.handle_start_job();
            events.handle_progress(40, 0, 0, 0);
            job.activity().size = 77;
            if (success)
                events.handle_success();
            else
                events.handle_failure(-1, "it broke");
        });
    };
    EXPECT_EQ(77u, found(end_as(true)).processed_size);
    EXPECT_EQ(0u, found(end_as(false)).processed_size);
}

TEST_F(Agent_Jobs_Test, the_record_outlives_the_process) {
    std::string const id = run([](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        write_job_alert(&job, 7, 3, 0, json_spirit::Value::null, 1);
        events.handle_failure(-1, "it broke");
    });
    Host_Services::instance().jobs(nullptr);
    jobs_.reset();
    reopen();
    make(100);
    ASSERT_TRUE(jobs_->recover());
    Job_Run const run = found(id);
    EXPECT_EQ(JOB_STATE_ERROR, run.state);
    EXPECT_EQ(-1, run.code);
    EXPECT_EQ("it broke", run.message);
    EXPECT_EQ(1, run.alerts);
}

TEST_F(Agent_Jobs_Test, a_run_that_fails_without_a_reason_has_that_of_its_last_lines) {
    auto const message_of = [&](std::function<void()> const& lines) {
        return found(run([&](Job&, Job_Event_Handler& events) {
                   events.handle_start_job();
                   lines();
                   events.handle_failure(-1, nullptr);
               }))
            .message;
    };
    EXPECT_EQ("it failed: no space left", message_of([] {
                  QMRT_LOG(LM_WARNING, "the first\n");
                  QMRT_LOG(LM_INFO, "note\n");
                  QMRT_LOG(LM_WARNING,
                           "the tool exited, its last lines:\ntrace\nno space left\n\n");
                  QMRT_LOG(LM_ERROR, "it failed\n");
                  QMRT_LOG(LM_INFO, "note\n");
              }));
    EXPECT_LOGGED(LM_WARNING, "the first");
    EXPECT_LOGGED(LM_WARNING, "the tool exited");
    EXPECT_LOGGED(LM_ERROR, "it failed");
    EXPECT_EQ("", message_of([] { QMRT_LOG(LM_INFO, "note\n"); }));
}

TEST_F(Agent_Jobs_Test, what_a_run_is_doing_and_how_long_it_will_take) {
    // the last full backup had 4000 bytes
    run([&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        job.activity().set_size = 4000;
        events.handle_success();
    });
    Gate gate;
    Job_var const slow = job([&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        job.phase("sending files");
        clock_.sleep_ns(10 * NS_PER_SECOND);
        jobs_->stored(job.run_id(), 1000);
        events.handle_progress(25, 0, 0, 0);
        gate.pass(job);
        events.handle_success();
    });
    ASSERT_EQ(0, slow->start());
    ASSERT_TRUE(gate.wait_for_arrivals(1));
    Job_Run const now = found(slow->run_id());
    EXPECT_EQ("sending files", now.phase);
    EXPECT_EQ(4000U, now.expected_size);
    EXPECT_EQ(1000U, now.processed_size);
    EXPECT_EQ(10, now.elapsed);
    EXPECT_EQ(30, now.remaining);
    EXPECT_EQ(100U, now.average_speed);
    EXPECT_EQ(100U, now.speed);
    EXPECT_EQ(Agent_Jobs::NOTHING_NEW, jobs_->change_since(now.run_id, now.revision));
    EXPECT_EQ(Agent_Jobs::NEW_NUMBERS, jobs_->change_since(now.run_id, now.revision - 1));
    EXPECT_EQ(Agent_Jobs::NEW_STATE, jobs_->change_since(now.run_id, 0));
    gate.open();
    ASSERT_TRUE(jobs_->wait_for_finished([&] { return !slow->running(); }, 60));
    Job_Run const over = found(slow->run_id());
    EXPECT_EQ("", over.phase);
    EXPECT_EQ(10, over.elapsed);
    EXPECT_EQ(-1, over.remaining);
    EXPECT_EQ(Agent_Jobs::OVER, jobs_->change_since(over.run_id, now.revision));
}

TEST_F(Agent_Jobs_Test, what_a_run_waits_for_is_no_work) {
    Gate gate;
    Job_var const waits = job([&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        jobs_->waiting(job, "job 7");
        clock_.sleep_ns(100 * NS_PER_SECOND);
        jobs_->waiting(job, "");
        clock_.sleep_ns(10 * NS_PER_SECOND);
        events.handle_progress(50, 5000, 10000, 0);
        gate.pass(job);
        events.handle_success();
    });
    ASSERT_EQ(0, waits->start());
    ASSERT_TRUE(gate.wait_for_arrivals(1));
    Job_Run const now = found(waits->run_id());
    EXPECT_EQ(110, now.elapsed);
    EXPECT_EQ(10, now.remaining);
    EXPECT_EQ(500U, now.average_speed);
    gate.open();
    ASSERT_TRUE(jobs_->wait_for_finished([&] { return !waits->running(); }, 60));
}

TEST_F(Agent_Jobs_Test, a_run_that_is_canceled_says_what_it_has_left) {
    std::string const id = run([&](Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        QMRT_LOG(LM_ERROR, "the instance is down\n");
        events.handle_canceled();
    });
    EXPECT_LOGGED(LM_ERROR, "the instance is down");
    EXPECT_EQ(JOB_STATE_CANCELED, found(id).state);
    EXPECT_EQ("the instance is down", found(id).message);
}

TEST_F(Agent_Jobs_Test, progress_is_shown_at_once_and_written_once_a_second) {
    Gate gate;
    int writes = -1;
    auto const changes = [&] {
        int count = 0;
        database_->read("count", [&](SQLite::Database& database) {
            count = database.getTotalChanges();
            return true;
        });
        return count;
    };
    Job_var const made = job([&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        int const before = changes();
        for (int percent = 1; percent <= 50; ++percent) {
            clock_.sleep_ns(NS_PER_SECOND / 10);
            events.handle_progress(percent, static_cast<unsigned long>(percent), 50, 10);
        }
        writes = changes() - before;
        gate.pass(job);
        events.handle_success();
    });
    ASSERT_EQ(0, made->start());
    ASSERT_TRUE(gate.wait_for_arrivals(1));
    EXPECT_EQ(5, writes);
    EXPECT_EQ(50, found(made->run_id()).percent);
    EXPECT_EQ(50u, found(made->run_id()).processed_size);
    EXPECT_EQ(JOB_STATE_RUNNING, found(made->run_id()).state);
    gate.open();
    ASSERT_TRUE(jobs_->wait_for_finished([&] { return !made->running(); }, 60));
    EXPECT_EQ(50u, written(made->run_id()).processed_size) << "the end writes what is not yet";
}

TEST_F(Agent_Jobs_Test, a_counter_of_0_says_nothing_and_a_percentage_is_one) {
    Job_Run run_then;
    std::string const id = run([&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        events.handle_progress(-5, 7, 8, 9);
        events.handle_progress(1000, 0, 0, 0);
        run_then = found(job.run_id());
        events.handle_progress(-5, 0, 0, 0);
        events.handle_failure(-1, nullptr);
    });
    EXPECT_EQ(100, run_then.percent);
    EXPECT_EQ(7u, run_then.processed_size);
    EXPECT_EQ(8u, run_then.total_size);
    EXPECT_EQ(9u, run_then.speed);
    EXPECT_EQ(0, found(id).percent);
}

TEST_F(Agent_Jobs_Test, sizes_beyond_the_databases_numbers_are_its_largest) {
    std::string const id = run([](Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        events.handle_progress(1, ~0ul, 1, 1);
        events.handle_success();
    });
    EXPECT_EQ(uint64_t{1} << 63, written(id).processed_size + 1);
}

TEST_F(Agent_Jobs_Test, a_run_whose_record_cannot_be_written_does_not_start) {
    execute("DROP TABLE job_runs");
    std::string refusal;
    EXPECT_EQ(-1, job(succeed)->start(nullptr, &refusal));
    EXPECT_NE(std::string::npos, refusal.find("no run id"));
    EXPECT_LOGGED(LM_ERROR, "could not add a run");
    EXPECT_LOGGED(LM_WARNING, "cannot be started");
}

TEST_F(Agent_Jobs_Test, a_database_that_fails_later_disturbs_no_run) {
    Gate gate;
    Job_var const made = job(steps_through(gate));
    ASSERT_EQ(0, made->start());
    ASSERT_TRUE(gate.wait_for_arrivals(1));
    execute("DROP TABLE job_runs");
    gate.open();
    ASSERT_TRUE(jobs_->wait_for_finished([&] { return !made->running(); }, 60));
    EXPECT_EQ(JOB_STATE_COMPLETED, made->state());
    EXPECT_LE(1u, Log_Capture::instance().claim_all(LM_ERROR, "could not update a run"));
    ACE_Thread_Manager::instance()->wait();
    Log_Capture::instance().claim_all(LM_ERROR, "could not");
}

TEST_F(Agent_Jobs_Test, a_run_that_could_not_begin_is_on_record_as_that) {
    class Unready_Job : public Job {
    public:
        using Job::Job; // start_i() refuses
    };
    Job_Definition_var definition(new Job_Definition);
    definition->id(RESOURCE);
    Job_var const made(new Unready_Job(definition), false);
    EXPECT_EQ(-1, made->start());
    EXPECT_LOGGED(LM_WARNING, "its run could not begin");
    std::vector<Job_Run> runs;
    ASSERT_TRUE(jobs_->list({}, runs));
    ASSERT_EQ(1u, runs.size());
    EXPECT_EQ(JOB_STATE_ERROR, runs[0].state);
    EXPECT_EQ("The run could not begin", runs[0].message);
    EXPECT_NE(0, runs[0].end_time);
}

TEST_F(Agent_Jobs_Test, a_run_without_an_outcome_that_never_began_has_failed_as_such) {
    std::string const id = run([](Job&, Job_Event_Handler&) {});
    EXPECT_EQ("The run ended without an outcome", found(id).message);
}

TEST_F(Agent_Jobs_Test, a_run_that_stayed_away_is_skipped) {
    std::string const elsewhere =
        run([](Job& job, Job_Event_Handler&) { job.activity().state = JOB_STATE_SKIPPED; });
    EXPECT_EQ(JOB_STATE_SKIPPED, found(elsewhere).state);
    EXPECT_EQ("It was not this host's to run", found(elsewhere).message);
    std::string const unmet = run([](Job& job, Job_Event_Handler&) {
        job.activity().state = JOB_STATE_IDLE;
        job.sync(nullptr);
    });
    EXPECT_EQ(JOB_STATE_SKIPPED, found(unmet).state);
    EXPECT_EQ("Its precondition was not met", found(unmet).message);
    EXPECT_NE(0, found(unmet).end_time);
}

TEST_F(Agent_Jobs_Test, a_skip_that_no_other_host_makes_up_for_is_an_error) {
    std::string fault = "nobody runs it";
    std::string asked = "not asked";
    jobs_->judge_skips([&](std::string const& instance) {
        asked = instance;
        return fault;
    });
    ASSERT_TRUE(
        Definition_Store(*database_)
            .save(normal(backup("nightly", std::string(R"(,"id":")") + RESOURCE + "\"")), 1));
    auto const skip = [](Job& job, Job_Event_Handler&) {
        job.activity().state = JOB_STATE_SKIPPED;
    };
    std::string const failed = run(skip);
    EXPECT_EQ("production", asked);
    EXPECT_EQ(JOB_STATE_ERROR, found(failed).state);
    EXPECT_EQ(-1, found(failed).code);
    EXPECT_EQ("nobody runs it", found(failed).message);
    EXPECT_EQ(1, found(failed).alerts);
    EXPECT_LOGGED(LM_ERROR, "The run was skipped: nobody runs it");
    fault.clear();
    std::string const right = run(skip);
    EXPECT_EQ(JOB_STATE_SKIPPED, found(right).state);
    EXPECT_EQ(0, found(right).alerts);
    asked = "not asked";
    run([](Job& job, Job_Event_Handler&) { job.activity().state = JOB_STATE_IDLE; });
    run(succeed);
    EXPECT_EQ("not asked", asked);
}

TEST_F(Agent_Jobs_Test, a_run_says_what_it_waits_for_while_it_is_on) {
    std::string during;
    std::string const id = run([&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        jobs_->waits_for(job.run_id(), "the end of job other");
        during = found(job.run_id()).waiting_for;
        jobs_->waits_for(job.run_id(), "");
        events.handle_success();
    });
    EXPECT_EQ("the end of job other", during);
    EXPECT_EQ("", found(id).waiting_for);
    jobs_->waits_for(id, "too late");
    EXPECT_EQ("", found(id).waiting_for);
    jobs_->end_unstarted(id, {JOB_STATE_ERROR, -1, "too late"});
    EXPECT_EQ(JOB_STATE_COMPLETED, found(id).state);
}

TEST_F(Agent_Jobs_Test, only_the_newest_runs_of_a_definition_are_kept_with_their_logs) {
    make(3);
    auto const log = [](Job& job, Job_Event_Handler& events) {
        QMRT_LOG(LM_INFO, "a line\n");
        succeed(job, events);
    };
    for (char const* name : {"a", "b"})
        ASSERT_TRUE(Definition_Store(*database_)
                        .save(normal(backup(name, std::string(R"(,"id":")") +
                                                      (*name == 'a' ? RESOURCE : OWNER) + "\"")),
                              1));
    std::vector<std::string> ids;
    for (int count = 0; count < 5; ++count)
        ids.push_back(run(log));
    std::string const other = run(log, OWNER);
    std::vector<Job_Run> runs;
    ASSERT_TRUE(jobs_->list({}, runs));
    ASSERT_EQ(4u, runs.size());
    EXPECT_EQ(other, runs[0].run_id);
    EXPECT_EQ(ids[4], runs[1].run_id);
    EXPECT_EQ(ids[2], runs[3].run_id);
    EXPECT_FALSE(directory_.exists("logs/" + ids[1] + ".log"));
    EXPECT_TRUE(directory_.exists("logs/" + ids[2] + ".log"));
}

TEST_F(Agent_Jobs_Test, runs_of_definitions_that_are_gone_are_kept_as_one_lot) {
    make(2);
    std::string const first = run(succeed, uuid_string());
    run(succeed, uuid_string());
    run(succeed, uuid_string());
    Job_Run run;
    EXPECT_EQ(Job_Answer::NOT_FOUND, jobs_->find(first, run).kind);
}

TEST_F(Agent_Jobs_Test, a_run_that_is_on_is_never_old) {
    make(1);
    Gate gate;
    Job_var const made = job(steps_through(gate), uuid_string());
    ASSERT_EQ(0, made->start());
    ASSERT_TRUE(gate.wait_for_arrivals(1));
    for (int count = 0; count < 2; ++count) {
        Job_var const other = job(succeed, uuid_string());
        ASSERT_EQ(0, other->start());
        ASSERT_TRUE(jobs_->wait_for_finished([&] { return !other->running(); }, 60));
    }
    EXPECT_EQ(JOB_STATE_RUNNING, found(made->run_id()).state);
    gate.open();
    ASSERT_TRUE(jobs_->wait_for_finished([&] { return !made->running(); }, 60));
}

TEST_F(Agent_Jobs_Test, what_was_on_when_the_agent_ended_has_failed) {
    Gate gate;
    Job_var const made = job(steps_through(gate));
    ASSERT_EQ(0, made->start());
    ASSERT_TRUE(gate.wait_for_arrivals(1));
    directory_.write("logs/" + std::string(POOL) + ".log", "of no run");
    {
        // the next process finds the same files
        Agent_Jobs next(*database_, {directory_.path("logs")}, clock_);
        ASSERT_TRUE(next.recover());
        Job_Run run;
        ASSERT_TRUE(next.find(made->run_id(), run));
        EXPECT_EQ(JOB_STATE_ERROR, run.state);
        EXPECT_EQ("the agent ended while the job was running", run.message);
        EXPECT_EQ(1, run.alerts);
        EXPECT_EQ(-1, run.code);
        EXPECT_NE(0, run.end_time);
        EXPECT_FALSE(directory_.exists("logs/" + std::string(POOL) + ".log"));
        EXPECT_LOGGED(LM_WARNING, "1 jobs were running when the agent ended");
    }
    gate.open();
    ASSERT_TRUE(jobs_->wait_for_finished([&] { return !made->running(); }, 60));
}

TEST_F(Agent_Jobs_Test, lists_by_definition_instance_state_and_number) {
    std::string const good = run(succeed, OWNER);
    std::string const bad = run(
        [](Job&, Job_Event_Handler& events) {
            events.handle_start_job();
            events.handle_failure(5, "x");
        },
        POOL);
    auto const list = [&](Run_Query const& query) {
        std::vector<Job_Run> runs;
        EXPECT_TRUE(jobs_->list(query, runs));
        std::string ids;
        for (Job_Run const& run : runs)
            ids += run.run_id + " ";
        return ids;
    };
    EXPECT_EQ(bad + " " + good + " ", list({}));
    EXPECT_EQ(bad + " " + good + " ", list({"nightly", "", "", 100}));
    EXPECT_EQ(good + " ", list({OWNER, "", "", 100}));
    EXPECT_EQ("", list({"", "production", "", 100}));
    EXPECT_EQ(bad + " ", list({"", "", "error", 100}));
    EXPECT_EQ(bad + " ", list({"", "", "", 1}));
    std::vector<Job_Run> runs;
    EXPECT_EQ(Job_Answer::INVALID, jobs_->list({"", "", "broken", 100}, runs).kind);
}

TEST_F(Agent_Jobs_Test, a_run_is_found_by_a_beginning_that_is_its_own) {
    std::string const id = run(succeed);
    EXPECT_EQ(id, found(id.substr(0, 8)).run_id);
    std::string upper = id;
    for (char& c : upper)
        c = static_cast<char>(toupper(c));
    EXPECT_EQ(id, found(upper).run_id);
    Job_Run run_found;
    for (std::string const& text : {std::string(), std::string("*"), std::string("g"),
                                    std::string("[0-9]*"), id + "0", std::string(1 << 16, '0')})
        EXPECT_EQ(Job_Answer::NOT_FOUND, jobs_->find(text, run_found).kind);
}

TEST_F(Agent_Jobs_Test, a_beginning_of_several_runs_is_not_enough) {
    Run_Store store(*database_);
    for (char const* id :
         {"aaaa0000-0000-4000-8000-000000000000", "aaaa1111-0000-4000-8000-000000000000"}) {
        Job_Run run;
        run.run_id = id;
        ASSERT_TRUE(store.add(run));
    }
    Job_Run run;
    EXPECT_EQ(Job_Answer::INVALID, jobs_->find("aaaa", run).kind);
    EXPECT_TRUE(jobs_->find("aaaa1", run));
}

TEST_F(Agent_Jobs_Test, the_last_run_of_a_definition_is_known) {
    Job_Run run_found;
    EXPECT_EQ(Job_Answer::NOT_FOUND, jobs_->last(RESOURCE, run_found).kind);
    run(succeed);
    std::string const second = run(succeed);
    ASSERT_TRUE(jobs_->last(RESOURCE, run_found));
    EXPECT_EQ(second, run_found.run_id);
}

TEST_F(Agent_Jobs_Test, an_alert_says_what_when_and_how_often) {
    std::string const id = run([](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        json_spirit::Object const detail =
            json_spirit::Object_Maker()("key", json_spirit::Value(secure_string("secret")));
        write_job_alert(&job, 5, 5, 8, detail, 3);
        events.handle_success();
    });
    std::vector<Run_Alert> alerts;
    ASSERT_TRUE(jobs_->alerts(id, alerts));
    ASSERT_EQ(1u, alerts.size());
    EXPECT_EQ(clock_.now(), alerts[0].time);
    EXPECT_EQ(8u, alerts[0].alert.detail_code);
    EXPECT_EQ("{\"key\":\"******\"}", JSON_Dump(alerts[0].alert.detail).str());
    EXPECT_EQ(json(R"({"level":5,"code":5,"count":3,"time":)" + std::to_string(clock_.now()) +
                   R"(,"text":")" + job_alert_text(5, 5) + R"(","advice":")" +
                   job_alert_advice(5, 5) + "\"}"),
              alert_to_json(alerts[0], {}));
}

TEST_F(Agent_Jobs_Test, the_advice_of_an_alert_names_the_run_and_its_instance) {
    Job_Run run;
    run.run_id = "0f3a-1";
    auto const advice = [&](unsigned long code) {
        return json_spirit::object_get_str(
            alert_to_json({{7, code, 0, json_spirit::Value::null, 1, ""}, 0}, run), "advice");
    };
    EXPECT_THAT(advice(100), testing::HasSubstr("`zenbrak3 job log 0f3a-1`"));
    EXPECT_THAT(advice(114),
                testing::HasSubstr("`zenbrak3 backup INSTANCE --pool POOL --level full`"));
    run.instance = "prod";
    EXPECT_THAT(advice(114), testing::HasSubstr("`zenbrak3 backup prod --pool POOL --level full`"));
}

TEST_F(Agent_Jobs_Test, a_failure_that_is_only_logged_has_an_alert_of_its_line) {
    std::string const id = run([](Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        QMRT_LOG(LM_WARNING, "GaussRoach.py: no space left\n");
        QMRT_LOG(LM_ERROR, "Failed to backup gaussdb data\n");
        events.handle_failure(-1, nullptr);
    });
    EXPECT_LOGGED(LM_WARNING, "no space left");
    EXPECT_LOGGED(LM_ERROR, "Failed to backup gaussdb data");
    EXPECT_EQ(1, found(id).alerts);
    std::vector<Run_Alert> alerts;
    ASSERT_TRUE(jobs_->alerts(id, alerts));
    EXPECT_EQ(103u, alerts.at(0).alert.code);
    EXPECT_EQ(job_alert_text(7, 103) +
                  ": Failed to backup gaussdb data: GaussRoach.py: no space left",
              alerts.at(0).alert.text);
}

TEST_F(Agent_Jobs_Test, every_failed_run_has_an_alert_and_no_second_one) {
    std::string const unknown = run([](Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        QMRT_LOG(LM_ERROR, "Something new\n");
        events.handle_failure(-1, nullptr);
    });
    EXPECT_LOGGED(LM_ERROR, "Something new");
    std::vector<Run_Alert> alerts;
    ASSERT_TRUE(jobs_->alerts(unknown, alerts));
    ASSERT_EQ(1u, alerts.size());
    EXPECT_EQ(job_alert_text(7, ALERT_RUN_FAILED) + ": Something new", alerts[0].alert.text);

    std::string const raised = run([](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        QMRT_LOG(LM_ERROR, "Failed to backup gaussdb data\n");
        write_job_alert(&job, 7, 9, 0, json_spirit::Value::null, 1);
        events.handle_failure(-1, nullptr);
    });
    EXPECT_LOGGED(LM_ERROR, "Failed to backup gaussdb data");
    EXPECT_EQ(1, found(raised).alerts) << "the job has told it";

    std::string const right = run([](Job& job, Job_Event_Handler& events) {
        QMRT_LOG(LM_ERROR, "Failed to connect to storage server, once\n");
        succeed(job, events);
    });
    EXPECT_LOGGED(LM_ERROR, "Failed to connect");
    EXPECT_EQ(0, found(right).alerts) << "a run that completed has no failure";
}

TEST_F(Agent_Jobs_Test, a_run_that_became_full_says_so) {
    std::string const id = run([](Job& job, Job_Event_Handler& events) {
        QMRT_LOG(LM_INFO, "Do full backup because prior backup key not found\n");
        QMRT_LOG(LM_INFO, "Do full backup because prior backup key not found\n");
        succeed(job, events);
    });
    EXPECT_EQ(1, found(id).alerts);
    EXPECT_EQ(json_spirit::Value("full"), run_to_json(found(id)).at("level"));
    std::string const raised = run([](Job& job, Job_Event_Handler& events) {
        write_job_alert(&job, 5, 5, 0, json_spirit::Value::null, 1);
        QMRT_LOG(LM_INFO, "Do full backup because prior backup not found\n");
        QMRT_LOG(LM_INFO, "Do full backup because prior backup key not found\n");
        succeed(job, events);
    });
    EXPECT_EQ(1, found(raised).alerts) << "the module has told it";
    EXPECT_EQ(json_spirit::Value("full"), run_to_json(found(raised)).at("level"));
    std::string const tool = run([](Job& job, Job_Event_Handler& events) {
        QMRT_LOG(LM_INFO, "tool: Do full backup because prior backup key not found\n");
        succeed(job, events);
    });
    EXPECT_EQ(0, found(tool).alerts) << "a tool's own words";
}

TEST_F(Agent_Jobs_Test, an_alert_without_a_run_is_told_to_the_agents_log) {
    Job_var const made = job(succeed);
    write_job_alert(made.get(), 5, 5, 0, json_spirit::Value::null, 1);
    EXPECT_LOGGED(LM_ERROR, "could not add an alert");
    EXPECT_EQ(nullptr, made->log_msg_callback());
}

TEST_F(Agent_Jobs_Test, the_log_is_read_from_where_one_left_off) {
    std::string const id = run([](Job& job, Job_Event_Handler& events) {
        QMRT_LOG(LM_INFO, "first\n");
        QMRT_LOG(LM_INFO, "second\n");
        succeed(job, events);
    });
    Run_Log_Piece piece;
    ASSERT_TRUE(jobs_->read_log(id, 0, 40, piece));
    EXPECT_NE(std::string::npos, piece.text.find("first\n"));
    EXPECT_EQ(std::string::npos, piece.text.find("second"));
    ASSERT_TRUE(jobs_->read_log(id, piece.next_offset, 1000, piece));
    EXPECT_NE(std::string::npos, piece.text.find("second\n"));
    EXPECT_EQ(Job_Answer::NOT_FOUND, jobs_->read_log("../../etc/passwd", 0, 1, piece).kind);
}

TEST_F(Agent_Jobs_Test, tells_when_a_run_has_finished) {
    std::atomic<int> count = 0;
    jobs_->on_finished([&] { ++count; });
    jobs_->on_finished([&] { ++count; });
    run(succeed);
    EXPECT_EQ(2, count);
    EXPECT_FALSE(jobs_->wait_for_finished([] { return false; }, 0));
}

TEST_F(Agent_Jobs_Test, tells_of_runs_that_did_not_succeed) {
    std::vector<std::string> failed;
    jobs_->on_failed([&](std::string const& run_id) { failed.push_back(run_id); });
    run(succeed);
    std::string const run_id = run([](Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        events.handle_failure(-1, "it broke");
    });
    std::string const canceled = run([](Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        events.handle_canceled();
    });
    EXPECT_EQ((std::vector<std::string>{run_id, canceled}), failed);
}

TEST_F(Agent_Jobs_Test, a_run_as_JSON_has_every_member) {
    Job_Run run;
    run.run_id = "r";
    run.state = JOB_STATE_COMPLETED_WITH_ERRORS;
    json_spirit::Object const object = run_to_json(run);
    for (char const* key : {"run_id", "definition", "name", "type", "subtype", "instance", "state",
                            "code", "message", "percent", "processed_size", "total_size", "speed",
                            "set_size", "start_time", "end_time", "alerts"})
        EXPECT_TRUE(object.count(key)) << key;
    EXPECT_EQ("completed with errors", json_spirit::object_get_str(object, "state"));
}

} // namespace
