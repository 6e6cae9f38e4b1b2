#ifndef TESTS_INTEGRATION_AGENT_COMMAND_FIXTURE_H
#define TESTS_INTEGRATION_AGENT_COMMAND_FIXTURE_H

#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/log_capture.h"
#include "tests/support/program_run.h"
#include "tests/support/scripted_agent.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

inline Object const RUN{{"run_id", "0f3a91c2-0000"}, {"type", "backup"}, {"instance", "prod"}};

inline Object run_in(char const* state, Object more = {}) {
    more.insert(RUN.begin(), RUN.end());
    more["state"] = state;
    return more;
}

/** Runs the command, one at a time. */
class Command_Run_Test : public testing::Test {
protected:
    void start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), ZENBRAK3_COMMAND);
        child_.emplace(arguments, setting_);
    }
    /** Runs the command to its end. */
    int run(std::vector<std::string> const& arguments) {
        start(arguments);
        return child_->wait();
    }
    std::string out() const { return child_->out(); }
    std::string const& err() const { return child_->err(); }

    Program_Run::Setting setting_;
    std::optional<Program_Run> child_;
};

class Agent_Command_Test : public Command_Run_Test {
protected:
    Agent_Command_Test() {
        setting_.env = {{"LANG", "C.UTF-8"},
                        {"TZ", "UTC"},
                        {"PATH", "/usr/bin:/bin"},
                        {"ZENBRAK3_SOCKET", agent_->path()}};
        agent_->on("instance.show", Object{{"name", "prod"}, {"uuid", "u-1"}});
        agent_->on("job.start", Object{{"run_id", "0f3a91c2-0000"}, {"definition", "d-1"}});
    }

    int back_up(std::vector<Value> const& states) {
        agent_->on("job.watch", states);
        return run({"backup", "prod", "--pool", "main", "--interval", "0.01"});
    }

    std::optional<Scripted_Agent> agent_{std::in_place};
};

#endif
