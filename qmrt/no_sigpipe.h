#ifndef QMRT_NO_SIGPIPE_H
#define QMRT_NO_SIGPIPE_H

#include <cerrno>
#include <csignal>
#include <ctime>

/**
 * Turns the SIGPIPE of a write into its EPIPE alone, for the calling thread and its scope. The
 * process's own handling of the signal is not touched.
 */
class No_Sigpipe {
public:
    No_Sigpipe() {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
    }
    ~No_Sigpipe() {
        int const error = errno;
        timespec const now = {};
        // one that somebody else left pending stays theirs
        if (!was_pending_)
            sigtimedwait(&sigpipe_, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
        errno = error;
    }
    No_Sigpipe(No_Sigpipe const&) = delete;
    No_Sigpipe& operator=(No_Sigpipe const&) = delete;

private:
    sigset_t sigpipe_;
    sigset_t before_;
    bool was_pending_;
};

#endif
