#ifndef GAUSSDB_JOB_GAUSSDB_CATALOG_H
#define GAUSSDB_JOB_GAUSSDB_CATALOG_H

#include "json_spirit/value.h"

#include <ace/Basic_Types.h>
#include <functional>
#include <string>

/**
 * What the executors ask the catalog about the backup sets of GaussDB. All return false on failure;
 * that the catalog could not be asked, or gave something else than it should, has been logged then.
 * Keeps nothing but how long to try again; any thread.
 */
class GaussDB_Catalog {
public:
    /** @param max_seconds_retry  as of Catalog_Operator */
    explicit GaussDB_Catalog(int max_seconds_retry) : max_seconds_retry_(max_seconds_retry) {}

    /**
     * The set of a resource in a pool that ended last: what an incremental backup builds on.
     * @return false, with nothing logged, also when there is none
     */
    [[nodiscard]] bool get_prior_backup(std::string const& resource_uuid,
                                        std::string const& pool_uuid, std::string& incarnation,
                                        std::string& backup_key) const;

    /** The same among the sets that also fit @a more, such as {"type", "full"}. */
    [[nodiscard]] bool get_prior_backup(std::string const& resource_uuid,
                                        std::string const& pool_uuid,
                                        json_spirit::Object const& more, std::string& incarnation,
                                        std::string& backup_key) const;

    /** The number of a resource's next set, counted over all pools: 1 for its first. */
    [[nodiscard]] bool get_seq(std::string const& resource_uuid, ACE_INT64& seq) const;

    /** The bytes that a set takes in its first storage; false also when it has none. */
    [[nodiscard]] bool get_storage_size(std::string const& uuid, ACE_INT64& size) const;

    /**
     * The bytes that a set takes in its first storage, and those of its pieces together.
     * @param visit    called for each piece, if not null
     * @param failure  the error line up to the reason
     * @return false, with nothing changed, also for a set without storages or pieces
     */
    [[nodiscard]] bool
    get_sizes(std::string const& uuid, ACE_INT64& storage_size, ACE_INT64& set_size,
              std::function<void(json_spirit::Object const& piece)> const& visit = {},
              std::string const& failure = "Failed to get gaussdb backup storage size, ") const;

    /**
     * The sets that lead to a backup, newest first, and others of the resource among them, perhaps.
     * @param rows  replaced; false when there are none
     */
    [[nodiscard]] bool get_chain(std::string const& resource_uuid, std::string const& backup_key,
                                 json_spirit::Array& rows) const;

private:
    json_spirit::Array rows(char const* view, json_spirit::Object const& query) const;

    int max_seconds_retry_;
};

#endif
