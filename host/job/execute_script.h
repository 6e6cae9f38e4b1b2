#ifndef HOST_JOB_EXECUTE_SCRIPT_H
#define HOST_JOB_EXECUTE_SCRIPT_H

#include <memory>
#include <string>

class ACE_Log_Msg_Callback;

/**
 * Runs a script that a user gave with a job, such as its pre-action, and waits for its end.
 *
 * The script is shell text for /bin/sh, so it may hold several commands, pipes and variables, and
 * be of any length. It runs as the agent's own user, with the agent's environment and LC_ALL set
 * to "C": only an administrator may write one. It reaches the shell as a file in the temporary
 * directory that only that user can read, gone again afterwards, because it may hold a password:
 * a command line can be seen by every user, and is logged. The lines that it prints are logged.
 *
 * @param strict        stop at the first command that fails (sh -e)
 * @param log_callback  gets those lines as well; may be null
 * @return true for an empty script and for exit status 0. False for any other end, and for a
 *         script that cannot be run, such as one with a NUL in it; an error line tells.
 */
[[nodiscard]] bool execute_script(std::string const& script, bool strict,
                                  std::shared_ptr<ACE_Log_Msg_Callback> log_callback);

#endif
