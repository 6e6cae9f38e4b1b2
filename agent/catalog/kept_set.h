#ifndef AGENT_CATALOG_KEPT_SET_H
#define AGENT_CATALOG_KEPT_SET_H

#include "agent/catalog/column_value.h"

#include "json_spirit/value.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <optional>
#include <string>
#include <vector>

class Backup_Set;

/**
 * A set as the tables of the catalog take it. The operations on the database work within the
 * caller's transaction and throw SQLite::Exception; std::logic_error is never theirs.
 */
class Kept_Set {
public:
    /**
     * @param error  what is wrong with the set, for a log
     * @return null for a set without a uuid, with a piece without a path, or nested too deeply
     */
    static std::optional<Kept_Set> make(Backup_Set const& set, std::string& error);

    std::string const& uuid() const { return uuid_; }

    /** Inserts the set with its storages and pieces. */
    void insert(SQLite::Database& database, bool open) const;
    /**
     * Takes the place of a set.
     * @param keep_pieces  the set's pieces stay, and this one's join them, where one without a size
     *                     leaves the one of its path as it is; else this one's take their place
     */
    void replace(SQLite::Database& database, int64_t id, bool keep_pieces) const;

    /**
     * Adds pieces to a set; one takes the place of another of its path, or, with
     * @a keep_known, only if it has a size itself. @a pieces are checked by are_pieces().
     */
    static void put_pieces(SQLite::Database& database, int64_t id, json_spirit::Array const& pieces,
                           bool keep_known);
    /** Makes the first storage of a set grow. A set without one stays as it is. */
    static void grow_storage(SQLite::Database& database, int64_t id, uint64_t bytes);
    /** True when each is an object with a "path" that is not empty. */
    [[nodiscard]] static bool are_pieces(json_spirit::Array const& pieces);

private:
    Kept_Set() = default;
    void write_storages(SQLite::Database& database, int64_t id) const;

    std::string uuid_;
    std::string kind_;
    std::string row_;
    std::vector<Column_Value> columns_; ///< those of CATALOG_COLUMNS
    json_spirit::Array storages_;
    json_spirit::Array pieces_;
};

/** Reads what belongs to sets; made once for all the sets of a query. */
class Set_Parts_Reader {
public:
    /** @param database  lives longer */
    explicit Set_Parts_Reader(SQLite::Database& database);

    /** In the order in which they came. Throws SQLite::Exception and json_spirit::Error. */
    json_spirit::Array pieces(int64_t id);
    json_spirit::Array storages(int64_t id);

private:
    SQLite::Statement pieces_;
    SQLite::Statement storages_;
};

#endif
