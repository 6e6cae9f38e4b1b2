#ifndef HOST_CATALOG_CATALOG_BACKEND_H
#define HOST_CATALOG_CATALOG_BACKEND_H

#include "json_spirit/value.h"

#include <string>

class Backup_Set;

/** How long a catalog operation may take; -1 leaves it to the catalog. */
struct Catalog_Limits {
    int timeout;           ///< seconds for one attempt
    int max_seconds_retry; ///< seconds for which an attempt that failed is made again
};

/**
 * The catalog of backup sets: the agent's own implementation. All operations may be called on any
 * thread. Each returns true for success; on failure it has logged an error line and changed
 * nothing. Each is one step that happens wholly or not at all, and a change that succeeded is
 * still there after the process was killed.
 *
 * A set is open from initialize() to complete(), and complete from then on. An open set is being
 * written: a query sees it only when it names the set's "uuid", which is how a run looks at what
 * its own set has come to.
 *
 * Of a set the catalog keeps Backup_Set::dump(): the keys of a row. Besides:
 * - A piece is an object with a "path" that is not empty, and perhaps "size", its bytes. A set has
 *   one piece for each path: a later one takes an earlier one's place.
 * - What add_piece() adds makes the first of the set's storages grow, by "storage_size" where a
 *   piece has that, and else by "size".
 */
class Catalog_Backend {
public:
    virtual ~Catalog_Backend() = default;

    /** Opens a set. Refuses an empty uuid, and one that the catalog has already. */
    [[nodiscard]] virtual bool initialize(Catalog_Limits const& limits, Backup_Set const& set) = 0;
    /**
     * Completes an open set with what @a set says now; the pieces that were added meanwhile stay,
     * also where @a set has the same one without a size. Refuses a set that is not open.
     */
    [[nodiscard]] virtual bool complete(Catalog_Limits const& limits, Backup_Set const& set) = 0;
    /**
     * Writes a set that is complete at once.
     * @param overwrite  a complete set of that uuid is replaced; else it is a failure. An open one
     *                   is a failure either way.
     */
    [[nodiscard]] virtual bool commit(Catalog_Limits const& limits, Backup_Set const& set,
                                      bool overwrite) = 0;
    /**
     * Drops an open set. Refuses one that is not open.
     * @param pieces  gets the pieces that it had, whose files are now nobody's
     */
    [[nodiscard]] virtual bool abort(Catalog_Limits const& limits, std::string const& uuid,
                                     json_spirit::Array& pieces) = 0;
    /** Adds pieces to a set, open or complete. All or none: one that is no piece refuses them. */
    [[nodiscard]] virtual bool add_piece(Catalog_Limits const& limits, std::string const& uuid,
                                         json_spirit::Array const& pieces) = 0;

    /**
     * Runs a query over the sets of one kind.
     *
     * View "catalogs" gives the sets that the query's keys choose:
     *     "uuid"            that set, also while it is open
     *     "pool_uuid"       sets of which any storage is in that pool
     *     "exclude_schema"  true: not the sets whose "granularity" is "schema"
     *     "check_restored"  true: not the sets from before a restore of their resource, which the
     *                       database as it now is does not continue
     *     "NN_" and a key   sets in which that key is neither "", 0 nor null
     *     any other         sets whose row has an equal value under that key: "resource_uuid",
     *                       "type", "granularity", ...
     * View "restore" gives what a restore of the set with "resource_uuid" and "backup_key" may
     * need: that set, the sets that it reaches by "prior_backup_key", and those of its
     * "incarnation" that did not start after it. None when there is no such set.
     * View "depends" gives no rows but one array: the "backup_id" texts of the sets that the keys
     * choose, the oldest start first, without empty ones.
     *
     * How rows are given:
     *     "sort"            a key; rows without it count as lowest
     *     "order"           "desc": falling; else rising
     *     "limit"           at most so many
     *     "cmode"           "rb_orm_rows": an object with an array "rows"; without it the array
     *     "with_storages"   there: rows have "storages"; in view "restore" they always have
     *     "with_pieces"     there: rows have "pieces"
     *
     * @param type    the kind of the sets
     * @param result  gets the rows; an empty array for none
     * @return false, with @a result unchanged, for a view that is not known or a negative limit
     */
    [[nodiscard]] virtual bool get_view(Catalog_Limits const& limits, std::string const& type,
                                        std::string const& view, json_spirit::Object const& query,
                                        json_spirit::Value& result) = 0;
};

#endif
