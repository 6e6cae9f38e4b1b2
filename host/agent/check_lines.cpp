#include "host/agent/check_lines.h"

#include "host/process/cancellation.h"

void Check_Lines::bad(std::string subject, std::string text, std::string advice) {
    std::shared_ptr<Cancellation> const work = Cancellation::current();
    if (work && work->cancelled())
        return unknown(std::move(subject), "no answer within the time of the check",
                       "look for a program or a host that hangs, or give the check more time: "
                       "--timeout");
    lines_.push_back({std::move(subject), false, std::move(text), std::move(advice)});
}

void Check_Lines::warn(std::string subject, std::string text, std::string advice) {
    lines_.push_back({std::move(subject), true, std::move(text), std::move(advice)});
    lines_.back().doubtful = true;
}

void Check_Lines::unknown(std::string subject, std::string text, std::string advice) {
    lines_.push_back({std::move(subject), false, std::move(text), std::move(advice)});
    lines_.back().doubtful = true;
}

void Check_Lines::measure(std::string name, double value, char const* unit) {
    if (lines_.empty())
        return;
    lines_.back().measure = std::move(name);
    lines_.back().value = value;
    lines_.back().unit = unit;
}
