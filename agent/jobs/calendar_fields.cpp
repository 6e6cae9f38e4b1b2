#include "agent/jobs/calendar_fields.h"

#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/natoi.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <strings.h>
#include <vector>

namespace {

constexpr char const* MONTHS[] = {"jan", "feb", "mar", "apr", "may", "jun",  "jul",
                                  "aug", "sep", "oct", "nov", "dec", nullptr};
constexpr char const* WEEKDAYS[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat", nullptr};
constexpr char const* WHOLE_WEEKDAYS[] = {"sunday",   "monday", "tuesday",  "wednesday",
                                          "thursday", "friday", "saturday", nullptr};
constexpr int MONTH_LENGTHS[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
constexpr uint64_t ALL_WEEKDAYS = 0x7f;

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

struct Shorthand {
    char const* word;
    char const* cron;
};
constexpr Shorthand SHORTHANDS[] = {{"hourly", "0 * * * *"},      {"daily", "0 0 * * *"},
                                    {"weekly", "0 0 * * 1"},      {"monthly", "0 0 1 * *"},
                                    {"quarterly", "0 0 1 */3 *"}, {"yearly", "0 0 1 1 *"}};

constexpr uint64_t bit(int number) {
    return uint64_t{1} << number;
}

std::vector<std::string> split(std::string const& text, std::string const& separator) {
    std::vector<std::string> parts;
    size_t begin = 0;
    for (size_t end; (end = text.find(separator, begin)) != std::string::npos;
         begin = end + separator.size())
        parts.push_back(text.substr(begin, end - begin));
    parts.push_back(text.substr(begin));
    return parts;
}

std::vector<std::string> words_of(std::string const& text) {
    std::vector<std::string> words;
    for (std::string const& word : split(text, " "))
        if (!word.empty())
            words.push_back(word);
    return words;
}

bool find_word(char const* const* words, std::string const& text, int& index) {
    for (index = 0; words && words[index]; ++index)
        if (strcasecmp(text.c_str(), words[index]) == 0)
            return true;
    return false;
}

bool parse_value(Field const& field, std::string const& text, int& value) {
    if (is_short_number(text)) {
        value = natoi<int>(text);
        return value >= field.least && value <= field.largest;
    }
    int index = 0;
    if (!find_word(field.words, text, index))
        return false;
    value = field.least + index;
    return true;
}

bool parse_step(std::string const& text, int& step) {
    if (!is_short_number(text))
        return false;
    step = natoi<int>(text);
    return true;
}

bool add_range(Field const& field, int first, int last, int step, uint64_t& mask) {
    if (step < 1 || step > field.largest || first > last)
        return false;
    for (int value = first; value <= last; value += step)
        mask |= bit(value);
    return true;
}

/** One member of cron's list: "*", "7", "1-5", and the first and the last with "/2" behind. */
bool parse_member(Field const& field, std::string const& text, uint64_t& mask) {
    std::vector<std::string> const parts = split(text, "/");
    int step = 1;
    if (parts.size() > 2 || (parts.size() == 2 && !parse_step(parts[1], step)))
        return false;
    std::vector<std::string> const ends = split(parts[0], "-");
    int first = field.least;
    int last = field.largest;
    if (parts[0] != "*") {
        // a step along a single number would be a slip of the pen
        if (ends.size() > 2 || (ends.size() == 1 && parts.size() == 2) ||
            !parse_value(field, ends.front(), first) || !parse_value(field, ends.back(), last))
            return false;
    }
    return add_range(field, first, last, step, mask);
}

/** One member of systemd's list: "*", "7", "1..5", each with "/2" behind. */
bool parse_calendar_member(Field const& field, std::string const& text, uint64_t& mask) {
    std::vector<std::string> const parts = split(text, "/");
    int step = 1;
    if (parts.size() > 2 || (parts.size() == 2 && !parse_step(parts[1], step)))
        return false;
    std::vector<std::string> const ends = split(parts[0], "..");
    int first = field.least;
    int last = field.largest;
    bool const is_range = ends.size() == 2;
    if (parts[0] != "*" && (ends.size() > 2 || !parse_value(field, ends.front(), first) ||
                            (is_range && !parse_value(field, ends.back(), last))))
        return false;
    if (parts[0] != "*" && !is_range && parts.size() == 1) // "8/2" goes on to the end
        last = first;
    return add_range(field, first, last, step, mask);
}

using Member_Parser = bool (*)(Field const&, std::string const&, uint64_t&);

bool parse_field(Field const& field, std::string const& text, Member_Parser parse_one,
                 uint64_t& mask, std::string& error) {
    mask = 0;
    for (std::string const& member : split(text, ","))
        if (!parse_one(field, member, mask)) {
            error =
                string_sprintf("\"%s\" is not a valid %s", names::shown(text).c_str(), field.name);
            return false;
        }
    return true;
}

bool parse_weekday(std::string const& text, int& day) {
    return find_word(WEEKDAYS, text, day) || find_word(WHOLE_WEEKDAYS, text, day);
}

/** "Mon", "Mon,Wed", "Mon..Fri", "Sat..Mon". */
bool parse_weekdays(std::string const& text, uint64_t& mask, std::string& error) {
    constexpr int DAYS = 7;
    mask = 0;
    for (std::string const& member : split(text, ",")) {
        std::vector<std::string> const ends =
            split(member, member.find("..") == std::string::npos ? "-" : "..");
        int first = 0;
        int last = 0;
        if (ends.size() > 2 || !parse_weekday(ends.front(), first) ||
            !parse_weekday(ends.back(), last)) {
            error = "\"" + names::shown(text) +
                    "\" is not a valid day of the week (expected for example Sun or Mon..Fri)";
            return false;
        }
        for (int day = first;; day = (day + 1) % DAYS) {
            mask |= bit(day);
            if (day == last)
                break;
        }
    }
    return true;
}

bool parse_date(std::string const& text, Calendar_Fields& fields, std::string& error) {
    std::vector<std::string> parts = split(text, "-");
    if (parts.size() == 2)
        parts.insert(parts.begin(), "*");
    if (parts.size() != 3) {
        error = "\"" + names::shown(text) + "\" is not a date (expected [YEAR-]MONTH-DAY)";
        return false;
    }
    if (parts[0] != "*") {
        fields.year = is_short_number(parts[0]) ? natoi<int>(parts[0]) : 0;
        if (parts[0].size() != 4 || fields.year < 1970) {
            error = "\"" + names::shown(parts[0]) + "\" is not a year (expected * or four digits)";
            return false;
        }
    }
    return parse_field(MONTH_FIELD, parts[1], parse_calendar_member, fields.months, error) &&
           parse_field(DAY_FIELD, parts[2], parse_calendar_member, fields.days, error);
}

bool parse_time(std::string const& text, Calendar_Fields& fields, std::string& error) {
    std::vector<std::string> const parts = split(text, ":");
    if (parts.size() > 3 || (parts.size() == 3 && parts[2] != "00" && parts[2] != "0")) {
        error = "\"" + names::shown(text) + "\" is not a time (expected HOUR:MINUTE)";
        return false;
    }
    fields.any_hour = parts[0].starts_with("*");
    return parse_field(HOUR_FIELD, parts[0], parse_calendar_member, fields.hours, error) &&
           parse_field(MINUTE_FIELD, parts[1], parse_calendar_member, fields.minutes, error);
}

/** The words of a calendar text, in their order: days, date, time. */
bool parse_words(std::vector<std::string> const& words, Calendar_Fields& fields,
                 std::string& error) {
    auto word = words.begin();
    auto const left = [&] { return word != words.end(); };
    if (left() && std::isalpha(static_cast<unsigned char>(word->front())) &&
        !parse_weekdays(*word++, fields.weekdays, error))
        return false;
    if (left() && word->find('-') != std::string::npos && !parse_date(*word++, fields, error))
        return false;
    if (left() && word->find(':') != std::string::npos && !parse_time(*word++, fields, error))
        return false;
    if (!left() && !words.empty())
        return true;
    error =
        (left() ? "\"" + names::shown(*word) + "\" is not a time" : "a time is missing") +
        std::string(" (expected for example \"Sun 02:00\", \"Mon..Fri 22:30\", \"*-*-1 03:00\", "
                    "\"hourly\", or cron's five fields)");
    return false;
}

bool refuse_never(std::string const& text, std::string& error) {
    error = "\"" + names::shown(text) + "\" never happens: none of its months has such a day";
    return false;
}

} // namespace

bool is_short_number(std::string const& text) {
    constexpr size_t MAX_DIGITS = 9;
    return !text.empty() && text.size() <= MAX_DIGITS &&
           text.find_first_not_of("0123456789") == std::string::npos;
}

bool Calendar_Fields::parse_cron(std::string const& text, Calendar_Fields& result,
                                 std::string& error) {
    std::vector<std::string> const words = words_of(text);
    if (words.size() != 5) {
        error = "\"" + names::shown(text) +
                "\" needs five fields: minute, hour, day of the month, month, day of the week";
        return false;
    }
    Calendar_Fields fields;
    if (!parse_field(MINUTE_FIELD, words[0], parse_member, fields.minutes, error) ||
        !parse_field(HOUR_FIELD, words[1], parse_member, fields.hours, error) ||
        !parse_field(DAY_FIELD, words[2], parse_member, fields.days, error) ||
        !parse_field(MONTH_FIELD, words[3], parse_member, fields.months, error) ||
        !parse_field(WEEKDAY_FIELD, words[4], parse_member, fields.weekdays, error))
        return false;
    if (fields.weekdays & bit(7))
        fields.weekdays |= bit(0);
    fields.any_hour = words[1][0] == '*';
    fields.either_day = words[2][0] != '*' && words[4][0] != '*';
    if (!fields.ever_happens())
        return refuse_never(text, error);
    result = fields;
    return true;
}

bool Calendar_Fields::parse(std::string const& text, Calendar_Fields& result, std::string& error) {
    std::vector<std::string> const words = words_of(text);
    if (words.size() == 5)
        return parse_cron(text, result, error);
    for (Shorthand const& shorthand : SHORTHANDS)
        if (words.size() == 1 && strcasecmp(words[0].c_str(), shorthand.word) == 0)
            return parse_cron(shorthand.cron, result, error);
    Calendar_Fields fields;
    fields.minutes = bit(0);
    fields.hours = bit(0);
    fields.days = ~uint64_t{0};
    fields.months = ~uint64_t{0};
    fields.weekdays = ALL_WEEKDAYS;
    if (!parse_words(words, fields, error))
        return false;
    if (!fields.ever_happens())
        return refuse_never(text, error);
    result = fields;
    return true;
}

bool Calendar_Fields::day_fits(tm const& wall) const {
    constexpr int FIRST_YEAR = 1900;
    if (!(months & bit(wall.tm_mon + 1)) || (year && wall.tm_year + FIRST_YEAR != year))
        return false;
    bool const day = days & bit(wall.tm_mday);
    bool const weekday = weekdays & bit(wall.tm_wday);
    return either_day ? day || weekday : day && weekday;
}

bool Calendar_Fields::hour_fits(tm const& wall) const {
    return hours & bit(wall.tm_hour) && day_fits(wall);
}

bool Calendar_Fields::fits(tm const& wall) const {
    return minutes & bit(wall.tm_min) && hour_fits(wall);
}

bool Calendar_Fields::ever_happens() const {
    if (either_day)
        return true;
    for (int month = 1; month <= 12; ++month)
        for (int day = 1; months & bit(month) && day <= MONTH_LENGTHS[month - 1]; ++day)
            if (days & bit(day))
                return true;
    return false;
}
