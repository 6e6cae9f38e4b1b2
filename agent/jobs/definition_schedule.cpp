#include "agent/jobs/definition_schedule.h"

#include "agent/jobs/member_reader.h"

#include <algorithm>
#include <iterator>

using json_spirit::Object;

namespace {

/** In the order of what they cover. */
constexpr char const* LEVELS[] = {"full", "cumulative", "incremental", "log"};

} // namespace

bool Definition_Schedule::parse(Object const& schedule, Definition_Schedule& result,
                                std::string& error) {
    error.clear();
    Definition_Schedule parsed;
    std::string type, at, zone, reason;
    Object const* times = nullptr;
    Member_Reader reader(schedule, "schedule.", error);
    reader.required_text("type", type);
    bool const has_at = reader.text("at", at);
    reader.text("time_zone", zone);
    reader.flag("catch_up", parsed.catch_up_);
    if (reader.object("times", times) && type != "calendar")
        reader.blame("times", "only a schedule of type calendar has times for each level");
    if (times && has_at)
        reader.blame("times", "give either this or schedule.at");
    if (!Time_Zone::find(zone, parsed.zone_))
        reader.blame("time_zone", "\"" + names::shown(zone) +
                                      "\" is not a known time zone (expected for example "
                                      "Europe/Berlin)");
    if (!reader.finish())
        return false;
    parsed.calendar_ = type == "calendar";
    if (!times &&
        !Job_Schedule_Text::parse(type, at, parsed.times_.front().text, reason, parsed.zone_)) {
        error = "schedule: " + reason;
        return false;
    }
    if (times) {
        parsed.times_.clear();
        Member_Reader levels(*times, "schedule.times.", error);
        for (char const* name : LEVELS) {
            Level level{name};
            if (!levels.text(name, at))
                continue;
            if (!Job_Schedule_Text::parse(type, at, level.text, reason, parsed.zone_))
                levels.blame(name, reason);
            parsed.times_.push_back(level);
        }
        if (levels.finish() && parsed.times_.empty())
            reader.blame("times", "name at least one level and its times");
        if (!error.empty())
            return false;
    }
    result = parsed;
    return true;
}

std::vector<std::string> Definition_Schedule::levels() const {
    std::vector<std::string> names;
    for (Level const& level : times_)
        if (!level.name.empty())
            names.push_back(level.name);
    return names;
}

Due_Run Definition_Schedule::next(time_t after) const {
    Due_Run next;
    for (Level const& level : times_)
        if (time_t const time = level.text.next_run(after);
            time && (!next.time || time < next.time))
            next = {time, level.name};
    return next;
}

std::vector<Due_Run> Definition_Schedule::next_runs(time_t after, size_t count) const {
    std::vector<Due_Run> runs;
    if (type() == Job_Schedule::TYPE_CONTINUOUS)
        count = std::min<size_t>(count, 1); // the others depend on how long that one takes
    for (Due_Run run = next(after); run.time && runs.size() < count; run = next(run.time))
        runs.push_back(run);
    return runs;
}

Due_Run Definition_Schedule::due(time_t since, time_t now) const {
    Due_Run due = next(since);
    if (!due.time || due.time > now)
        return {};
    for (Level const& level : times_)
        if (time_t const time = level.text.next_run(since); time && time <= now) {
            due.level = level.name; // the first covers most
            break;
        }
    return due;
}
