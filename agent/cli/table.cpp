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

bool Table::choose(List_Wishes const& wishes, std::string& error) {
    std::vector<Column> columns;
    for (std::string const& name : wishes.columns) {
        Column const* const column = find_column(known_, name, error);
        if (!column)
            return false;
        columns.push_back(*column);
    }
    for (std::string const& text : wishes.filters)
        if (!read_filter(known_, text, filters_.emplace_back(), error))
            return false;
    for (std::string const& text : wishes.sort)
        if (!read_order(known_, text, orders_.emplace_back(), error))
            return false;
    if (!columns.empty())
        columns_ = std::move(columns);
    limit_ = static_cast<size_t>(wishes.limit.value_or(0));
    return true;
}

void Table::add(json_spirit::Object const& row, json_spirit::Value const& answered) {
    if (std::ranges::all_of(filters_,
                            [&](List_Filter const& filter) { return filter.matches(row); }))
        rows_.push_back({row, answered});
}

void Table::add(json_spirit::Array const& rows) {
    for (json_spirit::Object const& row : json_spirit::objects_of(rows))
        add(row);
}

std::vector<Table::Row const*> Table::chosen() const {
    std::vector<Row const*> rows;
    for (Row const& row : rows_)
        rows.push_back(&row);
    std::stable_sort(rows.begin(), rows.end(), [&](Row const* a, Row const* b) {
        return compare_rows(a->values, b->values, orders_) < 0;
    });
    if (limit_ > 0 && rows.size() > limit_)
        rows.resize(limit_);
    return rows;
}

json_spirit::Array Table::rows() const {
    json_spirit::Array rows;
    for (Row const* const row : chosen())
        rows.emplace_back(row->answered);
    return rows;
}

std::vector<size_t> Table::widths(Terminal const& terminal,
                                  std::vector<std::vector<std::string>> const& cells) const {
    std::vector<size_t> widths;
    for (size_t index = 0; index < columns_.size(); ++index) {
        size_t width = display_width(columns_[index].title);
        for (auto const& row : cells)
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
    std::vector<std::vector<std::string>> cells;
    for (Row const* const row : chosen()) {
        cells.emplace_back();
        for (Column const& column : columns_)
            cells.back().push_back(
                value_text(json_spirit::object_get_any(row->values, column.key), column.form));
    }
    std::vector<size_t> const wanted = widths(terminal, cells);
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
    for (auto const& row : cells)
        add_line([&](size_t index) { return row[index]; });
    return text;
}

std::string fields_text(json_spirit::Object const& object, std::vector<Column> const& fields,
                        std::vector<std::string> const& left_out) {
    std::vector<std::pair<std::string, std::string>> lines;
    json_spirit::Object rest = object;
    auto const add = [&lines](std::string const& title, json_spirit::Value const& value,
                              Form form) {
        std::vector<std::string> const values = value_lines(value, form);
        for (size_t index = 0; index < values.size(); ++index)
            lines.emplace_back(index == 0 ? title + ":" : "", values[index]);
    };
    for (std::string const& key : left_out)
        rest.erase(key);
    for (Column const& field : fields) {
        json_spirit::Value const* const value = json_spirit::object_get_any_ptr(object, field.key);
        if (value)
            add(field.title, *value, field.form);
        rest.erase(field.key);
    }
    for (auto const& [key, value] : rest)
        add(printable(key), value, Form::TEXT);
    size_t width = 0;
    for (auto const& line : lines)
        width = std::max(width, display_width(line.first));
    std::string text;
    for (auto const& [title, value] : lines)
        text += padded(title, width, false, false) + "  " + value + "\n";
    return text;
}
