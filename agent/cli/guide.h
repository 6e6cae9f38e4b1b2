#ifndef AGENT_CLI_GUIDE_H
#define AGENT_CLI_GUIDE_H

#include "agent/cli/command_context.h"

#include <string>

/**
 * What the agent says of the databases, so that the command knows none. Each call asks the agent
 * again. If its module does not describe the databases, the answers are empty; that is not an
 * error.
 */

/** The answer of guide.backup or guide.instance; empty if there is none. */
json_spirit::Object guide_answer(Command_Context& context, char const* method,
                                 json_spirit::Object const& params);
/** The flavours as guide.flavours describes them; empty if they are unknown. */
json_spirit::Array list_of_flavours(Command_Context& context);
/** The one with this number; empty if it is unknown. */
json_spirit::Object flavour_of(json_spirit::Array const& flavours, int64_t number);
/** The name of one; the number itself for an unknown flavour. */
std::string flavour_name(json_spirit::Array const& flavours, int64_t number);

/** Prints the flavours and what can be done with them. */
int list_flavours(Command_Context& context);

#endif
