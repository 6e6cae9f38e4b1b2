#include "agent/catalog/catalog_query.h"

#include "agent/catalog/catalog_tables.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <algorithm>
#include <set>

using json_spirit::Object;
using json_spirit::Value;

namespace {

/** Keys that say how rows are given, and choose none. */
std::set<std::string> const FORM = {"sort",          "order",       "limit",         "cmode",
                                    "with_storages", "with_pieces", "without_tables"};
/** By the name of a table that a set lists: an array of it, its schema and its database. */
constexpr char HOLDS_TABLE[] = "holds_table";

constexpr char NOT_NULL[] = "NN_";

/** True for a key that backup_set has a column for, by which it may go into SQL. */
bool is_column(std::string const& key) {
    return key == "uuid" ||
           std::find(CATALOG_COLUMNS.begin(), CATALOG_COLUMNS.end(), key) != CATALOG_COLUMNS.end();
}

bool is_true(Value const& value) {
    return value == Value(true);
}

/** A condition on the records that a set has under "tables"; each name is a parameter. */
std::string holds_table_sql(size_t names) {
    std::string sql = "EXISTS (SELECT 1 FROM json_each(s.row, '$.tables') AS t0"
                      " WHERE t0.value ->> 'type' = 'table' AND t0.value ->> 'name' = ?";
    for (size_t level = 1; level < names; ++level) {
        std::string const parent = "t" + std::to_string(level);
        sql += " AND EXISTS (SELECT 1 FROM json_each(s.row, '$.tables') AS " + parent + " WHERE " +
               parent + ".value ->> 'uuid' = t" + std::to_string(level - 1) +
               ".value ->> 'parent_uuid' AND " + parent + ".value ->> 'name' = ?";
    }
    return sql + std::string(names, ')');
}

} // namespace

bool has_content(Value const& value) {
    switch (value.type()) {
    case json_spirit::null_type:
        return false;
    case json_spirit::str_type:
        return !value.get_str().empty();
    case json_spirit::int_type:
    case json_spirit::real_type:
        return value.get_real() != 0;
    default:
        return true;
    }
}

Object as_kept(Object const& object) {
    Value kept;
    std::string error;
    if (!json_spirit::parse(json_spirit::to_text(object), kept, &error))
        throw json_spirit::Error(error);
    return std::move(kept.get_obj());
}

Catalog_Query::Catalog_Query(std::string const& kind, Object const& query)
    : query_(as_kept(query)),
      where_("s.kind = ?"),
      values_{kind},
      sort_key_(json_spirit::object_get_str(query_, "sort")),
      falling_(json_spirit::object_get_str(query_, "order") == "desc") {
    if (!query_.count("uuid"))
        add("s.open = 0");
    for (auto const& [key, wanted] : query_)
        choose(key, wanted);
}

void Catalog_Query::sort_by(std::string const& key) {
    sort_key_ = key;
    falling_ = false;
}

void Catalog_Query::not_after(Column_Value start) {
    if (!std::holds_alternative<std::monostate>(start))
        add("(s.backup_start_time IS NULL OR s.backup_start_time <= ?)", std::move(start));
}

void Catalog_Query::add(std::string const& condition, Column_Value value) {
    add(condition);
    values_.push_back(std::move(value));
}

void Catalog_Query::choose(std::string const& key, Value const& wanted) {
    if (key == "pool_uuid") {
        add("EXISTS (SELECT 1 FROM backup_storage AS t WHERE t.set_id = s.id AND t.pool_uuid = ?)",
            column_value(wanted));
    } else if (key == HOLDS_TABLE && wanted.type() == json_spirit::array_type) {
        add(holds_table_sql(wanted.get_array().size()));
        for (Value const& name : wanted.get_array())
            values_.push_back(column_value(name));
    } else if (key == "exclude_schema" && is_true(wanted)) {
        add("s.granularity IS NOT 'schema'");
    } else if (key == "check_restored" && is_true(wanted)) {
        add("NOT EXISTS (SELECT 1 FROM restored_resource AS r WHERE"
            " r.resource_uuid = s.resource_uuid AND ifnull(s.backup_end_time, 0) <= r.at)");
    } else if (key.starts_with(NOT_NULL) && is_column(key.substr(3))) {
        std::string const column = "s." + key.substr(3);
        add("(" + column + " IS NOT NULL AND " + column + " <> '' AND " + column + " <> 0)");
    } else if (is_column(key)) {
        add("s." + key + " IS ?", column_value(wanted));
    }
}

bool Catalog_Query::fits(Object const& row) const {
    for (auto const& [key, wanted] : query_) {
        bool fit = true;
        if (FORM.count(key) || key == "pool_uuid" || key == "check_restored" || key == HOLDS_TABLE)
            continue; // form, or exact in SQL
        if (key == "exclude_schema")
            fit = !is_true(wanted) || json_spirit::object_get_str(row, "granularity") != "schema";
        else if (key.starts_with(NOT_NULL))
            fit = has_content(json_spirit::object_get_any(row, key.substr(3)));
        else
            fit = json_spirit::object_get_any(row, key) == wanted;
        if (!fit)
            return false;
    }
    return true;
}

bool Catalog_Query::sorted_by_sql() const {
    return sort_key_.empty() || is_column(sort_key_);
}

std::string Catalog_Query::sql() const {
    std::string const direction = falling_ ? " DESC" : "";
    std::string order = "s.id" + direction;
    if (!sort_key_.empty() && is_column(sort_key_))
        order = "s." + sort_key_ + direction + ", " + order;
    char const* const row =
        query_.count("without_tables") ? "json_remove(s.row, '$.tables')" : "s.row";
    return std::string("SELECT s.id, ") + row + " FROM backup_set AS s WHERE " + where_ +
           " ORDER BY " + order;
}

std::string Catalog_Query::backup_ids_sql() const {
    return "SELECT s.backup_id FROM backup_set AS s WHERE " + where_ +
           " ORDER BY s.backup_start_time, s.backup_id";
}

bool Catalog_Query::is_exact() const {
    return std::all_of(query_.begin(), query_.end(), [](auto const& choice) {
        return FORM.count(choice.first) ||
               (is_column(choice.first) && choice.second.type() == json_spirit::str_type);
    });
}

void Catalog_Query::sort(std::vector<Object>& rows, std::string const& key, bool falling) {
    // the key of each row once, not once for each comparison
    std::vector<std::pair<Column_Value, size_t>> order;
    order.reserve(rows.size());
    for (Object const& row : rows)
        order.emplace_back(column_value(json_spirit::object_get_any(row, key)), order.size());
    std::stable_sort(order.begin(), order.end(), [falling](auto const& left, auto const& right) {
        return falling ? is_less(right.first, left.first) : is_less(left.first, right.first);
    });
    std::vector<Object> sorted;
    sorted.reserve(rows.size());
    for (auto const& entry : order)
        sorted.push_back(std::move(rows[entry.second]));
    rows = std::move(sorted);
}
