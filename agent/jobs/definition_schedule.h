#ifndef AGENT_JOBS_DEFINITION_SCHEDULE_H
#define AGENT_JOBS_DEFINITION_SCHEDULE_H

#include "agent/jobs/job_schedule_text.h"
#include "json_spirit/value.h"

#include <string>
#include <vector>

/** A time at which a definition is due. */
struct Due_Run {
    time_t time = 0;        ///< 0 for never
    std::string level = {}; ///< "" for the definition's own
};

/**
 * The schedule of a definition:
 *
 *     {"type", "at"}                                  see Job_Schedule_Text
 *     {"type": "calendar", "times": {LEVEL: TEXT}}    times for several levels of a backup
 *     "time_zone"?: "Europe/Berlin", "catch_up"?: true
 *
 * When several levels are due at the same minute, or have been missed, one run is made: of the
 * level that covers most, in the order full, cumulative, incremental, log.
 */
class Definition_Schedule {
public:
    /** A schedule by which nothing is ever due. */
    Definition_Schedule() : times_(1) {}

    /**
     * @param schedule  the member of a definition
     * @return false, with the fault in @a error, and @a result unchanged
     */
    [[nodiscard]] static bool parse(json_spirit::Object const& schedule,
                                    Definition_Schedule& result, std::string& error);

    Job_Schedule::Type type() const { return first().type(); }
    /** Whether it has times of a calendar, which may be over. */
    [[nodiscard]] bool is_calendar() const { return calendar_; }
    [[nodiscard]] bool is_empty() const {
        return type() == Job_Schedule::TYPE_NONE || type() == Job_Schedule::TYPE_ONDEMAND;
    }
    /** The text of the level that covers most. */
    Job_Schedule_Text const& first() const { return times_.front().text; }
    /** The levels that have times, the one that covers most first; empty for other schedules. */
    std::vector<std::string> levels() const;
    /** Whether a run that was missed is made up for. */
    [[nodiscard]] bool catches_up() const { return catch_up_; }
    /** "" for the host's zone. */
    std::string const& time_zone() const { return zone_.name(); }

    /** The first run later than @a after. */
    Due_Run next(time_t after) const;
    /** The next runs later than @a after, at most @a count. */
    std::vector<Due_Run> next_runs(time_t after, size_t count) const;
    /** What to start if nothing has been since @a since: the time is the first that was due. */
    Due_Run due(time_t since, time_t now) const;

private:
    struct Level {
        std::string name = {};
        Job_Schedule_Text text = {};
    };

    std::vector<Level> times_; ///< never empty
    Time_Zone zone_;
    bool calendar_ = false;
    bool catch_up_ = true;
};

#endif
