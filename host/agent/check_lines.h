#ifndef HOST_AGENT_CHECK_LINES_H
#define HOST_AGENT_CHECK_LINES_H

#include "host/agent/instance_check.h"

#include <string>
#include <utility>
#include <vector>

/**
 * Base of a check: its lines, in the order in which it finds them. Once the work of the calling
 * thread is cancelled, tools are ended before they answer: a failure is unknown from then on.
 */
class Check_Lines {
protected:
    void good(std::string subject, std::string text) {
        lines_.push_back({std::move(subject), true, std::move(text), ""});
    }
    /** @param advice  what to do */
    void bad(std::string subject, std::string text, std::string advice);
    /** It works, and somebody has to look at it nevertheless. */
    void warn(std::string subject, std::string text, std::string advice);
    /** It could not be looked at. */
    void unknown(std::string subject, std::string text, std::string advice);
    /** Adds a number to the last line. */
    void measure(std::string name, double value, char const* unit);
    void append(std::vector<Instance_Check> const& lines) {
        lines_.insert(lines_.end(), lines.begin(), lines.end());
    }

    std::vector<Instance_Check> lines_;
};

#endif
