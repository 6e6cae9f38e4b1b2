#ifndef TESTS_SUPPORT_CHILD_OPTIONS_H
#define TESTS_SUPPORT_CHILD_OPTIONS_H

#include "host/process/process_options.h"
#include "tests/support/test_child_path.h"

#include <ace/Process.h>

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>

/** Options of the size that the module uses, for a run of tests/support/test_child.cpp. */
class Child_Options : public ACE_Process_Options {
public:
    /** @param verbs  what the child does, as a command line that is split by the usual rules */
    explicit Child_Options(std::string const& verbs, size_t command_line_size = 1024)
        : ACE_Process_Options(true, command_line_size, 16384, 512, 128) {
        handle_inheritance(0);
        EXPECT_TRUE(set_command_line(*this, "%s %s", ZENBRAK3_TEST_CHILD, verbs.c_str()));
    }
};

/** Passes when this process has no child left, not even one that has ended and was not waited for.
 */
inline void expect_no_children() {
    siginfo_t info = {};
    EXPECT_TRUE(waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD)
        << "a child is left, pid " << info.si_pid;
}

#endif
