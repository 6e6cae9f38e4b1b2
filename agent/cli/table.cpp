#include "agent/cli/table.h"

#include "json_spirit/access.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr size_t GAP = 2;
constexpr size_t LEAST_WIDTH = 4; ///< no column is cut to less

bool is_right_aligned(Form form) {
    return form == Form::SIZE || form == Form::LIMIT || form == Form::PERCENT ||
           form == Form::SPEED;
}

bool may_be_cut(Form form) {
    return form == Form::TEXT;
}

/** A cell with the blanks that it needs; none at the end of a line. */
std::string padded(std::string const& cell, size_t width, bool right, bool last) {
    size_t const own = display_width(cell);
    std::string const blanks(width > own ? width - own : 0, ' ');
    if (right)
        return blanks + cell;
    return last ? cell : cell + blanks;
}

} // namespace

void Table::add(json_spirit::Object const& row) {
    std::vector<std::string> cells;
    for (Column const& column : columns_)
        cells.push_back(value_text(json_spirit::object_get_any(row, column.key), column.form));
    rows_.push_back(std::move(cells));
}

void Table::add(json_spirit::Array const& rows) {
    for (json_spirit::Object const& row : json_spirit::objects_of(rows))
        add(row);
}

std::vector<size_t> Table::widths(Terminal const& terminal) const {
    std::vector<size_t> widths;
    for (size_t index = 0; index < columns_.size(); ++index) {
        size_t width = display_width(columns_[index].title);
        for (auto const& row : rows_)
            width = std::max(width, display_width(row[index]));
        widths.push_back(width);
    }
    if (!terminal.interactive)
        return widths;
    auto const total = [&] {
        return std::accumulate(widths.begin(), widths.end(), GAP * (widths.size() - 1));
    };
    for (size_t used = total(); used > terminal.width; used = total()) {
        size_t widest = columns_.size();
        for (size_t index = 0; index < columns_.size(); ++index)
            if (may_be_cut(columns_[index].form) && widths[index] > LEAST_WIDTH &&
                (widest == columns_.size() || widths[index] > widths[widest]))
                widest = index;
        if (widest == columns_.size())
            break; // narrower than this table can be
        --widths[widest];
    }
    return widths;
}

std::string Table::text(Terminal const& terminal) const {
    std::vector<size_t> const wanted = widths(terminal);
    char const* const ellipsis = terminal.utf8 ? "…" : "...";
    std::string text;
    auto const add_line = [&](auto const& cell_of) {
        for (size_t index = 0; index < columns_.size(); ++index) {
            bool const last = index + 1 == columns_.size();
            text += padded(fit(cell_of(index), wanted[index], ellipsis), wanted[index],
                           is_right_aligned(columns_[index].form), last);
            if (!last)
                text.append(GAP, ' ');
        }
        text += "\n";
    };
    add_line([&](size_t index) { return std::string(columns_[index].title); });
    for (auto const& row : rows_)
        add_line([&](size_t index) { return row[index]; });
    return text;
}

std::string fields_text(json_spirit::Object const& object, std::vector<Column> const& fields,
                        std::vector<std::string> const& left_out) {
    std::vector<std::pair<std::string, std::string>> lines;
    json_spirit::Object rest = object;
    for (std::string const& key : left_out)
        rest.erase(key);
    for (Column const& field : fields) {
        json_spirit::Value const* const value = json_spirit::object_get_any_ptr(object, field.key);
        if (value)
            lines.emplace_back(field.title, value_text(*value, field.form));
        rest.erase(field.key);
    }
    for (auto const& [key, value] : rest)
        lines.emplace_back(printable(key), value_text(value));
    size_t width = 0;
    for (auto const& line : lines)
        width = std::max(width, display_width(line.first));
    std::string text;
    for (auto const& [title, value] : lines)
        text += padded(title + ":", width + 1, false, false) + "  " + value + "\n";
    return text;
}
