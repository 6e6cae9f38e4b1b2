#ifndef TESTS_UNIT_AGENT_CLI_COMMAND_RUN_H
#define TESTS_UNIT_AGENT_CLI_COMMAND_RUN_H

#include "agent/cli/command_line.h"
#include "tests/unit/agent/cli/scripted_connection.h"

#include <gtest/gtest.h>

/** Runs command lines against a scripted agent. */
class Command_Run : public testing::Test {
protected:
    /** Keeps what is printed. @return the exit status */
    int run(std::vector<char const*> arguments) {
        arguments.insert(arguments.begin(), "zenbrak3");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        int status = -1;
        Command_Line line;
        if (line.parse(static_cast<int>(arguments.size()), arguments.data(), status)) {
            Command_Context context(agent_, Terminal{false, true, 80}, line.json(), line.list());
            status = line.run(context);
        }
        out_ = testing::internal::GetCapturedStdout();
        err_ = testing::internal::GetCapturedStderr();
        return status;
    }

    Scripted_Connection agent_;
    std::string out_;
    std::string err_;
};

#endif
