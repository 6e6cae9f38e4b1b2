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
 * @param key     key of the rows in the answer
 * @param answer  if not null and the text is not JSON, set to what was answered
 */
[[nodiscard]] bool list_text(Command_Context& context, std::string const& method,
                             json_spirit::Object const& params, std::string const& doing,
                             char const* key, Table table, char const* none, std::string& text,
                             json_spirit::Object* answer = nullptr);
/** The result as JSON, or as a table; on a terminal @a none replaces a table without rows. */
std::string text_of_list(Command_Context const& context, json_spirit::Object const& result,
                         Table const& table, char const* none);
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
