#ifndef TESTS_UNIT_JOB_TEST_EXECUTOR_H
#define TESTS_UNIT_JOB_TEST_EXECUTOR_H

#include "host/job/job_event_handler.h"
#include "job/controllable_job_t.h"
#include "job/default_job_t.h"
#include "job/job_executor_t.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/** What an executor is to do, and what it was asked; shared by the test and the job's thread. */
class Play {
public:
    using Texts = std::vector<std::string>;

    std::function<bool(Job&, Job::Action_Options const*)> execute;
    bool active = true;
    bool condition = true;
    /** Of remove() and the like. */
    bool result = true;
    std::function<void()> during_rollback;

    void called(std::string const& call) {
        std::lock_guard const guard(mutex_);
        calls_.push_back(call);
        changed_.notify_all();
    }
    /** Waits until that has been called; false after a minute. */
    bool wait_for(std::string const& call) const {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::minutes(1), [&] {
            return std::find(calls_.begin(), calls_.end(), call) != calls_.end();
        });
    }
    Texts calls() const {
        std::lock_guard const guard(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Texts calls_;
};

class Test_Source : public Job_Source {
public:
    explicit Test_Source(Play& play) : play_(play) {}
    int generate(yajl_gen) override { return 0; }
    Play& play_;
};

class Other_Source : public Job_Source {
public:
    int generate(yajl_gen) override { return 0; }
};

class Test_Options : public Job_Options {
public:
    int generate(yajl_gen) override { return 0; }
};

class Other_Options : public Job_Options {
public:
    int generate(yajl_gen) override { return 0; }
};

/** Does what its source's Play says. */
class Test_Executor : public Job_Executor_T<Test_Source, Test_Options, Job_Event_Handler> {
public:
    using Base = Job_Executor_T<Test_Source, Test_Options, Job_Event_Handler>;
    using Base::act_;
    using Base::def_;
    using Base::execute_post_action;
    using Base::execute_pre_action;
    using Base::execute_precondition;
    using Base::job_;
    using Base::opts_;
    using Base::src_;
    using Base::tgt_;

    explicit Test_Executor(Job& job) : Base(job) { tell("made"); }
    ~Test_Executor() override { tell("destroyed"); }

    bool remove() override { return asked("remove"); }
    bool setup_ondemand() override { return asked("setup_ondemand"); }
    bool remove_ondemand() override { return asked("remove_ondemand"); }
    bool update(Job_Definition_var definition) override {
        return asked("update to " + definition->name());
    }
    bool rollback() override {
        bool const result = asked("rollback");
        if (src_->play_.during_rollback)
            src_->play_.during_rollback();
        return result;
    }

protected:
    bool execute_i(Job::Action_Options const* options) override {
        tell("execute");
        return !src_->play_.execute || src_->play_.execute(job_, options);
    }
    bool check_condition() override {
        tell("condition");
        return src_->play_.condition;
    }
    bool is_active(Job::Action_Options const*) override {
        tell("active?");
        return src_->play_.active;
    }

private:
    void tell(std::string const& call) {
        if (src_)
            src_->play_.called(call);
    }
    bool asked(std::string const& call) {
        tell(call);
        return src_->play_.result;
    }
};

/** The frame's jobs with their protected halves in the open. */
template <typename Base>
class Open_Job_T : public Base {
public:
    using Base::abort_i;
    using Base::Base;
    using Base::pause_i;
    using Base::remove_i;
    using Base::resume_i;
    using Base::rollback_i;
    using Base::run_i;
    using Base::run_rollback;
    using Base::setup_ondemand_i;
    using Base::start_i;
    using Base::stop_i;
    using Base::switch_i;
    using Base::update_i;

    ~Open_Job_T() override {
        if (play)
            play->called("job destroyed");
    }
    Play* play = nullptr;
};

using Default_Job = Open_Job_T<Default_Job_T<Test_Executor>>;
using Controllable_Job = Open_Job_T<Controllable_Job_T<Test_Executor>>;

inline Job_Definition_var make_definition(Play& play) {
    Job_Definition_var definition(new Job_Definition);
    definition->type(JOB_DEFINITION_BACKUP);
    definition->id("00112233-4455-6677-8899-aabbccddeeff");
    definition->uid("ffeeddcc-bbaa-9988-7766-554433221100");
    definition->name("nightly");
    definition->source(Job_Source_var(new Test_Source(play)));
    definition->options(Job_Options_var(new Test_Options));
    return definition;
}

#endif
