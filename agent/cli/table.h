#ifndef AGENT_CLI_TABLE_H
#define AGENT_CLI_TABLE_H

#include "agent/cli/terminal.h"
#include "agent/cli/text_form.h"

#include <string>
#include <vector>

/** One column of a table: where its values are, and how they are shown. */
struct Column {
    char const* title;
    char const* key;
    Form form = Form::TEXT;
};

/**
 * Rows of objects in aligned columns, with titles. Numbers stand at the right. On a terminal the
 * widest columns of text are cut until a line fits; elsewhere nothing is.
 */
class Table {
public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    void add(json_spirit::Object const& row);
    /** Adds the objects of an array. */
    void add(json_spirit::Array const& rows);
    [[nodiscard]] bool empty() const { return rows_.empty(); }

    /** All lines, each with its line break; the titles also when there are no rows. */
    std::string text(Terminal const& terminal) const;

private:
    std::vector<size_t> widths(Terminal const& terminal) const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

/**
 * The values of one object, one a line behind its title. Keys that are not there are left out; keys
 * that no column names come at the end under their own name.
 */
std::string fields_text(json_spirit::Object const& object, std::vector<Column> const& fields,
                        std::vector<std::string> const& left_out = {});

#endif
