#ifndef AGENT_CLI_GUIDE_H
#define AGENT_CLI_GUIDE_H

#include "agent/cli/command_context.h"

#include <map>
#include <string>

/**
 * What the agent says of the databases, so that the command knows none. All is asked anew with each
 * call. An agent that cannot say it, because its module does not, is no failure.
 */

/** The answer of guide.backup or guide.instance; empty if there is none. */
json_spirit::Object guide_answer(Command_Context& context, char const* method,
                                 json_spirit::Object const& params);
/** A flavour as guide.flavours describes it, by its number; empty if it is unknown. */
json_spirit::Object flavour_of(Command_Context& context, int64_t number);
/** The names of all flavours by their numbers; empty if they are unknown. */
std::map<int64_t, std::string> flavour_names(Command_Context& context);
/** The name of one; the number itself for an unknown flavour. */
std::string flavour_name(std::map<int64_t, std::string> const& names, int64_t number);

/** Prints the flavours and what can be done with them. */
int list_flavours(Command_Context& context);

#endif
