#ifndef TESTS_UNIT_HOST_JOB_TEST_JOB_H
#define TESTS_UNIT_HOST_JOB_TEST_JOB_H

#include "host/job/job.h"

#include <vector>

/** A job without a thread: records what it is asked to do; the test plays the run. */
class Test_Job : public Job {
public:
    using Job::complete;
    using Job::Job;
    using Job::set_job_thread;
    using Job::setup_ondemand_by_job;
    using Job::state_i;

    ~Test_Job() override {
        if (destroyed)
            *destroyed = true;
    }

    bool can_update_i(Job_State state) override { return updatable && Job::can_update_i(state); }

    std::vector<std::string> calls;
    int result = 0;
    bool updatable = true;
    bool* destroyed = nullptr;
    std::function<void()> during_call;

protected:
    int start_i(Action_Options const*) override { return called("start"); }
    int stop_i(Action_Options const*) override { return called("stop"); }
    int pause_i(Action_Options const*) override { return called("pause"); }
    int resume_i(Action_Options const*) override { return called("resume"); }
    int abort_i(Action_Options const*) override { return called("abort"); }
    int switch_i(Action_Options const*) override { return called("switch"); }
    int remove_i(bool with_data, Action_Options const*) override {
        return called(with_data ? "remove with data" : "remove");
    }
    int update_i(Job_Definition_var definition) override {
        return called("update to " + definition->name());
    }
    int rollback_i() override { return called("rollback"); }
    int setup_ondemand_i() override { return called("setup_ondemand"); }

private:
    int called(std::string const& name) {
        calls.push_back(name);
        if (during_call)
            during_call();
        return result;
    }
};

inline Job_Definition_var make_definition(std::string const& name = "nightly") {
    Job_Definition_var definition(new Job_Definition);
    definition->id("00112233-4455-6677-8899-aabbccddeeff");
    definition->uid("ffeeddcc-bbaa-9988-7766-554433221100");
    definition->name(name);
    definition->type(JOB_DEFINITION_BACKUP);
    return definition;
}

#endif
