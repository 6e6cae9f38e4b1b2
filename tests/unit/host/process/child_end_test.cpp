#include "host/process/child_end.h"

#include <csignal>
#include <gtest/gtest.h>

namespace {

Child_End make(Child_End::Kind kind, int code = 0) {
    Child_End end;
    end.kind = kind;
    end.code = code;
    return end;
}

TEST(Child_End, only_an_exit_with_0_is_a_success) {
    EXPECT_TRUE(make(Child_End::EXITED, 0).success());
    EXPECT_FALSE(make(Child_End::EXITED, 1).success());
    for (Child_End::Kind const kind : {Child_End::NOT_STARTED, Child_End::RUNNING,
                                       Child_End::TIMED_OUT, Child_End::SIGNALLED, Child_End::LOST})
        EXPECT_FALSE(make(kind).success()) << kind;
}

TEST(Child_End, the_status_is_minus_1_for_all_but_an_exit) {
    EXPECT_EQ(0, make(Child_End::EXITED, 0).status());
    EXPECT_EQ(255, make(Child_End::EXITED, 255).status());
    for (Child_End::Kind const kind : {Child_End::NOT_STARTED, Child_End::RUNNING,
                                       Child_End::TIMED_OUT, Child_End::SIGNALLED, Child_End::LOST})
        EXPECT_EQ(-1, make(kind, 9).status()) << kind;
}

TEST(Child_End, describes_itself) {
    EXPECT_EQ("exited with status 3", make(Child_End::EXITED, 3).describe());
    EXPECT_EQ("was ended by signal 9 (Killed)", make(Child_End::SIGNALLED, SIGKILL).describe());
    Child_End crash = make(Child_End::SIGNALLED, SIGSEGV);
    crash.core_dumped = true;
    EXPECT_EQ("was ended by signal 11 (Segmentation fault), core dumped", crash.describe());
    EXPECT_EQ("was ended by signal 40", make(Child_End::SIGNALLED, 40).describe());
    EXPECT_EQ("is running", make(Child_End::RUNNING).describe());
    EXPECT_EQ("has not ended in time", make(Child_End::TIMED_OUT).describe());
    EXPECT_EQ("was not started", Child_End().describe());
    Child_End refused;
    refused.reason = "the command line is empty";
    EXPECT_EQ("was not started: the command line is empty", refused.describe());
    Child_End stopped = make(Child_End::STOPPED);
    stopped.reason = "it took too long";
    EXPECT_EQ("was ended, it took too long", stopped.describe());
    EXPECT_NE(std::string::npos, make(Child_End::LOST).describe().find("ignores SIGCHLD"));
}

} // namespace
