#ifndef AGENT_CLI_CHECK_COMMAND_H
#define AGENT_CLI_CHECK_COMMAND_H

#include "agent/cli/command_context.h"

#include <string>

/** What to check; nothing of what is empty. */
struct Check_Wishes {
    std::string instance;
    std::string pool;
    std::string cache_dir;
    std::string uid;
    int timeout = 60;    ///< seconds for the whole of it
    bool nagios = false; ///< one line for monitoring, and its exit status
};

/** Exit status of a monitoring plugin. */
enum Plugin_Status : int { PLUGIN_OK, PLUGIN_WARNING, PLUGIN_CRITICAL, PLUGIN_UNKNOWN };

int check(Command_Context& context, Check_Wishes const& wishes);

/** The lines of a check, or of a trial, for people. */
std::string check_text(json_spirit::Object const& result);

/**
 * The result of a check as a monitoring plugin prints it, one line: "ZENBRAK3 CRITICAL - 1 of 12
 * checks: pool main: ... | checks=12 failed=1 free_main=1024B".
 * @param status  gets the exit status, of the worst line
 */
std::string plugin_line(json_spirit::Object const& result, Plugin_Status& status);
/** The line of a plugin that could not check. */
std::string plugin_failure(std::string const& why);

#endif
