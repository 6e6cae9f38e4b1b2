#include "agent/jobs/job_schedule_text.h"

#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/natoi.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr time_t MINUTE = 60;
constexpr time_t HOUR = 60 * MINUTE;
constexpr time_t DAY = 24 * HOUR;
/** There is a 29th of February in any eight years, a first of it on a Sunday in any twelve. */
constexpr time_t HORIZON = 13 * 366 * DAY;
constexpr time_t MAX_PAUSE = 366 * DAY;
/** More than any zone is away from UTC. */
constexpr time_t WIDEST_OFFSET = 30 * HOUR;

constexpr char const* SCHEDULE_TYPES[] = {"none",   "once",    "hourly",     "daily",
                                          "weekly", "monthly", "continuous", "ondemand"};
static_assert(std::size(SCHEDULE_TYPES) == Job_Schedule::TYPE_ONDEMAND + 1);
constexpr char CALENDAR[] = "calendar"; // for the module this is TYPE_DAILY

/** The clock was set back a little earlier, and shows this time for the second time. */
bool shown_before(Time_Zone const& zone, time_t time) {
    time_t const offset = zone.offset_at(time);
    time_t const set_back = zone.offset_at(time - 3 * HOUR) - offset;
    return set_back > 0 && zone.offset_at(time - set_back) == offset + set_back;
}

} // namespace

struct Job_Schedule_Text::Wall_Time {
    Wall_Time(Time_Zone const& zone, time_t time)
        : Wall_Time(shown((time + zone.offset_at(time)) / MINUTE)) {}
    /** Of what the clock shows, counted in minutes; the clock need not ever show it. */
    static Wall_Time shown(int64_t minute) {
        Wall_Time wall;
        time_t const seconds = minute * MINUTE;
        gmtime_r(&seconds, &wall.fields);
        wall.minute = minute;
        return wall;
    }
    tm fields{};
    int64_t minute = 0;

private:
    Wall_Time() = default;
};

bool Job_Schedule_Text::parse(std::string const& type, std::string const& at,
                              Job_Schedule_Text& result, std::string& error,
                              Time_Zone const& zone) {
    auto const name = std::find(std::begin(SCHEDULE_TYPES), std::end(SCHEDULE_TYPES), type);
    Job_Schedule_Text parsed;
    parsed.at_ = at;
    parsed.zone_ = zone;
    if (type == CALENDAR) {
        parsed.type(TYPE_DAILY);
        if (!Calendar_Fields::parse(at, parsed.fields_, error))
            return false;
        parsed.begin_at_year();
        result = parsed;
        return true;
    }
    if (name == std::end(SCHEDULE_TYPES)) {
        error = "\"" + names::shown(type) +
                "\" is not a type of schedule (expected calendar, none, once, hourly, daily, "
                "weekly, monthly, continuous or ondemand)";
        return false;
    }
    parsed.type(static_cast<Type>(name - std::begin(SCHEDULE_TYPES)));
    if (!parsed.parse_at(error))
        return false;
    result = parsed;
    return true;
}

char const* Job_Schedule_Text::type_name(Type type) {
    auto const index = static_cast<unsigned>(type);
    return index < std::size(SCHEDULE_TYPES) ? SCHEDULE_TYPES[index] : "";
}

bool Job_Schedule_Text::parse_at(std::string& error) {
    switch (type()) {
    case TYPE_NONE:
    case TYPE_ONDEMAND:
        if (at_.empty())
            return true;
        error = string_sprintf("a schedule of type %s has no time", type_name(type()));
        return false;
    case TYPE_ONCE:
        return parse_once(error);
    case TYPE_HOURLY:
        if (is_short_number(at_))
            return Calendar_Fields::parse_cron(at_ + " * * * *", fields_, error);
        error = "\"" + names::shown(at_) + "\" is not a minute of an hour (expected 0 to 59)";
        return false;
    case TYPE_CONTINUOUS:
        return parse_seconds(error);
    default:
        return Calendar_Fields::parse_cron(at_, fields_, error);
    }
}

bool Job_Schedule_Text::parse_once(std::string& error) {
    tm wanted{};
    char const* const end = strptime(at_.c_str(), "%Y-%m-%d %H:%M", &wanted);
    bool const whole = end && *end == '\0' && at_.size() == sizeof "2026-11-22 02:30" - 1;
    tm given = wanted;
    about_ = timegm(&given);
    // the 30th of February would have become a day in March
    if (!whole || given.tm_mday != wanted.tm_mday || about_ < 0) {
        error = "\"" + names::shown(at_) + "\" is not a time such as 2026-11-22 02:30";
        return false;
    }
    fields_.minutes = uint64_t{1} << wanted.tm_min;
    fields_.hours = uint64_t{1} << wanted.tm_hour;
    fields_.days = uint64_t{1} << wanted.tm_mday;
    fields_.months = uint64_t{1} << (wanted.tm_mon + 1);
    fields_.weekdays = ~uint64_t{0};
    fields_.year = wanted.tm_year + 1900;
    return true;
}

/** Lets the search begin with the year of the text, if it has one. */
void Job_Schedule_Text::begin_at_year() {
    if (!fields_.year)
        return;
    tm first{};
    first.tm_year = fields_.year - 1900;
    first.tm_mday = 1;
    about_ = timegm(&first);
}

bool Job_Schedule_Text::parse_seconds(std::string& error) {
    pause_ = is_short_number(at_) ? natoi<int>(at_) : 0;
    if (pause_ >= 1 && pause_ <= MAX_PAUSE)
        return true;
    error = "\"" + names::shown(at_) +
            "\" is not a number of seconds between two runs (expected 1 to " +
            std::to_string(MAX_PAUSE) + ")";
    return false;
}

bool Job_Schedule_Text::passed_over(int64_t first_minute, int64_t end_minute) const {
    for (int64_t minute = first_minute; minute < end_minute; ++minute)
        if (fields_.fits(Wall_Time::shown(minute).fields))
            return true;
    return false;
}

time_t Job_Schedule_Text::search(time_t after, time_t until) const {
    time_t time = after - (after % MINUTE + MINUTE) % MINUTE;
    Wall_Time wall(zone_, time);
    while (time < until) {
        // hour by hour, as long as nothing can happen and nobody touches the clocks
        time_t step = fields_.hour_fits(wall.fields) ? MINUTE : HOUR - wall.fields.tm_min * MINUTE;
        Wall_Time next(zone_, time + step);
        if (next.minute - wall.minute != step / MINUTE) {
            step = MINUTE;
            next = Wall_Time(zone_, time + step);
        }
        time += step;
        if (!fields_.any_hour && passed_over(wall.minute + 1, next.minute))
            return time;
        wall = next;
        if (fields_.fits(wall.fields) && (fields_.any_hour || !shown_before(zone_, time)))
            return time;
    }
    return 0;
}

time_t Job_Schedule_Text::next_run(time_t after) const {
    switch (type()) {
    case TYPE_NONE:
    case TYPE_ONDEMAND:
        return 0;
    case TYPE_CONTINUOUS:
        return after + pause_;
    case TYPE_ONCE:
        return search(std::max(after, about_ - WIDEST_OFFSET), about_ + WIDEST_OFFSET);
    default:
        after = about_ ? std::max(after, about_ - WIDEST_OFFSET) : after;
        return search(after, about_ ? about_ + 366 * DAY + WIDEST_OFFSET : after + HORIZON);
    }
}
