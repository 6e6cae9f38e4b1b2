#ifndef AGENT_CATALOG_COLUMN_VALUE_H
#define AGENT_CATALOG_COLUMN_VALUE_H

#include "json_spirit/value.h"

#include <SQLiteCpp/Statement.h>

#include <cstdint>
#include <string>
#include <variant>

/** What is neither null nor a number nor a text, as bytes that sort and compare. */
struct Column_Bytes {
    std::string bytes;
};

/**
 * A JSON value as a column of type ANY holds it, for choosing and sorting: equal values have equal
 * columns. Columns that are equal are those of equal values where they are texts, but not where
 * they are numbers (1 and 1.0).
 *
 * Null is null, a number a number, a text itself; what else there is becomes the bytes of its JSON
 * text. Whole numbers above SQLite's largest become the bytes of 20 digits, so that they stay in
 * order.
 */
using Column_Value = std::variant<std::monostate, int64_t, double, std::string, Column_Bytes>;

Column_Value column_value(json_spirit::Value const& value);

/** The order of an index: null, numbers by their value, texts byte by byte, what else there is. */
[[nodiscard]] bool is_less(Column_Value const& left, Column_Value const& right);

/** Binds parameter @a index, from 1, of a statement. Throws SQLite::Exception. */
void bind(SQLite::Statement& statement, int index, Column_Value const& value);

#endif
