#include "agent/catalog/column_value.h"

#include "json_spirit/text.h"
#include "qmrt/format.h"

#include <cinttypes>

namespace {

enum Rank { NOTHING, NUMBER, TEXT, BYTES };

/** The place of a kind of value among the others. */
Rank rank(Column_Value const& value) {
    static constexpr Rank ranks[] = {NOTHING, NUMBER, NUMBER, TEXT, BYTES};
    return ranks[value.index()];
}

/** A double holds whole numbers up to 2^53 only, a long double all of an int64_t. */
long double number(Column_Value const& value) {
    if (int64_t const* const whole = std::get_if<int64_t>(&value))
        return static_cast<long double>(*whole);
    return std::get<double>(value);
}

} // namespace

Column_Value column_value(json_spirit::Value const& value) {
    switch (value.type()) {
    case json_spirit::null_type:
        return std::monostate();
    case json_spirit::int_type:
        if (value.is_uint64())
            return Column_Bytes{string_sprintf("%020" PRIu64, value.get_uint64())};
        return value.get_int64();
    case json_spirit::real_type:
        return value.get_real();
    case json_spirit::str_type:
        return value.get_str();
    default:
        return Column_Bytes{json_spirit::to_text(value)};
    }
}

bool is_less(Column_Value const& left, Column_Value const& right) {
    if (rank(left) != rank(right))
        return rank(left) < rank(right);
    switch (rank(left)) {
    case NUMBER:
        return number(left) < number(right);
    case TEXT:
        return std::get<std::string>(left) < std::get<std::string>(right);
    case BYTES:
        return std::get<Column_Bytes>(left).bytes < std::get<Column_Bytes>(right).bytes;
    default:
        return false;
    }
}

void bind(SQLite::Statement& statement, int index, Column_Value const& value) {
    if (int64_t const* const whole = std::get_if<int64_t>(&value))
        statement.bind(index, *whole);
    else if (double const* const real = std::get_if<double>(&value))
        statement.bind(index, *real);
    else if (std::string const* const text = std::get_if<std::string>(&value))
        statement.bind(index, *text);
    else if (Column_Bytes const* const other = std::get_if<Column_Bytes>(&value))
        statement.bind(index, other->bytes.data(), static_cast<int>(other->bytes.size()));
    else
        statement.bind(index);
}
