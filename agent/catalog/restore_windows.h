#ifndef AGENT_CATALOG_RESTORE_WINDOWS_H
#define AGENT_CATALOG_RESTORE_WINDOWS_H

#include "json_spirit/value.h"

#include <ctime>
#include <string>
#include <vector>

/**
 * To which times the instance of a management platform can be restored. Its log backups say from
 * when to when their log goes. A full or differential backup with log backups behind it that leave
 * no gap makes a window, from the end of the backup to the end of the last log. All of them are in
 * one pool and of one timeline.
 *
 * Rows are those of the catalog's view "catalogs", in any order; sets of other instances and of
 * other flavours do not count. Keeps nothing; any thread.
 */

/** From when to when the data of a set are, in seconds since the epoch; 0 when it is unknown. */
struct Set_Times {
    time_t begin = 0;
    time_t end = 0;
};

/**
 * By the platform's own text, in its zone, or else by the times of a log backup's log: "begin_time"
 * and "end_time" of another set are not right in all zones.
 */
Set_Times times_of_set(json_spirit::Object const& row);

/** Any second from one to the other, both included. */
struct Restore_Window {
    time_t from = 0;
    time_t until = 0;
};

/** In ascending order; they neither touch nor overlap. */
std::vector<Restore_Window> restore_windows(json_spirit::Array const& rows);

/** What a restore to a time reads. */
struct Restore_Point {
    json_spirit::Object set; ///< the set whose key a restore is asked for with; the last one
    std::vector<json_spirit::Object> sets; ///< the full one first, and the logs in their order
};

/**
 * The sets with the least log for a time.
 * @return false when the time is in no window
 */
[[nodiscard]] bool find_restore_point(json_spirit::Array const& rows, time_t time,
                                      Restore_Point& point);

#endif
