#ifndef AGENT_CATALOG_CATALOG_TABLES_H
#define AGENT_CATALOG_CATALOG_TABLES_H

#include <array>

/**
 * The catalog's tables, a script for Agent_Database:
 *
 *     backup_set        one row for each set: what Backup_Set::dump() gives as JSON text, without
 *                       storages and pieces, and what queries ask for as columns beside it
 *     backup_storage    the set's storages, in their order, as JSON texts
 *     backup_piece      the set's pieces in the order in which they came: the path, byte by byte,
 *                       and the other keys as JSON text
 *     restored_resource when a resource was restored last
 */
extern char const CATALOG_TABLES[];

/** Keys of a row that are columns of backup_set under the same name. */
inline constexpr std::array CATALOG_COLUMNS = {
    "resource_uuid", "backup_key",        "prior_backup_key", "incarnation", "timeline",
    "type",          "granularity",       "definition_uuid",  "instance",    "backup_id",
    "seq",           "backup_start_time", "backup_end_time"};

#endif
