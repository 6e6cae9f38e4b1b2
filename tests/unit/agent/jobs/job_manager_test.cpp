#include "agent/jobs/job_manager.h"

#include "host/agent/host_services.h"
#include "host/process/cancellation.h"
#include "json_spirit/access.h"
#include "tests/support/virtual_clock.h"
#include "tests/unit/agent/jobs/jobs_fixture.h"
#include "tests/unit/agent/jobs/stepped_job.h"

#include <ace/Thread_Manager.h>
#include <gmock/gmock.h>

using json_spirit::Object;

namespace {

class Job_Manager_Test : public Jobs_Fixture {
protected:
    void SetUp() override {
        Jobs_Fixture::SetUp();
        begin();
    }
    void TearDown() override { end(); }

    /** As the agent does at its start. */
    void begin(bool with_creator = true) {
        store_ = std::make_unique<Definition_Store>(*database_);
        jobs_ = std::make_shared<Agent_Jobs>(*database_,
                                             Agent_Jobs::Settings{directory_.path("logs")}, clock_);
        Host_Services::instance().jobs(jobs_);
        manager_ = std::make_unique<Job_Manager>(
            *store_, *jobs_,
            Job_Manager::Settings{{parsers_.module(with_creator ? &creator_ : nullptr)},
                                  defaults(),
                                  directory_.path("jobs"),
                                  {[this](Stored_Definition const&) { return first_; },
                                   [this](Stored_Definition const& definition) {
                                       EXPECT_NE("", definition.instance);
                                       return second_;
                                   }}},
            clock_);
    }
    void end() {
        gate_.open();
        ACE_Thread_Manager::instance()->wait();
        manager_.reset();
        Host_Services::instance().jobs(nullptr);
        jobs_.reset();
    }

    std::string save(Object const& definition) {
        std::string id;
        Job_Answer const answer = manager_->save(definition, id);
        EXPECT_TRUE(answer) << answer.text;
        return id;
    }
    std::string start(std::string const& definition = "nightly") {
        std::string run_id;
        std::string definition_id;
        Job_Answer const answer = manager_->start(definition, run_id, definition_id);
        EXPECT_TRUE(answer) << answer.text;
        return run_id;
    }
    Job_Answer try_start(std::string const& definition = "nightly") {
        std::string run_id;
        std::string definition_id;
        Job_Answer const answer = manager_->start(definition, run_id, definition_id);
        EXPECT_EQ("", run_id);
        return answer;
    }
    /** Waits until no run of the definition is on. */
    void settle(std::string const& definition) {
        Described_Definition described;
        do {
            jobs_->wait_for_finished([] { return false; }, 0);
            std::this_thread::yield();
            ASSERT_TRUE(manager_->show(definition, described));
        } while (described.running);
        ACE_Thread_Manager::instance()->wait();
    }
    /** Starts a run that waits at the gate. */
    std::string start_waiting() {
        creator_.steps = steps_through(gate_);
        save(backup());
        std::string const run = start();
        EXPECT_TRUE(gate_.wait_for_arrivals(1));
        return run;
    }
    Job_Run run(std::string const& id) {
        Job_Run found;
        EXPECT_TRUE(jobs_->find(id, found));
        return found;
    }

    Virtual_Clock clock_;
    Gate gate_;
    Start_Answer first_;
    Start_Answer second_;
    Stepped_Job_Creator creator_;
    std::unique_ptr<Definition_Store> store_;
    std::shared_ptr<Agent_Jobs> jobs_;
    std::unique_ptr<Job_Manager> manager_;
};

TEST_F(Job_Manager_Test, a_saved_definition_is_started_by_id_or_name) {
    std::string const id = save(backup());
    std::string const first = start("nightly");
    settle(id);
    std::string const second = start(id);
    settle(id);
    EXPECT_NE(first, second);
    EXPECT_EQ(JOB_STATE_COMPLETED, run(first).state);
    EXPECT_EQ("production", run(second).instance);
    EXPECT_EQ(1, creator_.created) << "a job lives on between its runs";
}

TEST_F(Job_Manager_Test, a_definition_with_a_fault_is_not_kept) {
    std::string id = "before";
    Job_Answer const answer = manager_->save(backup("x", R"(,"colour":1)"), id);
    EXPECT_EQ(Job_Answer::INVALID, answer.kind);
    EXPECT_EQ("colour: is not known", answer.text);
    EXPECT_EQ(Job_Answer::INVALID, manager_->save(backup("x", R"(,"agent":"other")"), id).kind);
    EXPECT_EQ("before", id);
    std::vector<Described_Definition> all;
    ASSERT_TRUE(manager_->list(all));
    EXPECT_TRUE(all.empty());
}

TEST_F(Job_Manager_Test, a_definition_that_could_not_do_what_it_says_is_refused) {
    std::string id;
    std::string run_id;
    creator_.fault = "options: \"mount\" is not an option of it";
    for (Job_Answer const& answer :
         {manager_->save(backup(), id), manager_->start_new(backup(), run_id, id)}) {
        EXPECT_EQ(Job_Answer::INVALID, answer.kind);
        EXPECT_EQ(creator_.fault, answer.text);
    }
    EXPECT_EQ(Job_Answer::NOT_FOUND, try_start().kind) << "it was kept";
    creator_.fault.clear();
    save(backup());
    creator_.fault = "options: \"mount\" is not an option of it"; // the instance is known by now
    EXPECT_NE(std::string::npos, try_start().text.find(creator_.fault)) << try_start().text;
    EXPECT_EQ(0, creator_.created);
}

TEST_F(Job_Manager_Test, what_is_not_there_is_not_found) {
    EXPECT_EQ(Job_Answer::NOT_FOUND, try_start("nobody").kind);
    EXPECT_EQ(Job_Answer::NOT_FOUND, manager_->remove("nobody").kind);
    EXPECT_EQ(Job_Answer::NOT_FOUND, manager_->cancel("0123").kind);
    Described_Definition described;
    EXPECT_EQ(Job_Answer::NOT_FOUND, manager_->show("nobody", described).kind);
}

TEST_F(Job_Manager_Test, a_second_start_is_refused) {
    start_waiting();
    Job_Answer const answer = try_start();
    EXPECT_EQ(Job_Answer::REFUSED, answer.kind);
    EXPECT_EQ("Job nightly cannot be started: it is running already", answer.text);
    EXPECT_LOGGED(LM_WARNING, "it is running already");
}

TEST_F(Job_Manager_Test, a_disabled_definition_is_not_started) {
    save(backup("nightly", R"(,"enabled":false)"));
    Job_Answer const answer = try_start();
    EXPECT_EQ(Job_Answer::REFUSED, answer.kind);
    EXPECT_NE(std::string::npos, answer.text.find("it is disabled"));
    EXPECT_LOGGED(LM_WARNING, "it is disabled");
    Described_Definition described;
    ASSERT_TRUE(manager_->show("nightly", described));
    EXPECT_EQ("disabled", described.state);
}

TEST_F(Job_Manager_Test, a_definition_that_was_enabled_again_is_started) {
    std::string const id = save(backup("nightly", R"(,"enabled":false)"));
    try_start();
    EXPECT_LOGGED(LM_WARNING, "it is disabled");
    save(backup("nightly", R"(,"id":")" + id + "\""));
    start();
    settle(id);
}

TEST_F(Job_Manager_Test, a_module_without_a_creator_starts_nothing_and_says_so) {
    end();
    begin(false);
    save(backup());
    Job_Answer const answer = try_start();
    EXPECT_EQ(Job_Answer::REFUSED, answer.kind);
    EXPECT_NE(std::string::npos, answer.text.find("The module has no job creator"));
}

TEST_F(Job_Manager_Test, a_job_that_the_module_does_not_make_is_refused) {
    creator_.refuse = true;
    save(backup());
    Job_Answer const answer = try_start();
    EXPECT_EQ(Job_Answer::REFUSED, answer.kind);
    EXPECT_NE(std::string::npos, answer.text.find("is instance \"production\" known?"));
    creator_.refuse = false;
    start();
}

TEST_F(Job_Manager_Test, a_run_is_canceled) {
    std::string const id = start_waiting();
    EXPECT_TRUE(manager_->cancel(id.substr(0, 10)));
    settle("nightly");
    EXPECT_EQ(JOB_STATE_CANCELED, run(id).state);
    Job_Answer const answer = manager_->cancel(id);
    EXPECT_EQ(Job_Answer::REFUSED, answer.kind);
    EXPECT_NE(std::string::npos, answer.text.find("has ended: canceled"));
}

TEST_F(Job_Manager_Test, a_run_that_ignores_a_cancel_says_so_and_is_ended_now) {
    creator_.steps = [this](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        gate_.pass_unheeding();
        job.cancellation()->cancelled() ? events.handle_canceled() : events.handle_success();
    };
    save(backup());
    std::string const id = start();
    EXPECT_TRUE(gate_.wait_for_arrivals(1));
    EXPECT_TRUE(manager_->cancel(id));
    EXPECT_EQ(JOB_STATE_CANCELING, run(id).state);
    EXPECT_NE(std::string::npos, run(id).message.find("job cancel RUN --now"));
    EXPECT_TRUE(manager_->cancel(id, true));
    gate_.open();
    settle("nightly");
    EXPECT_EQ(JOB_STATE_CANCELED, run(id).state);
    EXPECT_EQ("", run(id).message);
}

TEST_F(Job_Manager_Test, a_run_is_stopped) {
    std::string const id = start_waiting();
    EXPECT_TRUE(manager_->stop(id));
    settle("nightly");
    EXPECT_EQ(JOB_STATE_CANCELED, run(id).state);
}

TEST_F(Job_Manager_Test, a_run_is_paused_and_resumed) {
    std::string const id = start_waiting();
    EXPECT_EQ(Job_Answer::REFUSED, manager_->resume(id).kind);
    EXPECT_LOGGED(LM_WARNING, "cannot be resumed: it is running");
    EXPECT_TRUE(manager_->pause(id));
    EXPECT_EQ(JOB_STATE_PAUSING, run(id).state);
    EXPECT_TRUE(manager_->resume(id));
    EXPECT_EQ(JOB_STATE_RUNNING, run(id).state);
    gate_.open();
    settle("nightly");
    EXPECT_EQ(JOB_STATE_COMPLETED, run(id).state);
}

TEST_F(Job_Manager_Test, an_earlier_run_of_a_running_job_takes_no_request) {
    save(backup());
    std::string const first = start();
    settle("nightly");
    creator_.steps = steps_through(gate_);
    save(backup("nightly", R"(,"id":")" + run(first).definition + "\""));
    std::string const second = start();
    ASSERT_TRUE(gate_.wait_for_arrivals(1));
    EXPECT_EQ(Job_Answer::REFUSED, manager_->cancel(first).kind);
    EXPECT_EQ(JOB_STATE_RUNNING, run(second).state);
}

TEST_F(Job_Manager_Test, a_running_job_is_not_removed) {
    std::string const run_id = start_waiting();
    std::string const id = run(run_id).definition;
    Job_Answer const answer = manager_->remove(id);
    EXPECT_EQ(Job_Answer::REFUSED, answer.kind);
    EXPECT_NE(std::string::npos, answer.text.find("is running"));
    Described_Definition described;
    ASSERT_TRUE(manager_->show(id, described));
    EXPECT_EQ("running", described.state);
    EXPECT_TRUE(described.running);
    EXPECT_EQ(0, described.last_end);
}

TEST_F(Job_Manager_Test, a_change_of_a_running_job_counts_from_its_next_run_on) {
    std::vector<std::string> actions;
    creator_.steps = [&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        actions.push_back(job.definition()->pre_action());
        gate_.pass(job);
        actions.push_back(job.definition()->pre_action());
        events.handle_success();
    };
    std::string const id = save(backup("nightly", R"(,"pre_action":"before")"));
    std::string const first = start();
    ASSERT_TRUE(gate_.wait_for_arrivals(1));
    save(backup("renamed", R"(,"pre_action":"after","id":")" + id + "\""));
    EXPECT_EQ(JOB_STATE_RUNNING, run(first).state);
    EXPECT_TRUE(manager_->is_running(id));
    EXPECT_EQ(Job_Answer::REFUSED, try_start("renamed").kind) << "the old run is still running";
    EXPECT_LOGGED(LM_WARNING, "Job nightly cannot be started: it is running already");
    EXPECT_TRUE(manager_->pause(first)) << "the run still takes requests";
    EXPECT_TRUE(manager_->resume(first));
    gate_.open();
    settle(id);
    EXPECT_EQ(JOB_STATE_COMPLETED, run(first).state);
    EXPECT_EQ("nightly", run(first).name);
    std::string const second = start("renamed");
    settle(id);
    EXPECT_EQ("renamed", run(second).name);
    EXPECT_THAT(actions, testing::ElementsAre("before", "before", "after", "after"));
    EXPECT_EQ(2, creator_.created);
}

TEST_F(Job_Manager_Test, a_change_merges_what_is_given) {
    std::string const id = save(backup(
        "nightly",
        R"(,"pre_action":"true","options":{"channels":4},"schedule":{"type":"daily","at":"30 2 * * *"})"));
    ASSERT_TRUE(manager_->change(
        "nightly", json(R"({"pre_action":null,"options":{"compression":"zstd"},"name":"daily"})")));
    Described_Definition described;
    ASSERT_TRUE(manager_->show("daily", described));
    Object& body = described.stored.body;
    EXPECT_EQ(id, described.stored.id);
    EXPECT_EQ(0u, body.count("pre_action"));
    EXPECT_EQ(1u, body.count("schedule"));
    EXPECT_EQ(json_spirit::Value((Object{{"channels", 4}, {"compression", "zstd"}})),
              body["options"]);
    EXPECT_EQ(Job_Answer::NOT_FOUND, manager_->change("nightly", {}).kind);
    EXPECT_EQ(Job_Answer::INVALID, manager_->change("daily", json(R"({"type":"copy"})")).kind);
    std::string other;
    ASSERT_TRUE(manager_->save(backup("other"), other));
    EXPECT_EQ(Job_Answer::REFUSED, manager_->change("daily", json(R"({"name":"other"})")).kind);
    ASSERT_TRUE(manager_->change("daily", json(R"({"id":")" + other + "\"}")));
    EXPECT_TRUE(manager_->show(id, described)) << "a change cannot make it another definition";
}

TEST_F(Job_Manager_Test, new_times_bring_the_level_of_what_a_start_makes) {
    save(backup("nightly",
                R"(,"schedule":{"type":"calendar","times":{"full":"Sun","log":"daily"}})"));
    ASSERT_TRUE(manager_->change("nightly", json(R"({"schedule":{"times":{"full":null}}})")));
    Described_Definition described;
    ASSERT_TRUE(manager_->show("nightly", described));
    EXPECT_EQ("log", json_spirit::object_get_str(described.stored.body, "subtype"));
}

TEST_F(Job_Manager_Test, a_start_may_name_its_level) {
    std::string const id = save(backup());
    std::string run_id, definition_id;
    ASSERT_TRUE(manager_->start("nightly", run_id, definition_id, "incremental"));
    settle(id);
    EXPECT_EQ("incremental", run(run_id).subtype);
    EXPECT_EQ("full", run(start()).subtype);
    settle(id);
    EXPECT_EQ(Job_Answer::REFUSED,
              manager_->start("nightly", run_id, definition_id, "complete").kind);
}

TEST_F(Job_Manager_Test, a_schedule_needs_a_time_to_come) {
    std::string id;
    Job_Answer const answer = manager_->save(
        backup("nightly", R"(,"schedule":{"type":"calendar","at":"1999-01-01 02:00"})"), id);
    EXPECT_EQ(Job_Answer::INVALID, answer.kind);
    EXPECT_EQ("schedule: \"1999-01-01 02:00\" has no time to come", answer.text);
}

TEST_F(Job_Manager_Test, each_level_of_a_schedule_is_checked) {
    creator_.fault_of_level = "log";
    std::string id;
    Job_Answer const answer = manager_->save(
        backup("nightly",
               R"(,"schedule":{"type":"calendar","times":{"full":"Sun 02:00","log":"hourly"}})"),
        id);
    EXPECT_EQ(Job_Answer::INVALID, answer.kind);
    EXPECT_EQ("schedule.times.log: not this level", answer.text);
}

TEST_F(Job_Manager_Test, what_is_run_once_leaves_no_definition) {
    creator_.steps = steps_through(gate_);
    std::string run_id, id;
    ASSERT_TRUE(manager_->start_once(backup(), run_id, id));
    ASSERT_TRUE(gate_.wait_for_arrivals(1));
    std::vector<Described_Definition> all;
    ASSERT_TRUE(manager_->list(all));
    EXPECT_TRUE(all.empty());
    EXPECT_EQ("nightly", run(run_id).name);
    EXPECT_EQ("production", run(run_id).instance);
    EXPECT_EQ(JOB_STATE_RUNNING, run(run_id).state);
    EXPECT_TRUE(manager_->is_running(id));
    EXPECT_TRUE(manager_->pause(run_id));
    EXPECT_TRUE(manager_->resume(run_id));
    manager_->start_waiting();
    EXPECT_TRUE(manager_->is_running(id)) << "dropped while it was running";
    gate_.open();
    ACE_Thread_Manager::instance()->wait();
    manager_->start_waiting();
    EXPECT_EQ(JOB_STATE_COMPLETED, run(run_id).state);
    EXPECT_EQ(Job_Answer::REFUSED, manager_->cancel(run_id).kind);
    EXPECT_FALSE(directory_.exists("jobs/" + id));
}

TEST_F(Job_Manager_Test, what_is_run_once_may_have_the_name_of_a_definition) {
    std::string const kept = save(backup("nightly", R"(,"pre_action":"true")"));
    std::string run_id, id;
    ASSERT_TRUE(manager_->start_once(backup(), run_id, id));
    EXPECT_NE(kept, id);
    ACE_Thread_Manager::instance()->wait();
    Described_Definition described;
    ASSERT_TRUE(manager_->show("nightly", described));
    EXPECT_EQ(1u, described.stored.body.count("pre_action"));
    EXPECT_EQ("idle", described.state);
}

TEST_F(Job_Manager_Test, what_cannot_be_run_once_is_refused_and_not_on_record) {
    std::string run_id, id;
    EXPECT_EQ(Job_Answer::INVALID, manager_->start_once({}, run_id, id).kind);
    EXPECT_EQ(Job_Answer::INVALID,
              manager_->start_once(backup("a", std::string(R"(,"id":")") + POOL + "\""), run_id, id)
                  .kind);
    EXPECT_EQ(Job_Answer::INVALID,
              manager_->start_once(backup("a", R"(,"schedule":{"type":"none"})"), run_id, id).kind);
    EXPECT_EQ(Job_Answer::REFUSED,
              manager_->start_once(backup("a", R"(,"enabled":false)"), run_id, id).kind);
    creator_.refuse = true;
    EXPECT_EQ(Job_Answer::REFUSED, manager_->start_once(backup(), run_id, id).kind);
    creator_.refuse = false;
    manager_->shutdown(0);
    EXPECT_EQ(Job_Answer::REFUSED, manager_->start_once(backup(), run_id, id).kind);
    std::vector<Job_Run> runs;
    ASSERT_TRUE(jobs_->list({}, runs));
    EXPECT_TRUE(runs.empty());
}

TEST_F(Job_Manager_Test, a_changed_definition_makes_a_new_job) {
    std::string const id = save(backup());
    start();
    settle(id);
    save(backup("nightly", R"(,"id":")" + id + R"(","pre_action":"true")"));
    start();
    settle(id);
    EXPECT_EQ(2, creator_.created);
}

TEST_F(Job_Manager_Test, a_removed_definition_is_gone_and_its_runs_stay) {
    std::string const id = save(backup());
    std::string const run_id = start();
    settle(id);
    EXPECT_TRUE(directory_.exists("jobs/" + id));
    EXPECT_TRUE(manager_->remove("nightly"));
    EXPECT_EQ(1, creator_.removals) << "the job did not clean up";
    EXPECT_FALSE(directory_.exists("jobs/" + id));
    EXPECT_EQ(Job_Answer::NOT_FOUND, try_start().kind);
    EXPECT_EQ("nightly", run(run_id).name);
}

TEST_F(Job_Manager_Test, a_definition_that_never_ran_cleans_up_as_well) {
    save(backup());
    EXPECT_TRUE(manager_->remove("nightly"));
    EXPECT_EQ(1, creator_.removals);
}

TEST_F(Job_Manager_Test, a_definition_is_removed_also_when_the_module_makes_no_job_of_it) {
    save(backup());
    creator_.refuse = true;
    EXPECT_TRUE(manager_->remove("nightly"));
    EXPECT_LOGGED(LM_INFO, "is removed without cleaning up");
    std::vector<Described_Definition> all;
    ASSERT_TRUE(manager_->list(all));
    EXPECT_TRUE(all.empty());
}

TEST_F(Job_Manager_Test, a_new_definition_is_kept_and_started_at_once) {
    Object definition = restore();
    definition.erase("name");
    std::string run_id;
    std::string id;
    Job_Answer const answer = manager_->start_new(definition, run_id, id);
    ASSERT_TRUE(answer) << answer.text;
    settle(id);
    EXPECT_EQ(JOB_STATE_COMPLETED, run(run_id).state);
    EXPECT_EQ(0u, run(run_id).name.find("restore "));
    EXPECT_EQ("re/hearsal", run(run_id).instance);
}

TEST_F(Job_Manager_Test, a_new_definition_that_cannot_be_started_is_gone_again) {
    creator_.refuse = true;
    std::string run_id;
    std::string id;
    EXPECT_EQ(Job_Answer::REFUSED, manager_->start_new(backup(), run_id, id).kind);
    EXPECT_EQ(Job_Answer::INVALID, manager_->start_new({}, run_id, id).kind);
    std::vector<Described_Definition> all;
    ASSERT_TRUE(manager_->list(all));
    EXPECT_TRUE(all.empty());
}

TEST_F(Job_Manager_Test, a_definition_of_a_known_name_takes_its_place) {
    std::string const id = save(backup("nightly"));
    std::string run_id;
    std::string started;
    ASSERT_TRUE(manager_->start_new(backup("nightly"), run_id, started));
    EXPECT_EQ(id, started);
    settle(id);
    ASSERT_TRUE(manager_->start_new(backup("nightly"), run_id, started));
    settle(id);
    std::vector<Described_Definition> all;
    ASSERT_TRUE(manager_->list(all));
    EXPECT_EQ(1u, all.size());
}

TEST_F(Job_Manager_Test, a_run_keeps_what_it_does_not_mention_of_a_known_definition) {
    std::string const id = save(
        backup("nightly", R"(,"schedule":{"type":"daily","at":"30 2 * * *"},"pre_action":"true")"));
    std::string run_id;
    std::string started;
    Object again = backup("nightly");
    again["pre_action"] = json_spirit::Value::null;
    ASSERT_TRUE(manager_->start_new(again, run_id, started));
    EXPECT_EQ(id, started);
    settle(id);
    Described_Definition described;
    ASSERT_TRUE(manager_->show(id, described));
    EXPECT_EQ(1u, described.stored.body.count("schedule"));
    EXPECT_EQ(0u, described.stored.body.count("pre_action"));
}

TEST_F(Job_Manager_Test, a_known_definition_that_cannot_be_started_stays) {
    std::string const id = save(backup("nightly", std::string(R"(,"id":")") + RESOURCE + "\""));
    creator_.refuse = true;
    std::string run_id;
    std::string started;
    Object const again = backup("nightly", R"(,"id":"6F9619FF-8B86-4011-B42D-00CF4FC9648F")");
    EXPECT_EQ(Job_Answer::REFUSED, manager_->start_new(again, run_id, started).kind);
    Described_Definition described;
    EXPECT_TRUE(manager_->show(id, described));
}

TEST_F(Job_Manager_Test, a_list_says_what_each_is_doing) {
    start_waiting();
    save(backup("other"));
    std::vector<Described_Definition> all;
    ASSERT_TRUE(manager_->list(all));
    ASSERT_EQ(2u, all.size());
    Object const running = described_to_json(all[0], 0);
    EXPECT_EQ("running", json_spirit::object_get_str(running, "state"));
    EXPECT_EQ("nightly", json_spirit::object_get_str(running, "name"));
    EXPECT_EQ(json_spirit::Value(int64_t{clock_.now()}),
              json_spirit::object_get_any(running, "last_run"));
    Object const idle = described_to_json(all[1], 77);
    EXPECT_EQ("idle", json_spirit::object_get_str(idle, "state"));
    EXPECT_EQ(json_spirit::Value(0), json_spirit::object_get_any(idle, "last_run"));
    EXPECT_EQ(json_spirit::Value(77), json_spirit::object_get_any(idle, "next_run"));
}

TEST_F(Job_Manager_Test, the_activity_file_of_a_run_cut_short_is_taken_over) {
    std::string const id = save(backup());
    start();
    settle(id);
    end();
    {
        std::fstream file(directory_.path("jobs/" + id),
                          std::ios::in | std::ios::out | std::ios::binary);
        Job_State const state = JOB_STATE_RUNNING;
        file.seekp(offsetof(Job_Activity, state));
        file.write(reinterpret_cast<char const*>(&state), sizeof state);
    }
    begin();
    start();
    settle(id);
    EXPECT_LOGGED(LM_WARNING, "was cut short while it was running");
}

TEST_F(Job_Manager_Test, a_job_runs_also_when_it_has_no_activity_file) {
    directory_.write("jobs", "a file in the way");
    std::string const id = save(backup());
    std::string const run_id = start();
    settle(id);
    EXPECT_EQ(JOB_STATE_COMPLETED, run(run_id).state);
    EXPECT_LOGGED(LM_ERROR, "Cannot make the directory");
}

TEST_F(Job_Manager_Test, a_shutdown_cancels_what_runs_and_starts_nothing_more) {
    std::string const id = start_waiting();
    EXPECT_TRUE(manager_->shutdown(60).empty());
    EXPECT_EQ(JOB_STATE_CANCELED, run(id).state);
    Job_Answer const answer = try_start();
    EXPECT_EQ(Job_Answer::REFUSED, answer.kind);
    EXPECT_NE(std::string::npos, answer.text.find("the agent is about to end"));
}

TEST_F(Job_Manager_Test, a_shutdown_names_who_does_not_end) {
    creator_.steps = [&](Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        gate_.pass_unheeding(); // of its state
        events.handle_canceled();
    };
    save(backup());
    start();
    EXPECT_EQ(std::vector<std::string>{"nightly"}, manager_->shutdown(0));
    EXPECT_LOGGED(LM_WARNING, "Job nightly did not end within 0 seconds");
}

TEST_F(Job_Manager_Test, many_threads_start_one_job_once) {
    creator_.steps = steps_through(gate_);
    save(backup());
    std::atomic<int> started = 0;
    std::vector<std::thread> threads;
    for (int count = 0; count < 8; ++count)
        threads.emplace_back([&] {
            std::string run_id;
            std::string id;
            if (manager_->start("nightly", run_id, id))
                ++started;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(1, started);
    EXPECT_EQ(7u, Log_Capture::instance().claim_all(LM_WARNING, "it is running already"));
}

class Waiting_Run_Test : public Job_Manager_Test {
protected:
    /** Requests a run that waits for this. */
    std::string start_with(Start_Answer const& answer) {
        second_ = answer;
        definition_ = save(backup());
        return start();
    }
    std::vector<Run_Alert> alerts(std::string const& run_id) {
        std::vector<Run_Alert> result;
        EXPECT_TRUE(jobs_->alerts(run_id, result));
        return result;
    }
    std::string definition_;
};

TEST_F(Waiting_Run_Test, waits_on_record_and_starts_when_all_conditions_hold) {
    std::string const id = start_with(Start_Answer::wait("the tide"));
    EXPECT_EQ(0, creator_.created);
    EXPECT_EQ(JOB_STATE_STARTING, run(id).state);
    EXPECT_EQ("the tide", run(id).waiting_for);
    EXPECT_EQ("production", run(id).instance);
    EXPECT_EQ("backup", run(id).type);
    EXPECT_EQ("full", run(id).subtype);
    EXPECT_TRUE(manager_->is_running(definition_));
    first_ = Start_Answer::wait("the moon");
    second_ = {};
    manager_->start_waiting();
    EXPECT_EQ(0, creator_.created);
    EXPECT_EQ("the moon", run(id).waiting_for);
    first_ = {};
    manager_->start_waiting();
    settle(definition_);
    EXPECT_EQ(JOB_STATE_COMPLETED, run(id).state);
    EXPECT_EQ("", run(id).waiting_for);
    std::vector<Job_Run> runs;
    ASSERT_TRUE(jobs_->list({}, runs));
    EXPECT_EQ(1u, runs.size()) << "the job has taken the waiting run over";
}

TEST_F(Waiting_Run_Test, is_taken_over_by_its_own_job_alone) {
    std::string const id = start_with(Start_Answer::wait("the tide"));
    second_ = {};
    save(backup("other"));
    std::string const other = start("other");
    settle("other");
    EXPECT_NE(id, other);
    EXPECT_EQ("the tide", run(id).waiting_for);
    manager_->start_waiting();
    settle(definition_);
    EXPECT_EQ(JOB_STATE_COMPLETED, run(id).state);
}

TEST_F(Waiting_Run_Test, keeps_others_from_starting_or_removing_it) {
    start_with(Start_Answer::wait("the tide"));
    EXPECT_EQ("Job nightly cannot be started: it is running already", try_start().text);
    EXPECT_EQ(Job_Answer::REFUSED, manager_->remove(definition_).kind);
}

TEST_F(Waiting_Run_Test, starts_with_the_definition_that_it_began_with) {
    std::vector<std::string> actions;
    creator_.steps = [&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        actions.push_back(job.definition()->pre_action());
        events.handle_success();
    };
    std::string const id = start_with(Start_Answer::wait("the tide"));
    save(backup("renamed", R"(,"pre_action":"after","id":")" + definition_ + "\""));
    second_ = {};
    manager_->start_waiting();
    settle(definition_);
    EXPECT_EQ("nightly", run(id).name);
    start("renamed");
    settle(definition_);
    EXPECT_THAT(actions, testing::ElementsAre("", "after"));
}

TEST_F(Waiting_Run_Test, that_is_run_once_waits_as_well) {
    second_ = Start_Answer::wait("the tide");
    std::string run_id, id;
    ASSERT_TRUE(manager_->start_once(backup(), run_id, id));
    EXPECT_EQ("the tide", run(run_id).waiting_for);
    EXPECT_EQ(0, creator_.created) << "the module may not know the instance yet";
    manager_->start_waiting();
    second_ = {};
    manager_->start_waiting();
    ACE_Thread_Manager::instance()->wait();
    EXPECT_EQ(JOB_STATE_COMPLETED, run(run_id).state);
    EXPECT_EQ("production", run(run_id).instance);
}

TEST_F(Waiting_Run_Test, that_is_due_again_gets_an_alert) {
    std::string const id = start_with(Start_Answer::wait("the tide"));
    Stored_Definition stored;
    ASSERT_TRUE(store_->find(definition_, stored));
    manager_->start_due(stored, "", "due at noon");
    ASSERT_EQ(1u, alerts(id).size());
    EXPECT_EQ("the run that was due at noon is skipped: this run is not over",
              alerts(id)[0].alert.text);
    EXPECT_LOGGED(LM_WARNING, "due at noon is skipped");
}

TEST_F(Waiting_Run_Test, of_a_disabled_definition_is_refused) {
    second_ = Start_Answer::wait("the tide");
    save(backup("nightly", R"(,"enabled":false)"));
    EXPECT_EQ("Job nightly cannot be started: it is disabled", try_start().text);
}

TEST_F(Waiting_Run_Test, is_canceled_at_once_and_takes_no_other_request) {
    std::string const id = start_with(Start_Answer::wait("the tide"));
    Job_Answer const paused = manager_->pause(id);
    EXPECT_EQ(Job_Answer::REFUSED, paused.kind);
    EXPECT_THAT(paused.text, testing::HasSubstr("has not started; it waits for the tide"));
    EXPECT_TRUE(manager_->cancel(id.substr(0, 12)));
    EXPECT_EQ(JOB_STATE_CANCELED, run(id).state);
    EXPECT_EQ("It was canceled while it waited for the tide", run(id).message);
    EXPECT_NE(0, run(id).end_time);
    EXPECT_EQ(Job_Answer::REFUSED, manager_->cancel(id).kind);
    second_ = {};
    manager_->start_waiting();
    EXPECT_EQ(0, creator_.created);
    start();
    settle(definition_);
}

TEST_F(Waiting_Run_Test, is_canceled_now_as_well) {
    std::string const id = start_with(Start_Answer::wait("the tide"));
    EXPECT_TRUE(manager_->cancel(id, true));
    EXPECT_EQ(JOB_STATE_CANCELED, run(id).state);
    second_ = {};
    manager_->start_waiting();
    EXPECT_EQ(0, creator_.created);
}

TEST_F(Waiting_Run_Test, is_given_up_after_its_limit_with_an_alert) {
    std::string const id = start_with(Start_Answer::wait("the tide", 60));
    clock_.sleep_ns(59 * NS_PER_SECOND);
    manager_->start_waiting();
    EXPECT_EQ(JOB_STATE_STARTING, run(id).state);
    clock_.sleep_ns(NS_PER_SECOND);
    manager_->start_waiting();
    EXPECT_EQ(JOB_STATE_ERROR, run(id).state);
    EXPECT_EQ("gave up after 60 seconds of waiting for the tide", run(id).message);
    ASSERT_EQ(1u, alerts(id).size());
    EXPECT_EQ("The run could not begin: " + run(id).message, alerts(id)[0].alert.text);
    EXPECT_EQ(7u, alerts(id)[0].alert.level);
    EXPECT_FALSE(manager_->is_running(definition_));
    EXPECT_LOGGED(LM_ERROR, "was not started: gave up after 60 seconds");
}

TEST_F(Waiting_Run_Test, that_may_never_start_fails_with_an_alert) {
    std::string const id = start_with(Start_Answer::fail("nobody knows it"));
    EXPECT_EQ(JOB_STATE_ERROR, run(id).state);
    EXPECT_EQ(-1, run(id).code);
    EXPECT_EQ("nobody knows it", run(id).message);
    ASSERT_EQ(1u, alerts(id).size());
    EXPECT_FALSE(manager_->is_running(definition_));
    EXPECT_EQ(0, creator_.created);
    EXPECT_LOGGED(LM_ERROR, "Job nightly, run " + id + ", was not started: nobody knows it");
}

TEST_F(Waiting_Run_Test, that_is_not_this_hosts_is_skipped_without_an_alert) {
    std::string const id = start_with(Start_Answer::skip("another host runs it"));
    EXPECT_EQ(JOB_STATE_SKIPPED, run(id).state);
    EXPECT_EQ("another host runs it", run(id).message);
    EXPECT_TRUE(alerts(id).empty());
    EXPECT_NE(0, run(id).end_time);
}

TEST_F(Waiting_Run_Test, of_which_no_job_can_be_made_any_more_fails) {
    std::string const id = start_with(Start_Answer::wait("the tide"));
    second_ = {};
    creator_.refuse = true;
    manager_->start_waiting();
    EXPECT_EQ(JOB_STATE_ERROR, run(id).state);
    EXPECT_THAT(run(id).message, testing::HasSubstr("The module made no job of nightly"));
    EXPECT_LOGGED(LM_ERROR, "The module made no job of nightly");
}

TEST_F(Waiting_Run_Test, ends_with_the_agent) {
    std::string const id = start_with(Start_Answer::wait("the tide"));
    EXPECT_TRUE(manager_->shutdown(1).empty());
    EXPECT_EQ(JOB_STATE_CANCELED, run(id).state);
    EXPECT_EQ("The agent ended before the job could start", run(id).message);
    second_ = {};
    manager_->start_waiting();
    EXPECT_EQ(0, creator_.created);
}

TEST_F(Waiting_Run_Test, that_cannot_be_put_on_record_is_refused) {
    second_ = Start_Answer::wait("the tide");
    definition_ = save(backup());
    ASSERT_TRUE(database_->change("break", [](SQLite::Database& database) {
        database.exec("DROP TABLE job_alerts; DROP TABLE job_runs");
        return true;
    }));
    EXPECT_EQ(Job_Answer::FAILED, try_start().kind);
    EXPECT_FALSE(manager_->is_running(definition_));
    EXPECT_LOGGED(LM_ERROR, "");
}

} // namespace
