#ifndef AGENT_JOBS_JOB_SCHEDULE_TEXT_H
#define AGENT_JOBS_JOB_SCHEDULE_TEXT_H

#include "agent/jobs/calendar_fields.h"
#include "agent/jobs/time_zone.h"
#include "host/job/job_definition.h"

#include <cstdint>
#include <ctime>
#include <string>

/**
 * When a job runs, as people write it. All times are what clocks of its time zone show.
 *
 *     type                     at
 *     none, ondemand           nothing: no time starts such a job
 *     calendar                 "Sun 02:00", "Mon..Fri 22:30": see Calendar_Fields::parse()
 *     once                     "2026-11-22 02:30"
 *     hourly                   the minute of each hour: "15"
 *     daily, weekly, monthly   five fields as crontab(5) has them: "30 2 * * 1-5"
 *     continuous               seconds from the end of a run to the next: "60"; at most a year
 *
 * On the two days a year when the clocks are changed: a time at a fixed hour that the clocks pass
 * over comes at the moment they do so, and one that they show twice comes the first time. With a
 * "*" at the beginning of the hour field (or hourly) it simply comes whenever the clocks show it.
 */
class Job_Schedule_Text : public Job_Schedule {
public:
    /** Of TYPE_NONE. */
    Job_Schedule_Text() = default;

    /**
     * @param error  when false is returned: what is wrong with which word, in one sentence
     * @return false, with @a result unchanged, for any other text than above, and for a date that
     *         no year has
     */
    [[nodiscard]] static bool parse(std::string const& type, std::string const& at,
                                    Job_Schedule_Text& result, std::string& error,
                                    Time_Zone const& zone = {});
    /** "daily" and so on. */
    static char const* type_name(Type type);

    /**
     * The first time later than @a after; 0 when there is none. For a continuous job @a after is
     * the end of its last run.
     */
    time_t next_run(time_t after) const;
    std::string const& at() const { return at_; }

private:
    /** A time of the wall clock, with the fields counted as cron does. */
    struct Wall_Time;

    [[nodiscard]] bool parse_at(std::string& error);
    [[nodiscard]] bool parse_once(std::string& error);
    [[nodiscard]] bool parse_seconds(std::string& error);
    void begin_at_year();
    [[nodiscard]] bool passed_over(int64_t first_minute, int64_t end_minute) const;
    time_t search(time_t after, time_t until) const;

    std::string at_;
    Time_Zone zone_;
    Calendar_Fields fields_;
    time_t about_ = 0; ///< of a text with a year: that time or the year's begin, were it UTC
    time_t pause_ = 0; ///< of TYPE_CONTINUOUS, seconds
};

#endif
