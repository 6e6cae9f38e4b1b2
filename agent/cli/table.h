#ifndef AGENT_CLI_TABLE_H
#define AGENT_CLI_TABLE_H

#include "agent/cli/list_wishes.h"
#include "agent/cli/terminal.h"

#include <string>
#include <vector>

/**
 * Rows of objects in aligned columns, with titles. Numbers stand at the right. On a terminal the
 * widest columns of text are cut until a line fits; elsewhere nothing is.
 */
class Table {
public:
    explicit Table(std::vector<Column> columns) : known_(columns), columns_(std::move(columns)) {}

    /** Adds columns that are shown only if the user names them. */
    void add_extra(std::vector<Column> const& columns) {
        known_.insert(known_.end(), columns.begin(), columns.end());
    }

    /**
     * Chooses columns and rows. To be called before rows are added.
     * @param error  on failure, what is wrong
     * @return false for an unknown column and an invalid filter or order
     */
    [[nodiscard]] bool choose(List_Wishes const& wishes, std::string& error);

    /** Adds a row, unless a filter excludes it. */
    void add(json_spirit::Object const& row) { add(row, row); }
    /** @param answered  the row as the agent sent it, for rows() */
    void add(json_spirit::Object const& row, json_spirit::Value const& answered);
    /** Adds the objects of an array. */
    void add(json_spirit::Array const& rows);
    [[nodiscard]] bool empty() const { return rows_.empty(); }

    /** The chosen rows as the agent sent them, sorted. */
    json_spirit::Array rows() const;
    /** All lines, each with its line break; the titles also when there are no rows. */
    std::string text(Terminal const& terminal) const;

private:
    struct Row {
        json_spirit::Object values;
        json_spirit::Value answered;
    };

    std::vector<size_t> widths(Terminal const& terminal,
                               std::vector<std::vector<std::string>> const& cells) const;
    std::vector<Row const*> chosen() const;

    std::vector<Column> known_;   ///< all that a filter or order may name
    std::vector<Column> columns_; ///< those that are shown
    std::vector<List_Filter> filters_;
    std::vector<List_Order> orders_;
    size_t limit_ = 0; ///< 0 for none
    std::vector<Row> rows_;
};

/**
 * The values of one object, one a line behind its title. Keys that are not there are left out; keys
 * that no column names come at the end under their own name.
 */
std::string fields_text(json_spirit::Object const& object, std::vector<Column> const& fields,
                        std::vector<std::string> const& left_out = {});

#endif
