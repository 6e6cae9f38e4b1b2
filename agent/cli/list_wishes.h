#ifndef AGENT_CLI_LIST_WISHES_H
#define AGENT_CLI_LIST_WISHES_H

#include "agent/cli/text_form.h"
#include "json_spirit/value.h"

#include <optional>
#include <string>
#include <vector>

/** One column of a table: where its values are, and how they are shown. */
struct Column {
    char const* title;
    char const* key;
    Form form = Form::TEXT;
};

/** What a user wants of a list: --columns, --sort, --filter and --limit. */
struct List_Wishes {
    std::vector<std::string> columns; ///< names of columns; empty for all
    std::vector<std::string> sort;    ///< "COLUMN" or "COLUMN:desc", the most important first
    std::vector<std::string> filters; ///< "COLUMN=TEXT", see read_filter()
    std::optional<int64_t> limit;     ///< rows at most; 0 for all

    /** Whether the rows are chosen here, so that the agent's own limit would be wrong. */
    [[nodiscard]] bool choose_rows() const { return !sort.empty() || !filters.empty(); }
};

/** A condition on the value of one column. */
struct List_Filter {
    enum Operator { EQUAL, UNEQUAL, CONTAINS, LESS, AT_MOST, MORE, AT_LEAST };

    Column column;
    Operator op = EQUAL;
    std::string text;
    std::optional<int64_t> number; ///< the text as a number, if the column has numbers

    [[nodiscard]] bool matches(json_spirit::Object const& row) const;
};

/**
 * Finds a column by its title in any case, with '-' or '_' for a blank, or by its key.
 * @param error  on failure, says which columns there are
 * @return null for an unknown column
 */
Column const* find_column(std::vector<Column> const& columns, std::string const& name,
                          std::string& error);

/**
 * Reads COLUMN=TEXT. Further operators are !=, ~ (contains), <, <=, > and >=. Sizes have units,
 * times are ISO 8601, ids match by their prefix, and "" matches an absent value.
 * @return false, with @a error set, for an unknown column, a missing operator and a wrong number
 */
[[nodiscard]] bool read_filter(std::vector<Column> const& columns, std::string const& text,
                               List_Filter& filter, std::string& error);

/** Reads COLUMN, COLUMN:asc or COLUMN:desc. */
struct List_Order {
    Column column;
    bool descending = false;
};
[[nodiscard]] bool read_order(std::vector<Column> const& columns, std::string const& text,
                              List_Order& order, std::string& error);

/** Negative, 0 or positive as @a a sorts before, with or behind @a b. Rows without a value come
 * last. */
int compare_rows(json_spirit::Object const& a, json_spirit::Object const& b,
                 std::vector<List_Order> const& orders);

#endif
