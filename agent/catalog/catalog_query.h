#ifndef AGENT_CATALOG_CATALOG_QUERY_H
#define AGENT_CATALOG_CATALOG_QUERY_H

#include "agent/catalog/column_value.h"

#include "json_spirit/value.h"

#include <string>
#include <vector>

/**
 * Which sets a query of the catalog chooses and in which order, as Catalog_Backend says it.
 *
 * The database narrows them down by columns and indexes and puts them in order; what fits() then
 * takes of them is exact to the type of a value. A value of the query reaches SQL as a bound
 * parameter only.
 */
class Catalog_Query {
public:
    /**
     * @param kind   of the sets
     * @param query  as Catalog_Backend::get_view() gets it; throws json_spirit::Error when it is
     *               nested too deeply to be compared
     */
    Catalog_Query(std::string const& kind, json_spirit::Object const& query);

    /** Sorts by that key instead of the query's own, rising. */
    void sort_by(std::string const& key);
    /** Chooses only sets that did not start later; null chooses all. */
    void not_after(Column_Value start);

    /** "SELECT id, row FROM backup_set AS s WHERE ...": every set that may fit, in order. */
    std::string sql() const;
    /**
     * "SELECT backup_id FROM backup_set ...", the oldest start first, for a query that is_exact().
     * It gives what is no text, too.
     */
    std::string backup_ids_sql() const;
    /** True when every set that sql() gives is chosen, so that no row has to be looked at. */
    [[nodiscard]] bool is_exact() const;
    /** What the parameters of sql() stand for, in their order. */
    std::vector<Column_Value> const& values() const { return values_; }
    /** True when the row of a set that sql() gave is one that the query chooses. */
    [[nodiscard]] bool fits(json_spirit::Object const& row) const;

    /** The key to sort by; "" when in any order. */
    std::string const& sort_key() const { return sort_key_; }
    [[nodiscard]] bool falling() const { return falling_; }
    /** True when sql() gives the rows in the order asked for, and not by when they came. */
    [[nodiscard]] bool sorted_by_sql() const;

    /** Sorts rows by a key, stable: is_less() of what they have under it. */
    static void sort(std::vector<json_spirit::Object>& rows, std::string const& key, bool falling);

private:
    void choose(std::string const& key, json_spirit::Value const& wanted);
    void add(std::string const& condition) { where_ += " AND " + condition; }
    void add(std::string const& condition, Column_Value value);

    json_spirit::Object query_;
    std::string where_;
    std::vector<Column_Value> values_;
    std::string sort_key_;
    bool falling_ = false;
};

/** True for a value that "NN_" takes: neither null, "" nor 0. */
[[nodiscard]] bool has_content(json_spirit::Value const& value);

/** The object as it reads back from its text: what a set is kept as. Throws json_spirit::Error. */
json_spirit::Object as_kept(json_spirit::Object const& object);

#endif
