#include "host/process/child_end.h"

#include "qmrt/format.h"

#include <cstring>

namespace {

std::string describe_signal(int signal) {
    char const* const text = sigdescr_np(signal);
    return text ? string_sprintf("%d (%s)", signal, text) : std::to_string(signal);
}

} // namespace

std::string Child_End::describe() const {
    switch (kind) {
    case NOT_STARTED:
        return reason.empty() ? "was not started" : "was not started: " + reason;
    case RUNNING:
        return "is running";
    case TIMED_OUT:
        return "has not ended in time";
    case EXITED:
        return "exited with status " + std::to_string(code);
    case SIGNALLED:
        return "was ended by signal " + describe_signal(code) +
               (core_dumped ? ", core dumped" : "");
    case STOPPED:
        return "was ended, " + reason;
    case LOST:
        return "has ended, but how is not known: this process ignores SIGCHLD, or waited for it "
               "elsewhere";
    }
    return "";
}
