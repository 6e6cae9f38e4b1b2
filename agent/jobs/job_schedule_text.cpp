#include "agent/jobs/job_schedule_text.h"

#include "qmrt/format.h"
#include "qmrt/natoi.h"

#include <algorithm>
#include <iterator>
#include <strings.h>
#include <vector>

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

constexpr char const* MONTHS[] = {"jan", "feb", "mar", "apr", "may", "jun",  "jul",
                                  "aug", "sep", "oct", "nov", "dec", nullptr};
constexpr char const* WEEKDAYS[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat", nullptr};
constexpr int MONTH_LENGTHS[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

struct Field {
    char const* name;
    int least;
    int largest;
    char const* const* words; ///< of the numbers from least on; null for none
};

constexpr Field MINUTE_FIELD = {"minute", 0, 59, nullptr};
constexpr Field HOUR_FIELD = {"hour", 0, 23, nullptr};
constexpr Field DAY_FIELD = {"day of the month", 1, 31, nullptr};
constexpr Field MONTH_FIELD = {"month", 1, 12, MONTHS};
constexpr Field WEEKDAY_FIELD = {"day of the week", 0, 7, WEEKDAYS};

constexpr uint64_t bit(int number) {
    return uint64_t{1} << number;
}

std::vector<std::string> split(std::string const& text, char separator) {
    std::vector<std::string> parts;
    size_t begin = 0;
    for (size_t end; (end = text.find(separator, begin)) != std::string::npos; begin = end + 1)
        parts.push_back(text.substr(begin, end - begin));
    parts.push_back(text.substr(begin));
    return parts;
}

bool is_number(std::string const& text) {
    constexpr size_t MAX_DIGITS = 9;
    return !text.empty() && text.size() <= MAX_DIGITS &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

bool parse_value(Field const& field, std::string const& text, int& value) {
    if (is_number(text)) {
        value = natoi<int>(text);
        return value >= field.least && value <= field.largest;
    }
    for (int index = 0; field.words && field.words[index]; ++index)
        if (strcasecmp(text.c_str(), field.words[index]) == 0) {
            value = field.least + index;
            return true;
        }
    return false;
}

/** One member of a list: "*", "7", "1-5", and the first and the last with "/2" behind. */
bool parse_member(Field const& field, std::string const& text, uint64_t& mask) {
    std::vector<std::string> const parts = split(text, '/');
    int step = 1;
    if (parts.size() > 2)
        return false;
    if (parts.size() == 2) {
        if (!is_number(parts[1]))
            return false;
        step = natoi<int>(parts[1]);
    }
    std::vector<std::string> const ends = split(parts[0], '-');
    int first = field.least;
    int last = field.largest;
    if (parts[0] != "*") {
        // a step along a single number would be a slip of the pen
        if (ends.size() > 2 || (ends.size() == 1 && parts.size() == 2) ||
            !parse_value(field, ends.front(), first) || !parse_value(field, ends.back(), last))
            return false;
    }
    if (step < 1 || step > field.largest || first > last)
        return false;
    for (int value = first; value <= last; value += step)
        mask |= bit(value);
    return true;
}

bool parse_field(Field const& field, std::string const& text, uint64_t& mask, std::string& error) {
    mask = 0;
    for (std::string const& member : split(text, ','))
        if (!parse_member(field, member, mask)) {
            error = string_sprintf("\"%s\" is no %s", text.c_str(), field.name);
            return false;
        }
    return true;
}

std::vector<std::string> words_of(std::string const& text) {
    std::vector<std::string> words;
    for (std::string const& word : split(text, ' '))
        if (!word.empty())
            words.push_back(word);
    return words;
}

/** What the clock on the wall is ahead of UTC at that time, seconds. */
time_t offset_at(time_t time) {
    tm local{};
    localtime_r(&time, &local);
    return local.tm_gmtoff;
}

/** The clock was set back a little earlier, and shows this time for the second time. */
bool shown_before(time_t time) {
    time_t const offset = offset_at(time);
    time_t const set_back = offset_at(time - 3 * HOUR) - offset;
    return set_back > 0 && offset_at(time - set_back) == offset + set_back;
}

} // namespace

struct Job_Schedule_Text::Wall_Time {
    explicit Wall_Time(time_t time) {
        localtime_r(&time, &fields);
        minute = (time + fields.tm_gmtoff) / MINUTE;
    }
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
                              Job_Schedule_Text& result, std::string& error) {
    auto const name = std::find(std::begin(SCHEDULE_TYPES), std::end(SCHEDULE_TYPES), type);
    if (name == std::end(SCHEDULE_TYPES)) {
        error = "\"" + type +
                "\" is no type of schedule: none, once, hourly, daily, weekly, "
                "monthly, continuous or ondemand";
        return false;
    }
    Job_Schedule_Text parsed;
    parsed.type(static_cast<Type>(name - std::begin(SCHEDULE_TYPES)));
    parsed.at_ = at;
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
        if (is_number(at_))
            return parse_fields(at_ + " * * * *", error);
        error = "\"" + at_ + "\" is no minute of an hour: 0 to 59";
        return false;
    case TYPE_CONTINUOUS:
        return parse_seconds(error);
    default:
        return parse_fields(at_, error);
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
        error = "\"" + at_ + "\" is no time such as 2026-11-22 02:30";
        return false;
    }
    minutes_ = bit(wanted.tm_min);
    hours_ = bit(wanted.tm_hour);
    days_ = bit(wanted.tm_mday);
    months_ = bit(wanted.tm_mon + 1);
    any_weekday_ = true;
    year_ = wanted.tm_year;
    return true;
}

bool Job_Schedule_Text::parse_fields(std::string const& text, std::string& error) {
    std::vector<std::string> const words = words_of(text);
    if (words.size() != 5) {
        error = "\"" + text +
                "\" needs five fields: minute, hour, day of the month, month, day of the week";
        return false;
    }
    if (!parse_field(MINUTE_FIELD, words[0], minutes_, error) ||
        !parse_field(HOUR_FIELD, words[1], hours_, error) ||
        !parse_field(DAY_FIELD, words[2], days_, error) ||
        !parse_field(MONTH_FIELD, words[3], months_, error) ||
        !parse_field(WEEKDAY_FIELD, words[4], weekdays_, error))
        return false;
    if (weekdays_ & bit(7))
        weekdays_ |= bit(0);
    any_hour_ = words[1][0] == '*';
    any_day_ = words[2][0] == '*';
    any_weekday_ = words[4][0] == '*';
    if (ever_happens())
        return true;
    error = "\"" + text + "\" never happens: none of its months has such a day";
    return false;
}

bool Job_Schedule_Text::ever_happens() const {
    if (!any_day_ && !any_weekday_)
        return true;
    for (int month = 1; month <= 12; ++month)
        for (int day = 1; months_ & bit(month) && day <= MONTH_LENGTHS[month - 1]; ++day)
            if (days_ & bit(day))
                return true;
    return false;
}

bool Job_Schedule_Text::parse_seconds(std::string& error) {
    pause_ = is_number(at_) ? natoi<int>(at_) : 0;
    if (pause_ >= 1 && pause_ <= MAX_PAUSE)
        return true;
    error = "\"" + at_ + "\" is no number of seconds between two runs: 1 to " +
            std::to_string(MAX_PAUSE);
    return false;
}

bool Job_Schedule_Text::day_fits(Wall_Time const& wall) const {
    tm const& fields = wall.fields;
    if (!(months_ & bit(fields.tm_mon + 1)) || (year_ && fields.tm_year != year_))
        return false;
    bool const day = days_ & bit(fields.tm_mday);
    bool const weekday = weekdays_ & bit(fields.tm_wday);
    if (year_)
        return day;
    return any_day_ || any_weekday_ ? day && weekday : day || weekday;
}

bool Job_Schedule_Text::hour_fits(Wall_Time const& wall) const {
    return hours_ & bit(wall.fields.tm_hour) && day_fits(wall);
}

bool Job_Schedule_Text::fits(Wall_Time const& wall) const {
    return minutes_ & bit(wall.fields.tm_min) && hour_fits(wall);
}

bool Job_Schedule_Text::passed_over(int64_t first_minute, int64_t end_minute) const {
    for (int64_t minute = first_minute; minute < end_minute; ++minute)
        if (fits(Wall_Time::shown(minute)))
            return true;
    return false;
}

time_t Job_Schedule_Text::search(time_t after, time_t until) const {
    time_t time = after - (after % MINUTE + MINUTE) % MINUTE;
    Wall_Time wall(time);
    while (time < until) {
        // hour by hour, as long as nothing can happen and nobody touches the clocks
        time_t step = hour_fits(wall) ? MINUTE : HOUR - wall.fields.tm_min * MINUTE;
        Wall_Time next(time + step);
        if (next.minute - wall.minute != step / MINUTE) {
            step = MINUTE;
            next = Wall_Time(time + step);
        }
        time += step;
        if (!any_hour_ && passed_over(wall.minute + 1, next.minute))
            return time;
        wall = next;
        if (fits(wall) && (any_hour_ || !shown_before(time)))
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
        return search(after, after + HORIZON);
    }
}
