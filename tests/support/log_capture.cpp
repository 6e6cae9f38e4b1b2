#include "tests/support/log_capture.h"

#include <ace/Log_Record.h>

Log_Capture& Log_Capture::instance() {
    static Log_Capture capture;
    return capture;
}

bool Log_Capture::claim(ACE_Log_Priority priority, std::string const& text) {
    std::lock_guard const guard(mutex_);
    for (Line& line : lines_) {
        if (!line.claimed && line.priority == priority &&
            line.text.find(text) != std::string::npos) {
            line.claimed = true;
            return true;
        }
    }
    return false;
}

size_t Log_Capture::claim_all(ACE_Log_Priority priority, std::string const& text) {
    size_t count = 0;
    while (claim(priority, text))
        ++count;
    return count;
}

bool Log_Capture::contains(std::string const& text) const {
    std::lock_guard const guard(mutex_);
    for (Line const& line : lines_)
        if (line.text.find(text) != std::string::npos)
            return true;
    return false;
}

std::string Log_Capture::dump() const {
    std::lock_guard const guard(mutex_);
    std::string text;
    for (Line const& line : lines_)
        text += std::string(ACE_Log_Record::priority_name(line.priority)) + " " + line.text;
    return text;
}

std::vector<Log_Capture::Line> Log_Capture::unclaimed() const {
    std::lock_guard const guard(mutex_);
    std::vector<Line> result;
    for (Line const& line : lines_)
        if (!line.claimed && line.priority >= LM_WARNING)
            result.push_back(line);
    return result;
}

void Log_Capture::clear() {
    std::lock_guard const guard(mutex_);
    lines_.clear();
}

int Log_Capture::open(char const*) {
    return 0;
}

int Log_Capture::reset() {
    return 0;
}

int Log_Capture::close() {
    return 0;
}

ssize_t Log_Capture::log(ACE_Log_Record& record) {
    std::lock_guard const guard(mutex_);
    lines_.push_back({static_cast<ACE_Log_Priority>(record.type()), record.msg_data(), false});
    return 0;
}
