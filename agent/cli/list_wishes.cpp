#include "agent/cli/list_wishes.h"

#include "agent/cli/suggestion.h"
#include "json_spirit/access.h"
#include "qmrt/names.h"
#include "qmrt/natoi.h"
#include "qmrt/posix_time.h"

#include <algorithm>
#include <cctype>
#include <cmath>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char NO_VALUE[] = "-";

/** How users type the title of a column: "LAST SEEN" is "last-seen". */
std::string column_name(std::string_view title) {
    std::string name(title);
    for (char& c : name)
        c = c == ' ' || c == '_' ? '-'
                                 : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return name;
}

bool is_number_form(Form form) {
    return form == Form::SIZE || form == Form::LIMIT || form == Form::SPEED || form == Form::TIME ||
           form == Form::DURATION || form == Form::PERCENT;
}

/** A whole number of at most 18 digits; a percent sign may follow. */
std::optional<int64_t> plain_number(std::string text) {
    constexpr size_t MOST_DIGITS = 18;
    if (text.ends_with('%'))
        text.pop_back();
    if (text.empty() || text.size() > MOST_DIGITS ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return {};
    return std::stoll(text);
}

std::optional<int64_t> number_of_text(std::string const& text, Form form) {
    uint64_t size = 0;
    time_t time = 0;
    switch (form) {
    case Form::SIZE:
    case Form::LIMIT:
    case Form::SPEED:
        return read_size(text, size) ? std::optional(static_cast<int64_t>(size)) : std::nullopt;
    case Form::TIME:
        return iso8601_to_posix_time(text, time) ? std::optional(int64_t{time}) : std::nullopt;
    default:
        return plain_number(text);
    }
}

char const* expected_text(Form form) {
    switch (form) {
    case Form::SIZE:
    case Form::LIMIT:
    case Form::SPEED:
        return "a size such as 500GiB";
    case Form::TIME:
        return "a time such as '2026-11-22 10:15:00', with a zone such as Z or +08:00 unless it is "
               "local time";
    case Form::DURATION:
        return "a number of seconds";
    default:
        return "a whole number";
    }
}

Value const& value_of(Object const& row, Column const& column) {
    return json_spirit::object_get_any(row, column.key);
}

/** A number of the row, if there is one: a time or limit of 0 is none. */
std::optional<int64_t> number_in(Object const& row, Column const& column) {
    Value const& value = value_of(row, column);
    bool const none = column.form == Form::TIME || column.form == Form::LIMIT;
    int64_t number = 0;
    if (value.type() == json_spirit::int_type)
        number = value.is_uint64() ? INT64_MAX : value.get_int64();
    else if (value.type() == json_spirit::real_type && std::abs(value.get_real()) < 9e18)
        number = static_cast<int64_t>(value.get_real());
    else
        return {};
    return none && number == 0 ? std::optional<int64_t>() : number;
}

/** The value as filters and orders see it: an id is not shortened. */
std::string text_in(Object const& row, Column const& column) {
    return value_text(value_of(row, column),
                      column.form == Form::SHORT_ID ? Form::TEXT : column.form);
}

bool is_word_or_flag(Column const& column, Object const& row) {
    return column.form == Form::WORD || value_of(row, column).type() == json_spirit::bool_type;
}

} // namespace

Column const* find_column(std::vector<Column> const& columns, std::string const& name,
                          std::string& error) {
    std::vector<std::string> known;
    std::string list;
    for (Column const& column : columns) {
        known.push_back(column_name(column.title));
        if (known.back() == column_name(name) || column.key == name)
            return &column;
        list += (list.empty() ? "" : ", ") + known.back();
    }
    std::string const hint = did_you_mean(column_name(name), known);
    error = "unknown column '" + names::shown(name) + "' (expected " + list + ")" +
            (hint.empty() ? "" : ". " + hint);
    return nullptr;
}

bool read_filter(std::vector<Column> const& columns, std::string const& text, List_Filter& filter,
                 std::string& error) {
    struct Sign {
        char const* text;
        List_Filter::Operator op;
    };
    static constexpr Sign SIGNS[] = {{"!=", List_Filter::UNEQUAL},  {"<=", List_Filter::AT_MOST},
                                     {">=", List_Filter::AT_LEAST}, {"=", List_Filter::EQUAL},
                                     {"~", List_Filter::CONTAINS},  {"<", List_Filter::LESS},
                                     {">", List_Filter::MORE}};
    size_t const at = text.find_first_of("=!~<>");
    std::string const rest = at == std::string::npos ? "" : text.substr(at);
    auto const sign =
        std::ranges::find_if(SIGNS, [&](Sign const& one) { return rest.starts_with(one.text); });
    if (at == 0 || at == std::string::npos || sign == std::end(SIGNS)) {
        error = "invalid filter '" + names::shown(text) +
                "' (expected COLUMN=TEXT, or !=, ~, <, <=, >, >= in place of =)";
        return false;
    }
    Column const* const column = find_column(columns, text.substr(0, at), error);
    if (!column)
        return false;
    filter = {*column, sign->op, rest.substr(std::string_view(sign->text).size()), {}};
    bool const by_text = filter.text.empty() || filter.op == List_Filter::CONTAINS;
    filter.number = number_of_text(filter.text, column->form);
    if (!by_text && is_number_form(column->form) && !filter.number) {
        error = "invalid filter '" + names::shown(text) + "': column " +
                column_name(column->title) + " is compared with " + expected_text(column->form);
        return false;
    }
    return true;
}

bool List_Filter::matches(Object const& row) const {
    std::string const shown = text_in(row, column);
    std::optional<int64_t> const held = number_in(row, column);
    bool const by_number = number && held && (is_number_form(column.form) || op >= LESS);
    int order = 0;
    if (by_number)
        order = *held < *number ? -1 : *held > *number;
    else if (op >= LESS)
        order = shown.compare(text);
    bool equal = by_number ? order == 0 : shown == (text.empty() ? NO_VALUE : text);
    if (column.form == Form::SHORT_ID && !text.empty())
        equal = shown.starts_with(text);
    if (is_word_or_flag(column, row))
        equal = column_name(shown) == column_name(text.empty() ? NO_VALUE : text);
    // what has no value is neither more nor less than another one
    bool const is_ordered = shown != NO_VALUE && (held || !is_number_form(column.form));
    switch (op) {
    case EQUAL:
        return equal;
    case UNEQUAL:
        return !equal;
    case CONTAINS:
        return shown.find(text) != std::string::npos;
    case LESS:
        return is_ordered && order < 0;
    case AT_MOST:
        return is_ordered && order <= 0;
    case MORE:
        return is_ordered && order > 0;
    case AT_LEAST:
        return is_ordered && order >= 0;
    }
    return false;
}

bool read_order(std::vector<Column> const& columns, std::string const& text, List_Order& order,
                std::string& error) {
    size_t const colon = text.find(':');
    std::string const direction = colon == std::string::npos ? "asc" : text.substr(colon + 1);
    if (direction != "asc" && direction != "desc") {
        error = "invalid order '" + names::shown(text) +
                "' (expected COLUMN, COLUMN:asc or "
                "COLUMN:desc)";
        return false;
    }
    Column const* const column = find_column(columns, text.substr(0, colon), error);
    if (column)
        order = {*column, direction == "desc"};
    return column != nullptr;
}

int compare_rows(Object const& a, Object const& b, std::vector<List_Order> const& orders) {
    for (List_Order const& order : orders) {
        std::optional<int64_t> const left = number_in(a, order.column);
        std::optional<int64_t> const right = number_in(b, order.column);
        std::string const left_text = text_in(a, order.column);
        std::string const right_text = text_in(b, order.column);
        bool const left_has = left_text != NO_VALUE;
        bool const right_has = right_text != NO_VALUE;
        if (left_has != right_has)
            return left_has ? -1 : 1;
        int const difference =
            left && right ? (*left < *right ? -1 : *left > *right) : left_text.compare(right_text);
        if (difference != 0)
            return order.descending ? -difference : difference;
    }
    return 0;
}
