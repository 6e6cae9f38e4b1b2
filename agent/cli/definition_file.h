#ifndef AGENT_CLI_DEFINITION_FILE_H
#define AGENT_CLI_DEFINITION_FILE_H

#include "agent/cli/command_context.h"

#include <string>

/**
 * Reads one JSON object.
 * @param file  its path; "-" for stdin
 * @return false after the user has been told what is wrong with it
 */
[[nodiscard]] bool read_definition_file(Command_Context& context, std::string const& file,
                                        json_spirit::Object& definition);

#endif
