#ifndef AGENT_CATALOG_RESTORE_WINDOWS_H
#define AGENT_CATALOG_RESTORE_WINDOWS_H

#include "json_spirit/value.h"

#include <ctime>
#include <string>
#include <vector>

/**
 * The times to which an instance of a management platform can be restored. A log backup covers the
 * time of its log. A full or differential backup and the log backups that follow it without a gap
 * make a window, from the end of the backup to the end of the last log. They must be in one pool
 * and of one timeline.
 *
 * Rows are those of the catalog's view "catalogs" for one instance, in any order; sets of other
 * flavours are ignored. Thread-safe.
 */

/** The time that the data of a set cover, in seconds since the epoch; 0 if it is unknown. */
struct Set_Times {
    time_t begin = 0;
    time_t end = 0;
};

/**
 * Reads the platform's own text, which has a zone. A log backup without it has the times of its
 * log; "begin_time" and "end_time" of other sets are wrong in most zones.
 */
Set_Times times_of_set(json_spirit::Object const& row);

/** Every second from `from` to `until`, both included. */
struct Restore_Window {
    time_t from = 0;
    time_t until = 0;
};

/** In ascending order; they neither touch nor overlap. */
std::vector<Restore_Window> restore_windows(json_spirit::Array const& rows);

/** What a restore to a time reads. */
struct Restore_Point {
    json_spirit::Object set; ///< the set whose key the restore names; the last of `sets`
    std::vector<json_spirit::Object>
        sets; ///< the full one first, then the others in the order of their data
};

/**
 * Finds the sets that need the least log for a time.
 * @return false if the time is not in a window
 */
[[nodiscard]] bool find_restore_point(json_spirit::Array const& rows, time_t time,
                                      Restore_Point& point);

#endif
