#ifndef AGENT_CLI_CONSENT_H
#define AGENT_CLI_CONSENT_H

#include "agent/cli/command_context.h"

#include <string>
#include <utility>
#include <vector>

/** What the command line says of a command that destroys something. */
struct Consent {
    bool yes = false;     ///< --yes: do not ask
    bool dry_run = false; ///< --dry-run: only show what would be done
};

/** What such a command does, to be shown before it is done. */
struct Consequences {
    std::string doing; ///< "restore backup 6f9619ff", for failures
    std::string title; ///< the first line
    /** A label and a text each; printed as they stand, so texts from elsewhere are printable(). */
    std::vector<std::pair<std::string, std::string>> lines;
};

/**
 * Shows what a command is about to do, and asks on a terminal whether to go on. Without a terminal
 * it refuses unless --yes is given. With --json the consequences are printed only for --dry-run, as
 * an object.
 * @return true to go on; otherwise @a status is what the command exits with: 0 for --dry-run,
 *         EXIT_REFUSED for a no, the end of the input, or no terminal, EXIT_INTERRUPTED for Ctrl-C
 */
[[nodiscard]] bool consents(Command_Context& context, Consent const& consent,
                            Consequences const& consequences, int& status);

/** "2026-11-22 02:30:00, 3:05:09 ago"; "-" for 0. */
std::string age_text(int64_t time);

#endif
