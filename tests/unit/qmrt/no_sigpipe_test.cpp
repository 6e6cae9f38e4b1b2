#include "qmrt/no_sigpipe.h"

#include "qmrt/file.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

/** Writes where nobody reads any more. */
int write_to_nobody() {
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    close(ends[0]);
    File_Descriptor const end(ends[1]);
    return write(end.get(), "x", 1) == -1 ? errno : 0;
}

bool is_blocked() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGPIPE) == 1;
}

bool is_pending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
}

TEST(No_Sigpipe_Test, a_write_to_nobody_is_an_error_and_no_signal) {
    {
        No_Sigpipe const guard;
        EXPECT_EQ(EPIPE, write_to_nobody());
        EXPECT_TRUE(is_pending());
    }
    EXPECT_FALSE(is_pending());
    EXPECT_FALSE(is_blocked());
}

TEST(No_Sigpipe_Test, without_it_the_signal_ends_the_process) {
    EXPECT_EXIT(write_to_nobody(), testing::KilledBySignal(SIGPIPE), "");
}

TEST(No_Sigpipe_Test, a_signal_that_was_pending_before_stays) {
    No_Sigpipe const outer;
    write_to_nobody();
    {
        No_Sigpipe const inner;
        write_to_nobody();
    }
    EXPECT_TRUE(is_pending());
    EXPECT_TRUE(is_blocked());
}

TEST(No_Sigpipe_Test, errno_stays) {
    {
        No_Sigpipe const guard;
        errno = EDOM;
    }
    EXPECT_EQ(EDOM, errno);
}

} // namespace
