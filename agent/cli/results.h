#ifndef AGENT_CLI_RESULTS_H
#define AGENT_CLI_RESULTS_H

#include "agent/cli/command_context.h"
#include "agent/cli/table.h"

#include <string>
#include <vector>

/** How the commands show what the agent has answered. */

/** The array under a key; empty when there is none. */
json_spirit::Array array_of(json_spirit::Object const& object, char const* key);

/**
 * Requests a list and formats it by text_of_list().
 * @param key  key of the rows in the answer
 */
[[nodiscard]] bool list_text(Command_Context& context, std::string const& method,
                             json_spirit::Object const& params, std::string const& doing,
                             char const* key, Table table, char const* none, std::string& text);
/**
 * The result as JSON, with the rows of the table under @a key, or as a table; on a terminal @a none
 * replaces a table without rows.
 */
std::string text_of_list(Command_Context const& context, json_spirit::Object result,
                         char const* key, Table const& table, char const* none);
/** Gives the table what the user wants of the list. @return false after a failure was printed */
[[nodiscard]] bool choose(Command_Context& context, Table& table);
/**
 * How many rows to ask for: all that the table has to choose from.
 * @param usual  shown if the user gives no limit; one more is asked for, see cut_to_usual()
 * @param most   that the agent answers
 */
int64_t rows_to_ask(Command_Context const& context, int64_t usual, int64_t most);
/** Drops the rows behind the usual number, and tells the user on stderr. */
void cut_to_usual(Command_Context const& context, size_t usual, json_spirit::Array& rows);

/** A result as one indented JSON document, with its times as ISO 8601. */
std::string json_text(json_spirit::Value const& value);
/**
 * Whether the thing exists by which an empty list was filtered.
 * @param kind  "instance" or "definition"
 * @param name  "" for no filter
 * @return false after a failure was printed
 */
[[nodiscard]] bool is_known(Command_Context& context, std::string const& kind,
                            std::string const& name, std::string const& doing);

/** An object of the result by its fields, or as JSON. */
int show_object(Command_Context& context, json_spirit::Object const& object,
                std::vector<Column> const& fields, std::vector<std::string> const& left_out = {});

/** Says what has been done, or prints the result. */
int done(Command_Context& context, json_spirit::Object const& result, std::string const& what);

#endif
