#include "agent/jobs/scheduler.h"

#include "host/agent/host_services.h"
#include "tests/support/scoped_env.h"
#include "tests/support/virtual_clock.h"
#include "tests/unit/agent/jobs/jobs_fixture.h"
#include "tests/unit/agent/jobs/stepped_job.h"

#include "qmrt/posix_time.h"

#include <ace/Thread_Manager.h>
#include <gmock/gmock.h>

namespace {

using json_spirit::Object;

constexpr time_t HOUR = 3600;
constexpr time_t DAY = 24 * HOUR;

/** The clock stands at a full hour of UTC, which is the local time. */
class Scheduler_Test : public Jobs_Fixture {
protected:
    Scheduler_Test() : zone_("TZ", "UTC") { tzset(); }

    void SetUp() override {
        Jobs_Fixture::SetUp();
        clock_.sleep_ns((HOUR - clock_.now() % HOUR) * NS_PER_SECOND);
        begin();
    }
    void TearDown() override { end(); }

    void begin() {
        store_ = std::make_unique<Definition_Store>(*database_);
        jobs_ = std::make_shared<Agent_Jobs>(*database_,
                                             Agent_Jobs::Settings{directory_.path("logs")}, clock_);
        Host_Services::instance().jobs(jobs_);
        manager_ = std::make_unique<Job_Manager>(
            *store_, *jobs_,
            Job_Manager::Settings{{parsers_.module(&creator_)},
                                  defaults(),
                                  directory_.path("jobs"),
                                  {[this](auto const&) { return may_start(); }}},
            clock_);
        scheduler_ = std::make_unique<Scheduler>(*manager_, *store_, *jobs_, clock_);
    }
    void end() {
        scheduler_.reset();
        gate_.open();
        ACE_Thread_Manager::instance()->wait();
        manager_.reset();
        Host_Services::instance().jobs(nullptr);
        jobs_.reset();
    }

    std::string save(std::string const& type, std::string const& at, std::string const& more = "",
                     std::string const& name = "nightly") {
        std::string id;
        Job_Answer const answer = manager_->save(
            backup(name, R"(,"schedule":{"type":")" + type + R"(","at":")" + at + "\"}" + more),
            id);
        EXPECT_TRUE(answer) << answer.text;
        return id;
    }
    Described_Definition shown() {
        Described_Definition described;
        EXPECT_TRUE(manager_->show("nightly", described));
        return described;
    }
    Start_Answer may_start() const {
        if (is_gone_)
            return Start_Answer::fail("it is gone");
        return held_back_ ? Start_Answer::wait("the tide") : Start_Answer();
    }
    void pass(time_t seconds) { clock_.sleep_ns(seconds * NS_PER_SECOND); }
    /** Looks, and lets the runs that it started come to their end unless they wait at the gate. */
    time_t look(bool wait = true) {
        time_t const next = scheduler_->run_due();
        if (wait)
            ACE_Thread_Manager::instance()->wait();
        return next;
    }
    size_t runs() {
        std::vector<Job_Run> all;
        EXPECT_TRUE(jobs_->list({}, all));
        return all.size();
    }
    time_t next_run() {
        Described_Definition described;
        EXPECT_TRUE(manager_->show("nightly", described));
        return scheduler_->next_run(described);
    }
    void tick_clock_back(time_t seconds) {
        // by way of what is on record, since the clock only goes forward
        Stored_Definition stored;
        ASSERT_TRUE(store_->find("nightly", stored));
        ASSERT_TRUE(store_->set_planned(stored.id, clock_.now() + seconds));
    }

    Scoped_Env const zone_;
    Virtual_Clock clock_;
    Gate gate_;
    std::atomic<bool> held_back_ = false;
    std::atomic<bool> is_gone_ = false;
    Stepped_Job_Creator creator_;
    std::unique_ptr<Definition_Store> store_;
    std::shared_ptr<Agent_Jobs> jobs_;
    std::unique_ptr<Job_Manager> manager_;
    std::unique_ptr<Scheduler> scheduler_;
};

TEST_F(Scheduler_Test, a_job_is_started_when_it_is_due_and_not_before) {
    save("hourly", "15");
    time_t const due = clock_.now() + 15 * 60;
    EXPECT_EQ(due, look());
    EXPECT_EQ(due, next_run());
    pass(15 * 60 - 1);
    look();
    EXPECT_EQ(0u, runs());
    pass(1);
    EXPECT_EQ(due + HOUR, look());
    EXPECT_EQ(1u, runs());
}

TEST_F(Scheduler_Test, a_time_is_used_once) {
    save("hourly", "15");
    pass(15 * 60);
    look();
    look();
    pass(30);
    look();
    EXPECT_EQ(1u, runs());
    pass(HOUR);
    look();
    EXPECT_EQ(2u, runs());
}

TEST_F(Scheduler_Test, the_earliest_of_several_is_waited_for) {
    save("hourly", "30", "", "nightly");
    save("hourly", "10", "", "other");
    save("none", "", "", "third");
    EXPECT_EQ(clock_.now() + 10 * 60, look());
}

TEST_F(Scheduler_Test, what_was_missed_while_the_agent_was_down_is_started_once) {
    save("daily", "30 2 * * *");
    look();
    end();
    pass(10 * DAY);
    begin();
    look();
    look();
    EXPECT_EQ(1u, runs());
    EXPECT_LOGGED(LM_INFO, "has been missed: it is started now");
    EXPECT_GT(next_run(), clock_.now());
}

TEST_F(Scheduler_Test, a_definition_counts_from_when_it_was_saved) {
    save("once", "1999-01-01 00:00");
    EXPECT_EQ(0, look());
    EXPECT_EQ(0u, runs());
    EXPECT_EQ(0, next_run());
}

TEST_F(Scheduler_Test, a_job_of_once_is_started_once_though_the_agent_was_down) {
    char at[20];
    time_t const due = clock_.now() + DAY;
    tm fields{};
    gmtime_r(&due, &fields);
    strftime(at, sizeof at, "%Y-%m-%d %H:%M", &fields);
    save("once", at);
    EXPECT_EQ(due, next_run());
    end();
    pass(3 * DAY);
    begin();
    EXPECT_EQ(0, look());
    pass(3 * DAY);
    EXPECT_EQ(0, look());
    EXPECT_EQ(1u, runs());
}

TEST_F(Scheduler_Test, none_and_ondemand_are_never_started) {
    save("none", "", "", "nightly");
    save("ondemand", "", "", "other");
    pass(400 * DAY);
    EXPECT_EQ(0, look());
    EXPECT_EQ(0u, runs());
    EXPECT_EQ(0, next_run());
}

TEST_F(Scheduler_Test, a_disabled_job_is_passed_over_with_a_line_and_not_made_up_for) {
    std::string const id = save("hourly", "15", R"(,"enabled":false)");
    pass(15 * 60);
    look();
    EXPECT_LOGGED(LM_INFO, "passed over: it is disabled");
    EXPECT_EQ(0, next_run());
    pass(2 * HOUR);
    save("hourly", "15", R"(,"id":")" + id + "\"");
    look();
    EXPECT_EQ(0u, runs());
    pass(HOUR);
    look();
    EXPECT_EQ(1u, runs());
}

TEST_F(Scheduler_Test, a_job_that_still_runs_is_passed_over_with_a_line) {
    creator_.steps = steps_through(gate_);
    save("hourly", "15");
    pass(15 * 60);
    look(false);
    ASSERT_TRUE(gate_.wait_for_arrivals(1));
    pass(HOUR);
    look(false);
    look(false);
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_WARNING, "this run is not over"));
    std::vector<Job_Run> all;
    ASSERT_TRUE(jobs_->list({}, all));
    std::vector<Run_Alert> alerts;
    ASSERT_TRUE(jobs_->alerts(all.at(0).run_id, alerts));
    ASSERT_EQ(1u, alerts.size());
    EXPECT_EQ("the run that was due at " + std::string(POSIX_Time_To_ISO8601(clock_.now())) +
                  " is skipped: this run is not over",
              alerts[0].alert.text);
    EXPECT_EQ(5u, alerts[0].alert.level);
    gate_.open();
    ACE_Thread_Manager::instance()->wait();
    EXPECT_EQ(1u, runs());
    look();
    EXPECT_EQ(1u, runs()) << "what was passed over is not made up for";
}

TEST_F(Scheduler_Test, a_job_that_cannot_be_started_is_told_and_tried_again_when_due_next) {
    creator_.refuse = true;
    save("hourly", "15");
    pass(15 * 60);
    look();
    look();
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, "was not started: The module made"));
    std::vector<Job_Run> all;
    ASSERT_TRUE(jobs_->list({}, all));
    ASSERT_EQ(1u, all.size()) << "a run that could not be started is on record";
    EXPECT_EQ(JOB_STATE_ERROR, all[0].state);
    EXPECT_EQ(1, all[0].alerts);
    creator_.refuse = false;
    pass(HOUR);
    look();
    EXPECT_EQ(2u, runs());
}

TEST_F(Scheduler_Test, a_continuous_job_comes_again_after_the_end_of_its_last_run) {
    creator_.steps = steps_through(gate_);
    save("continuous", "60");
    EXPECT_EQ(clock_.now() + 60, look());
    pass(60);
    look(false);
    ASSERT_TRUE(gate_.wait_for_arrivals(1));
    pass(DAY);
    EXPECT_EQ(0, look(false)) << "nobody knows before the run's end";
    EXPECT_EQ(0, next_run());
    gate_.open();
    ACE_Thread_Manager::instance()->wait();
    time_t const end_time = clock_.now();
    pass(59);
    EXPECT_EQ(end_time + 60, look());
    EXPECT_EQ(1u, runs());
    pass(1);
    look();
    EXPECT_EQ(2u, runs());
}

TEST_F(Scheduler_Test, a_continuous_job_counts_from_a_run_that_somebody_started) {
    save("continuous", "60");
    pass(59);
    std::string run_id;
    std::string id;
    ASSERT_TRUE(manager_->start("nightly", run_id, id));
    ACE_Thread_Manager::instance()->wait();
    EXPECT_EQ(clock_.now() + 60, look());
    EXPECT_EQ(1u, runs());
}

TEST_F(Scheduler_Test, a_continuous_job_that_cannot_be_started_is_tried_after_its_pause) {
    creator_.refuse = true;
    save("continuous", "60");
    pass(60);
    EXPECT_EQ(clock_.now() + 60, look());
    EXPECT_LOGGED(LM_ERROR, "was not started");
}

TEST_F(Scheduler_Test, a_clock_that_was_corrected_a_little_repeats_nothing) {
    save("hourly", "15");
    tick_clock_back(30 * 60);
    pass(15 * 60);
    look();
    EXPECT_EQ(0u, runs()) << "12:15 had been dealt with before the clock went back";
}

TEST_F(Scheduler_Test, a_clock_that_was_years_ahead_stops_no_schedule) {
    save("hourly", "15");
    tick_clock_back(3000 * DAY);
    EXPECT_EQ(clock_.now() + 15 * 60, look());
    EXPECT_LOGGED(LM_WARNING, "The clock was set back");
    pass(15 * 60);
    look();
    EXPECT_EQ(1u, runs());
}

TEST_F(Scheduler_Test, nothing_is_started_when_it_cannot_be_put_on_record) {
    save("hourly", "15");
    pass(15 * 60);
    ASSERT_TRUE(database_->change("lock", [](SQLite::Database& database) {
        database.exec("CREATE TRIGGER full BEFORE UPDATE ON job_definitions "
                      "BEGIN SELECT RAISE(ABORT, 'disk full'); END");
        return true;
    }));
    look();
    EXPECT_EQ(0u, runs());
    EXPECT_LOGGED(LM_ERROR, "disk full");
}

TEST_F(Scheduler_Test, a_database_that_fails_is_told_and_looked_at_again) {
    save("hourly", "15");
    ASSERT_TRUE(database_->change("break", [](SQLite::Database& database) {
        database.exec("ALTER TABLE job_definitions RENAME TO away");
        return true;
    }));
    EXPECT_EQ(0, look());
    EXPECT_LOGGED(LM_ERROR, "could not list the definitions");
}

TEST_F(Scheduler_Test, its_thread_starts_what_is_due_when_it_is_woken) {
    creator_.steps = steps_through(gate_);
    ASSERT_EQ(0, scheduler_->start());
    save("hourly", "15");
    pass(15 * 60);
    scheduler_->wake();
    EXPECT_TRUE(gate_.wait_for_arrivals(1));
    scheduler_->stop();
    scheduler_->stop();
}

TEST_F(Scheduler_Test, its_thread_starts_a_waiting_run_when_it_is_woken) {
    creator_.steps = steps_through(gate_);
    held_back_ = true;
    save("hourly", "15");
    pass(15 * 60);
    look();
    ASSERT_EQ(1u, runs());
    ASSERT_EQ(0, scheduler_->start());
    held_back_ = false;
    scheduler_->wake();
    EXPECT_TRUE(gate_.wait_for_arrivals(1));
    scheduler_->stop();
    EXPECT_EQ(1u, runs());
}

TEST_F(Scheduler_Test, its_thread_sees_the_end_of_a_run) {
    // more of them than it would see in a minute by looking every now and then
    auto const began = std::chrono::steady_clock::now();
    Gate gates[4];
    std::atomic<size_t> next = 0;
    creator_.steps = [&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        size_t const mine = next++;
        if (mine < std::size(gates))
            gates[mine].pass(job);
        events.handle_success();
        pass(600);
    };
    save("continuous", "600");
    pass(600);
    ASSERT_EQ(0, scheduler_->start());
    for (Gate& gate : gates) {
        ASSERT_TRUE(gate.wait_for_arrivals(1));
        gate.open();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::minutes(1));
    scheduler_->stop();
    ACE_Thread_Manager::instance()->wait();
}

TEST_F(Scheduler_Test, it_can_be_stopped_and_started_again) {
    ASSERT_EQ(0, scheduler_->start());
    scheduler_->stop();
    creator_.steps = steps_through(gate_);
    save("hourly", "15");
    pass(15 * 60);
    ASSERT_EQ(0, scheduler_->start());
    EXPECT_TRUE(gate_.wait_for_arrivals(1));
}

/** Runs of several levels, by a schedule whose times are local. */
class Calendar_Test : public Scheduler_Test {
protected:
    std::string save_calendar(std::string const& times, std::string const& more = "",
                              std::string const& name = "nightly") {
        std::string id;
        Object definition =
            backup(name, R"(,"schedule":{"type":"calendar","times":)" + times + more + "}");
        definition.erase("subtype");
        Job_Answer const answer = manager_->save(definition, id);
        EXPECT_TRUE(answer) << answer.text;
        return id;
    }
    /** Sets the clock forward to "2026-03-29T01:59:00+0100". */
    void pass_until(char const* text) {
        tm fields{};
        char const* const end = strptime(text, "%Y-%m-%dT%H:%M:%S%z", &fields);
        ASSERT_TRUE(end && !*end) << text;
        long const offset = fields.tm_gmtoff;
        pass(timegm(&fields) - offset - clock_.now());
    }
    /** The levels of all runs, the oldest first. */
    std::vector<std::string> levels() {
        std::vector<Job_Run> all;
        EXPECT_TRUE(jobs_->list({}, all));
        std::vector<std::string> levels;
        for (Job_Run const& run : all)
            levels.insert(levels.begin(), run.subtype);
        return levels;
    }
};

using testing::ElementsAre;

constexpr char WEEK[] = R"({"full":"Sun 02:00","incremental":"Mon..Sat 02:00"})";

TEST_F(Calendar_Test, a_week_has_one_full_backup_and_six_incremental_ones) {
    pass_until("2026-11-21T12:00:00+0000"); // a Saturday
    save_calendar(WEEK);
    for (int day = 0; day < 8; ++day) {
        time_t const next = look();
        pass(next - clock_.now());
    }
    EXPECT_THAT(levels(), ElementsAre("full", "incremental", "incremental", "incremental",
                                      "incremental", "incremental", "incremental"));
    look();
    EXPECT_EQ("full", levels().back());
}

TEST_F(Calendar_Test, the_job_of_each_run_has_its_level) {
    pass_until("2026-11-21T12:00:00+0000");
    std::vector<Job_Definition_Subtype> seen;
    creator_.steps = [&](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        seen.push_back(job.definition()->subtype());
        events.handle_success();
    };
    save_calendar(WEEK);
    pass_until("2026-11-22T02:00:00+0000");
    look();
    pass(DAY);
    look();
    EXPECT_THAT(seen, ElementsAre(JOB_DEFINITION_SUBTYPE_FULL, JOB_DEFINITION_SUBTYPE_INCREMENTAL));
}

TEST_F(Calendar_Test, at_one_minute_the_level_that_covers_most_is_run_alone) {
    save_calendar(R"({"log":"hourly","incremental":"*:00","full":"*:0/30"})");
    pass(HOUR / 2);
    look();
    pass(HOUR / 2);
    look();
    look();
    EXPECT_THAT(levels(), ElementsAre("full", "full"));
}

TEST_F(Calendar_Test, of_what_was_missed_the_level_that_covers_most_is_run_once) {
    pass_until("2026-11-21T12:00:00+0000");
    save_calendar(WEEK);
    look();
    end();
    pass_until("2026-11-24T12:00:00+0000"); // a Tuesday
    begin();
    look();
    look();
    EXPECT_THAT(levels(), ElementsAre("full"));
    EXPECT_LOGGED(LM_INFO, "has been missed: it is started now");
    EXPECT_EQ(clock_.now() + 14 * HOUR, next_run());
}

TEST_F(Calendar_Test, what_was_missed_is_passed_over_without_catching_up) {
    pass_until("2026-11-21T12:00:00+0000");
    save_calendar(WEEK, R"(,"catch_up":false)");
    look();
    end();
    pass_until("2026-11-24T12:00:00+0000");
    begin();
    look();
    EXPECT_EQ(0u, runs());
    EXPECT_LOGGED(LM_WARNING, "has been missed: it does not catch up");
    pass(14 * HOUR);
    look();
    EXPECT_THAT(levels(), ElementsAre("incremental"));
}

TEST_F(Calendar_Test, what_is_due_now_is_run_though_more_was_missed) {
    pass_until("2026-11-21T12:00:00+0000");
    save_calendar(WEEK, R"(,"catch_up":false)");
    end();
    pass_until("2026-11-24T02:01:00+0000");
    begin();
    look();
    EXPECT_THAT(levels(), ElementsAre("incremental")) << "not the full one that was missed";
    EXPECT_LOGGED(LM_WARNING, "has been missed: it does not catch up");
}

TEST_F(Calendar_Test, a_clock_that_jumps_forward_makes_a_run_missed) {
    pass_until("2026-11-21T12:00:00+0000");
    save_calendar(WEEK);
    look();
    pass(5 * DAY);
    look();
    EXPECT_THAT(levels(), ElementsAre("full"));
    EXPECT_LOGGED(LM_INFO, "has been missed: it is started now");
}

TEST_F(Calendar_Test, a_disabled_schedule_makes_up_for_nothing_when_it_is_enabled) {
    pass_until("2026-11-21T12:00:00+0000");
    save_calendar(WEEK);
    ASSERT_TRUE(manager_->change("nightly", json(R"({"enabled":false})")));
    pass(3 * DAY);
    EXPECT_EQ(0u, scheduler_->next_runs(shown(), 5).size());
    look();
    EXPECT_LOGGED(LM_INFO, "it is disabled");
    ASSERT_TRUE(manager_->change("nightly", json(R"({"enabled":true})")));
    look();
    EXPECT_EQ(0u, runs());
    EXPECT_EQ(clock_.now() + 14 * HOUR, next_run());
}

TEST_F(Calendar_Test, new_times_count_from_when_they_were_saved) {
    pass_until("2026-11-21T12:00:00+0000");
    save_calendar(WEEK);
    pass(DAY / 2);
    ASSERT_TRUE(
        manager_->change("nightly", json(R"({"schedule":{"times":{"full":"Sat 13:00"}}})")));
    look();
    EXPECT_EQ(0u, runs()) << "13:00 was before the change";
    EXPECT_EQ("Sat 13:00",
              json_spirit::object_get_str(
                  shown().stored.body["schedule"].get_obj()["times"].get_obj(), "full"));
}

TEST_F(Calendar_Test, five_runs_to_come_are_known_with_their_levels) {
    pass_until("2026-11-21T12:00:00+0000");
    save_calendar(WEEK);
    std::vector<Due_Run> const next = scheduler_->next_runs(shown(), 5);
    ASSERT_EQ(5u, next.size());
    EXPECT_EQ("full", next[0].level);
    EXPECT_EQ("incremental", next[1].level);
    EXPECT_EQ(clock_.now() + 14 * HOUR, next[0].time);
    EXPECT_EQ(clock_.now() + 14 * HOUR + 4 * DAY, next[4].time);
}

TEST_F(Calendar_Test, two_schedules_of_one_minute_both_run) {
    save_calendar(R"({"full":"daily"})", "", "one");
    save_calendar(R"({"incremental":"daily"})", "", "two");
    pass(DAY);
    look();
    EXPECT_THAT(levels(), testing::UnorderedElementsAre("full", "incremental"));
}

TEST_F(Calendar_Test, an_instance_that_is_gone_fails_a_run_with_an_alert) {
    save_calendar(R"({"full":"daily"})");
    is_gone_ = true;
    pass(DAY);
    look();
    std::vector<Job_Run> all;
    ASSERT_TRUE(jobs_->list({}, all));
    ASSERT_EQ(1u, all.size());
    EXPECT_EQ(JOB_STATE_ERROR, all[0].state);
    EXPECT_EQ(1, all[0].alerts);
    EXPECT_LOGGED(LM_ERROR, "was not started: it is gone");
}

TEST_F(Calendar_Test, a_schedule_that_cannot_be_read_any_more_is_told_once) {
    save_calendar(WEEK, R"(,"time_zone":"Europe/Berlin")");
    ASSERT_TRUE(database_->change("damage", [](SQLite::Database& database) {
        database.exec("UPDATE job_definitions SET body=replace(body,'Berlin','Atlantis')");
        return true;
    }));
    pass(10 * DAY);
    EXPECT_EQ(0, look());
    look();
    EXPECT_EQ(0u, runs());
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, "its schedule cannot be read"));
}

/** What is to come in a year. */
class Year_Test : public Calendar_Test {
protected:
    std::vector<std::string> walk(std::string const& times, std::string const& zone) {
        pass_until("2026-01-01T00:00:00+0000");
        save_calendar(times, R"(,"time_zone":")" + zone + "\"");
        Time_Zone shown_by;
        EXPECT_TRUE(Time_Zone::find(zone, shown_by));
        time_t const end = clock_.now() + 365 * DAY;
        std::vector<std::string> all;
        for (Due_Run const& run : scheduler_->next_runs(shown(), 1000)) {
            if (run.time >= end)
                break;
            time_t const wall = run.time + shown_by.offset_at(run.time);
            tm fields{};
            gmtime_r(&wall, &fields);
            char text[32];
            strftime(text, sizeof text, "%m-%d %H:%M", &fields);
            all.push_back(text);
        }
        return all;
    }
    static size_t count(std::vector<std::string> const& all, std::string const& end) {
        return static_cast<size_t>(
            std::ranges::count_if(all, [&](auto const& text) { return text.ends_with(end); }));
    }
};

TEST_F(Year_Test, in_Berlin_a_time_that_is_skipped_comes_at_the_jump) {
    auto const all = walk(R"({"full":"02:30"})", "Europe/Berlin");
    EXPECT_EQ(365u, all.size());
    EXPECT_EQ(364u, count(all, "02:30"));
    EXPECT_EQ(1, std::ranges::count(all, "03-29 03:00"));
    EXPECT_EQ(1, std::ranges::count(all, "10-25 02:30")) << "shown twice, and run once";
}

TEST_F(Year_Test, in_New_York_as_well) {
    auto const all = walk(R"({"full":"Sun 02:15"})", "America/New_York");
    EXPECT_EQ(52u, all.size());
    EXPECT_EQ(51u, count(all, "02:15"));
    EXPECT_EQ(1, std::ranges::count(all, "03-08 03:00"));
    EXPECT_EQ(1, std::ranges::count(all, "11-01 02:15"));
}

TEST_F(Year_Test, on_Lord_Howe_clocks_jump_by_half_an_hour) {
    auto const all = walk(R"({"full":"02:15","log":"01:45"})", "Australia/Lord_Howe");
    EXPECT_EQ(730u, all.size());
    EXPECT_EQ(364u, count(all, "02:15"));
    EXPECT_EQ(365u, count(all, "01:45"));
    EXPECT_EQ(1, std::ranges::count(all, "10-04 02:30")) << "02:00 is followed by 02:30";
    EXPECT_EQ(1, std::ranges::count(all, "04-05 01:45")) << "shown twice, and run once";
}

TEST_F(Year_Test, a_31st_comes_seven_times) {
    EXPECT_THAT(walk(R"({"full":"*-*-31 03:00"})", "Europe/Berlin"),
                ElementsAre("01-31 03:00", "03-31 03:00", "05-31 03:00", "07-31 03:00",
                            "08-31 03:00", "10-31 03:00", "12-31 03:00"));
}

} // namespace
