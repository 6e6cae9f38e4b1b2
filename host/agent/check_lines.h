#ifndef HOST_AGENT_CHECK_LINES_H
#define HOST_AGENT_CHECK_LINES_H

#include "host/agent/instance_handler.h"

#include <string>
#include <utility>
#include <vector>

/** Base of a check: its lines, in the order in which it finds them. */
class Check_Lines {
protected:
    void good(std::string subject, std::string text) {
        lines_.push_back({std::move(subject), true, std::move(text), ""});
    }
    /** @param advice  what to do */
    void bad(std::string subject, std::string text, std::string advice) {
        lines_.push_back({std::move(subject), false, std::move(text), std::move(advice)});
    }

    std::vector<Instance_Check> lines_;
};

#endif
