#ifndef HOST_CATALOG_CATALOG_OPERATOR_H
#define HOST_CATALOG_CATALOG_OPERATOR_H

#include "host/catalog/backup_set.h"
#include "host/catalog/catalog_backend.h"

#include <string>

/**
 * A client of the catalog: thin over the Catalog_Backend of Host_Services, which see for what each
 * operation does. All return true for success; false has been logged, also when no catalog is
 * installed. A client keeps nothing: make one for each call, on any thread.
 */
class Catalog_Operator {
public:
    /** See Catalog_Limits. */
    Catalog_Operator(int timeout, int max_seconds_retry) : limits_{timeout, max_seconds_retry} {}

    [[nodiscard]] bool initialize(Backup_Set& set);
    [[nodiscard]] bool complete(Backup_Set& set);
    [[nodiscard]] bool commit(Backup_Set& set, bool overwrite);
    /** @param pieces  gets the pieces that the set had */
    [[nodiscard]] bool abort(std::string const& uuid, json_spirit::Array& pieces);
    [[nodiscard]] bool add_piece(std::string const& uuid, json_spirit::Array const& pieces);

    [[nodiscard]] bool get_view(char const* type, char const* view,
                                json_spirit::Object const& query, json_spirit::Value& result);
    /**
     * The first row of a query that has no "cmode".
     * @param result  gets the row; null when there is none, which is a success
     */
    [[nodiscard]] bool get_first_view(char const* type, char const* view,
                                      json_spirit::Object const& query, json_spirit::Value& result);

private:
    Catalog_Limits limits_;
};

#endif
