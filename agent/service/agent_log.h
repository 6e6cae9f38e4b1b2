#ifndef AGENT_SERVICE_AGENT_LOG_H
#define AGENT_SERVICE_AGENT_LOG_H

#include <string>

/**
 * Sends the process's log to its place. Threads' own callbacks, the logs of runs, get every line
 * whatever the level is. To be called before there are other threads.
 * @param target  "stderr": a line each, with time stamp and priority; under systemd with a mark of
 *                the priority instead (sd-daemon(3)). "journal": the journal's own socket, with
 *                CODE_FILE and CODE_LINE left to systemd's.
 */
void open_agent_log(std::string const& target, std::string const& level);

/** "debug", "info", "warning" or "error": lines below it are left out. On any thread. */
void agent_log_level(std::string const& level);

#endif
