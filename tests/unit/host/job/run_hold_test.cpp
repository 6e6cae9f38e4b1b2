#include "host/job/run_hold.h"

#include "host/agent/host_services.h"
#include "host/job/job_backend.h"
#include "tests/support/log_capture.h"
#include "tests/unit/host/job/test_job.h"

#include <condition_variable>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace {

using testing::ElementsAre;
using Names = std::set<std::string>;

/** Answers as the test says, and records what it is told. */
class Answering_Backend : public Job_Backend {
public:
    std::string new_run_id(Job const&) override { return "11112233-4455-6677-8899-aabbccddeeff"; }
    void state_changed(Job const&, Job_State) override {}
    void progressed(Job const&, Job_Progress const&) override {}
    void ended(Job const&, Job_Outcome const&) override {}
    void finished(Job const&) override {}
    void synced(Job const&) override {}
    void alert(Job const&, Job_Alert const&) override {}
    std::shared_ptr<ACE_Log_Msg_Callback> log_callback(Job const&) override { return nullptr; }

    Hold_Answer hold(Job const&, Names const& resources) override {
        std::lock_guard const guard(mutex_);
        asked_ = resources;
        ++questions_;
        changed_.notify_all();
        return answer_;
    }
    void release(Job const&, Names const& resources) override {
        std::lock_guard const guard(mutex_);
        events_.push_back("release " + std::to_string(resources.size()));
    }
    void waiting(Job const&, std::string const& what) override {
        std::lock_guard const guard(mutex_);
        events_.push_back("waiting " + what);
        changed_.notify_all();
    }

    void answer(Hold_Answer answer) {
        std::lock_guard const guard(mutex_);
        answer_ = std::move(answer);
    }
    std::vector<std::string> events() const {
        std::lock_guard const guard(mutex_);
        return events_;
    }
    Names asked() const {
        std::lock_guard const guard(mutex_);
        return asked_;
    }
    /** Waits until so many questions were asked. */
    void await(int questions) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return questions_ >= questions; });
    }

    /** Waits until so many more questions were asked. @return how many there were by then */
    int await_more(int questions) {
        std::unique_lock lock(mutex_);
        int const wanted = questions_ + questions;
        changed_.wait(lock, [&] { return questions_ >= wanted; });
        return questions_;
    }
    int questions() const {
        std::lock_guard const guard(mutex_);
        return questions_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    Hold_Answer answer_;
    Names asked_;
    int questions_ = 0;
    std::vector<std::string> events_;
};

class Run_Hold_Test : public testing::Test {
protected:
    Run_Hold_Test() { Host_Services::instance().jobs(backend_); }
    ~Run_Hold_Test() override { Host_Services::instance().jobs(nullptr); }

    std::shared_ptr<Answering_Backend> const backend_ = std::make_shared<Answering_Backend>();
    Job_var job_{new Test_Job(make_definition()), false};
};

TEST_F(Run_Hold_Test, what_is_free_is_held_until_the_end_of_the_scope) {
    Names const resources{Run_Hold::metadata("h1"), Run_Hold::policy("h1", "pool")};
    {
        Run_Hold const hold(*job_, resources);
        EXPECT_TRUE(hold);
        EXPECT_EQ(resources, backend_->asked());
        EXPECT_THAT(backend_->events(), ElementsAre());
    }
    EXPECT_THAT(backend_->events(), ElementsAre("release 2"));
}

TEST_F(Run_Hold_Test, it_waits_shows_for_what_and_goes_on) {
    backend_->answer({Hold_Answer::WAIT, "job \"x\"\nof instance \"c2\""});
    std::thread beside([&] {
        backend_->await(3);
        backend_->answer({});
    });
    {
        Run_Hold const hold(*job_, {Run_Hold::metadata("h1")});
        EXPECT_TRUE(hold);
    }
    beside.join();
    auto const events = backend_->events();
    ASSERT_EQ(3u, events.size()) << "told once, however often it asked";
    EXPECT_TRUE(events[0].starts_with("waiting job \"x\"")) << events[0];
    EXPECT_EQ(std::string::npos, events[0].find('\n'));
    EXPECT_EQ("waiting ", events[1]);
    EXPECT_EQ("release 1", events[2]);
    EXPECT_TRUE(Log_Capture::instance().claim(LM_INFO, "Waiting for job \"x\""));
}

TEST_F(Run_Hold_Test, a_cancel_ends_the_wait_and_gives_up_the_place) {
    backend_->answer({Hold_Answer::WAIT, "job x"});
    for (Job_State const state : {JOB_STATE_CANCELING, JOB_STATE_ABORTING}) {
        job_->state(JOB_STATE_RUNNING);
        std::thread beside([&] {
            backend_->await(2);
            job_->state(state);
        });
        {
            Run_Hold const hold(*job_, {Run_Hold::metadata("h1")});
            EXPECT_FALSE(hold);
        }
        beside.join();
        EXPECT_EQ("release 1", backend_->events().back());
        EXPECT_TRUE(Log_Capture::instance().claim(LM_INFO, "Canceled while waiting for job x\n"));
    }
}

TEST_F(Run_Hold_Test, a_canceled_run_asks_for_nothing_more) {
    backend_->answer({Hold_Answer::WAIT, "job x"});
    for (bool const now : {false, true}) {
        Test_Job* const job = new Test_Job(make_definition());
        job_ = Job_var(job, false);
        ASSERT_EQ(0, job->start());
        job->during_call = [=] { job->state_i(JOB_STATE_CANCELING); };
        int questions = 0;
        std::thread beside([&] {
            questions = backend_->await_more(8); // the pauses have become long
            EXPECT_EQ(0, now ? job->abort_now() : job->abort());
        });
        {
            Run_Hold const hold(*job, {Run_Hold::node("db1")});
            EXPECT_FALSE(hold);
        }
        beside.join();
        EXPECT_EQ(questions, backend_->questions());
        EXPECT_EQ("release 1", backend_->events().back());
        job->complete();
        EXPECT_TRUE(Log_Capture::instance().claim(LM_INFO, "Canceled while waiting for job x\n"));
    }
}

TEST_F(Run_Hold_Test, a_refusal_is_told) {
    backend_->answer({Hold_Answer::REFUSED, "it is not a run"});
    Run_Hold const hold(*job_, {Run_Hold::metadata("h1")});
    EXPECT_FALSE(hold);
    EXPECT_LOGGED(LM_ERROR, "Failed to reserve what the run uses, it is not a run\n");
}

TEST_F(Run_Hold_Test, without_a_service_nothing_is_held) {
    Host_Services::instance().jobs(nullptr);
    Run_Hold const hold(*job_, {Run_Hold::metadata("h1")});
    EXPECT_FALSE(hold);
    EXPECT_LOGGED(LM_ERROR, "Failed to reserve what the run uses, no job service is installed\n");
    Host_Services::instance().jobs(backend_);
}

TEST(Run_Hold_Resource, names_say_what_they_are_of) {
    Run_Hold::Resource resource;
    EXPECT_TRUE(Run_Hold::parse(Run_Hold::instance("c1"), resource));
    EXPECT_EQ(Run_Hold::Resource::INSTANCE, resource.kind);
    EXPECT_EQ("c1", resource.owner);
    EXPECT_TRUE(Run_Hold::parse(Run_Hold::metadata("h1"), resource));
    EXPECT_EQ(Run_Hold::Resource::METADATA, resource.kind);
    EXPECT_EQ("h1", resource.owner);
    EXPECT_TRUE(Run_Hold::parse(Run_Hold::policy("h1", "p1"), resource));
    EXPECT_EQ(Run_Hold::Resource::POLICY, resource.kind);
    EXPECT_EQ("h1", resource.owner);
    EXPECT_TRUE(Run_Hold::parse(Run_Hold::node("omm@DB1.example"), resource));
    EXPECT_EQ(Run_Hold::Resource::NODE, resource.kind);
    EXPECT_EQ("db1.example", resource.owner);
    EXPECT_TRUE(Run_Hold::parse(Run_Hold::node("fe80::1%eth0"), resource));
}

TEST(Run_Hold_Resource, anything_else_is_refused) {
    Run_Hold::Resource resource;
    for (char const* name : {"", "c1", "other/h1", "metadata/", "metadata/..", "metadata/a/b",
                             "policy/h1", "policy/h1/", "policy/h1/../x", "policy//p",
                             "instance/a\n", "node/", "node/a b", "node/a/b", "node/-x"})
        EXPECT_FALSE(Run_Hold::parse(name, resource)) << name;
}

} // namespace
