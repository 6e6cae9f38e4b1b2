#ifndef AGENT_JOBS_CALENDAR_FIELDS_H
#define AGENT_JOBS_CALENDAR_FIELDS_H

#include <cstdint>
#include <ctime>
#include <string>

/** True for 1 to 9 decimal digits. */
[[nodiscard]] bool is_short_number(std::string const& text);

/** Minutes of the calendar, as people write them: by cron's five fields or as systemd does. */
struct Calendar_Fields {
    uint64_t minutes = 0; ///< a bit for each, here and below
    uint64_t hours = 0;
    uint64_t days = 0;
    uint64_t months = 0;
    uint64_t weekdays = 0;   ///< 0 is Sunday
    bool any_hour = false;   ///< comes whenever clocks show it, see Job_Schedule_Text
    bool either_day = false; ///< a day needs to fit only one of days and weekdays
    int year = 0;            ///< 0 for any

    /**
     * Five fields: minute, hour, day of the month, month and day of the week (0 and 7 are Sunday).
     * Each is a "*" or a list of numbers and ranges, a "*" and a range with a step if wanted;
     * months and days of the week also go by the first three letters of their English names. When
     * both the day and the day of the week are restricted, a day needs to fit only one of them.
     * @return false, with the fault in @a error, for any other text, and for a date that no year
     *         has; the other parsers do the same
     */
    [[nodiscard]] static bool parse_cron(std::string const& text, Calendar_Fields& result,
                                         std::string& error);
    /**
     * "[DAYS] [[YEAR-]MONTH-DAY] [HOUR:MINUTE]" in the manner of systemd.time(7), such as
     * "Mon..Fri 22:30", "*-*-1 03:00" or "*:0/15". A day has to match every given part. Without a
     * time it is 00:00. Also hourly, daily, weekly, monthly, quarterly, yearly, and cron's fields.
     */
    [[nodiscard]] static bool parse(std::string const& text, Calendar_Fields& result,
                                    std::string& error);

    [[nodiscard]] bool day_fits(tm const& wall) const;
    [[nodiscard]] bool hour_fits(tm const& wall) const;
    [[nodiscard]] bool fits(tm const& wall) const;
    /** Whether a year has such a day. */
    [[nodiscard]] bool ever_happens() const;
};

#endif
