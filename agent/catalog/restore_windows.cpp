#include "agent/catalog/restore_windows.h"

#include "json_spirit/access.h"
#include "qmrt/posix_time.h"

#include <algorithm>
#include <map>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::object_get_str;

namespace {

/** The end of the year 9999; later times are taken for unknown. */
constexpr time_t LAST_TIME = 253402300799;
/** Seconds between the end of a log and the start of the next one, which are whole seconds. */
constexpr time_t MOST_GAP = 1;

struct Platform_Set {
    Object const* row;
    Set_Times times;
    bool is_log;
};

/** The sets of one timeline in one pool. */
struct Timeline {
    std::vector<Platform_Set> bases; ///< full and differential ones, ordered by end
    std::vector<Platform_Set> logs;  ///< ordered by start
};

time_t time_of_text(Object const& row, char const* key) {
    time_t time = 0;
    return iso8601_to_posix_time(object_get_str(row, key), time) ? time : 0;
}

time_t time_of_number(Object const& row, char const* key) {
    int64_t number = 0;
    json_spirit::object_get(row, key, number);
    return number > 0 && number <= LAST_TIME ? number : 0;
}

bool has_full_set(std::vector<Platform_Set> const& bases, std::string const& incarnation) {
    return std::ranges::any_of(bases, [&](Platform_Set const& base) {
        return object_get_str(*base.row, "type") == "full" &&
               object_get_str(*base.row, "incarnation") == incarnation;
    });
}

std::vector<Timeline> timelines_of(Array const& rows) {
    std::map<std::pair<std::string, std::string>, Timeline> found;
    for (Object const& row : json_spirit::objects_of(rows)) {
        std::string const timeline = object_get_str(row, "timeline");
        std::string const type = object_get_str(row, "type");
        Platform_Set const set{&row, times_of_set(row), type == "log"};
        // the platform can only use a backup whose id it knows
        if (timeline.empty() || set.times.end == 0 || object_get_str(row, "backup_id").empty())
            continue;
        Timeline& sets = found[{timeline, object_get_str(row, "pool_uuid")}];
        (set.is_log ? sets.logs : sets.bases).push_back(set);
    }
    std::vector<Timeline> all;
    for (auto& [key, sets] : found) {
        std::vector<Platform_Set> const bases = sets.bases;
        std::erase_if(sets.bases, [&](Platform_Set const& base) {
            return !has_full_set(bases, object_get_str(*base.row, "incarnation"));
        });
        std::ranges::sort(sets.bases, {}, [](Platform_Set const& set) { return set.times.end; });
        std::ranges::sort(sets.logs, {}, [](Platform_Set const& set) {
            return std::pair(set.times.begin, set.times.end);
        });
        all.push_back(std::move(sets));
    }
    return all;
}

/**
 * Finds the logs that follow a base without a gap.
 * @param from   end of the base
 * @param until  time to reach
 * @param used   receives the logs
 * @return the last time that they cover
 */
time_t follow_logs(std::vector<Platform_Set> const& logs, time_t from, time_t until,
                   std::vector<Platform_Set>& used) {
    time_t covered = from;
    for (Platform_Set const& log : logs) {
        if (covered >= until || log.times.begin > covered + MOST_GAP)
            break;
        if (log.times.end <= covered)
            continue;
        used.push_back(log);
        covered = log.times.end;
    }
    return covered;
}

/** The full backup that a base builds on; the base itself if it is full. */
Object const& full_set_of(Timeline const& timeline, Platform_Set const& base) {
    std::string const incarnation = object_get_str(*base.row, "incarnation");
    for (Platform_Set const& other : timeline.bases)
        if (object_get_str(*other.row, "type") == "full" &&
            object_get_str(*other.row, "incarnation") == incarnation)
            return *other.row;
    return *base.row;
}

} // namespace

Set_Times times_of_set(Object const& row) {
    Set_Times times{time_of_text(row, "platform_begin_time"),
                    time_of_text(row, "platform_end_time")};
    if (times.end == 0 && object_get_str(row, "type") == "log")
        times = {time_of_number(row, "begin_time"), time_of_number(row, "end_time")};
    return times;
}

std::vector<Restore_Window> restore_windows(Array const& rows) {
    std::vector<Restore_Window> windows;
    for (Timeline const& timeline : timelines_of(rows))
        for (Platform_Set const& base : timeline.bases) {
            std::vector<Platform_Set> used;
            time_t const until = follow_logs(timeline.logs, base.times.end, LAST_TIME, used);
            if (!used.empty())
                windows.push_back({base.times.end, until});
        }
    std::ranges::sort(windows, {}, &Restore_Window::from);
    std::vector<Restore_Window> joined;
    for (Restore_Window const& window : windows)
        if (!joined.empty() && window.from <= joined.back().until + 1)
            joined.back().until = std::max(joined.back().until, window.until);
        else
            joined.push_back(window);
    return joined;
}

bool find_restore_point(Array const& rows, time_t time, Restore_Point& point) {
    time_t newest = 0;
    for (Timeline const& timeline : timelines_of(rows))
        for (Platform_Set const& base : timeline.bases) {
            std::vector<Platform_Set> used;
            // without a log this would be a restore of the backup itself
            if (base.times.end > time || base.times.end <= newest ||
                follow_logs(timeline.logs, base.times.end, std::max(time, base.times.end + 1),
                            used) < time ||
                used.empty())
                continue;
            newest = base.times.end;
            point.sets.clear();
            if (Object const& full = full_set_of(timeline, base); &full != base.row)
                point.sets.push_back(full);
            point.sets.push_back(*base.row);
            for (Platform_Set const& log : used)
                point.sets.push_back(*log.row);
            point.set = point.sets.back();
        }
    return newest != 0;
}
