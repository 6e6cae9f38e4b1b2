#ifndef TESTS_UNIT_AGENT_JOBS_STEPPED_JOB_H
#define TESTS_UNIT_AGENT_JOBS_STEPPED_JOB_H

#include "host/job/job_creator.h"
#include "host/job/job_event_handler.h"
#include "job/controllable_job_t.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

using Job_Steps = std::function<void(Job& job, Job_Event_Handler& events)>;

/** Where runs wait until a test lets them go. */
class Gate {
public:
    void open() {
        std::lock_guard const guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    /** Waits until the gate is open, or the run is to end. */
    void pass(Job const& job) {
        std::unique_lock lock(mutex_);
        ++arrived_;
        changed_.notify_all();
        while (!open_ && !is_cancel_state(job.state()))
            changed_.wait_for(lock, std::chrono::milliseconds(2));
    }
    /** Waits until the gate is open, whatever becomes of the run. */
    void pass_unheeding() {
        std::unique_lock lock(mutex_);
        ++arrived_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return open_; });
    }
    /** Waits until so many runs have come; false after a minute. */
    bool wait_for_arrivals(size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::minutes(1), [&] { return arrived_ >= count; });
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    size_t arrived_ = 0;
};

/** Carries out the steps of its job. */
class Steps_Executor {
public:
    explicit Steps_Executor(Job& job) : job_(job) {}
    bool execute(Job::Action_Options const* options);
    void remove();
    void update(Job_Definition_var) {}
    void rollback() {}
    bool setup_ondemand() { return true; }
    void remove_ondemand() {}

private:
    Job& job_;
};

class Stepped_Job : public Controllable_Job_T<Steps_Executor> {
public:
    Stepped_Job(Job_Definition_var definition, Job_Steps steps, std::atomic<int>* removals)
        : Controllable_Job_T<Steps_Executor>(definition),
          steps_(std::move(steps)),
          removals_(removals) {}
    Job_Steps const steps_;
    std::atomic<int>* const removals_;
};

inline bool Steps_Executor::execute(Job::Action_Options const*) {
    Job_Event_Handler events(job_);
    static_cast<Stepped_Job&>(job_).steps_(job_, events);
    return true;
}

inline void Steps_Executor::remove() {
    ++*static_cast<Stepped_Job&>(job_).removals_;
}

/** Makes jobs that all carry out the same steps. */
class Stepped_Job_Creator : public Job_Creator {
public:
    Job_var create(Job_Definition_var definition) override {
        if (refuse)
            return Job_var();
        ++created;
        return Job_var(new Stepped_Job(definition, steps, &removals), false);
    }

    Job_Steps steps = [](Job&, Job_Event_Handler& events) {
        events.handle_start_job();
        events.handle_success();
    };
    std::string fault_of(Job_Definition const& definition) override {
        bool const is_level =
            fault_of_level == job_def_subtype_to_string(definition.subtype(), nullptr);
        return is_level ? "not this level" : fault;
    }

    bool refuse = false;
    std::string fault;          ///< of every definition
    std::string fault_of_level; ///< the level whose definitions have a fault; "" for none
    std::atomic<int> created = 0;
    std::atomic<int> removals = 0;
};

/** Steps that begin, wait at the gate, and end as they were told to. */
inline Job_Steps steps_through(Gate& gate) {
    return [&gate](Job& job, Job_Event_Handler& events) {
        events.handle_start_job();
        gate.pass(job);
        if (is_cancel_state(job.state()))
            events.handle_canceled();
        else
            events.handle_success();
    };
}

#endif
