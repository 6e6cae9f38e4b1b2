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
 * Asks for a list and makes its text: JSON, a table, or a sentence when there is nothing.
 * @param answer  if not null and the text is not JSON, set to what was answered
 */
[[nodiscard]] bool list_text(Command_Context& context, std::string const& method,
                             json_spirit::Object const& params, std::string const& doing,
                             char const* key, Table table, char const* none, std::string& text,
                             json_spirit::Object* answer = nullptr);

/** An object of the result by its fields, or as JSON. */
int show_object(Command_Context& context, json_spirit::Object const& object,
                std::vector<Column> const& fields, std::vector<std::string> const& left_out = {});

/** Says what has been done, or prints the result. */
int done(Command_Context& context, json_spirit::Object const& result, std::string const& what);

#endif
