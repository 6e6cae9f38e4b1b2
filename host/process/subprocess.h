#ifndef HOST_PROCESS_SUBPROCESS_H
#define HOST_PROCESS_SUBPROCESS_H

#include <ace/Log_Msg_Callback.h>
#include <ace/Process.h>

#include <memory>
#include <string>

/**
 * Running a tool to its end in one call, by Text_Process_Handler and within its bounds of time and
 * output. On any thread.
 */
namespace subprocess {

/**
 * Runs a tool. Its command line is logged at LM_DEBUG and all that it prints at LM_INFO.
 * @param callback  gets all lines of this call beside the usual log; null for none
 * @return the exit status; -1 when it was not started, ended by a signal or lost. What is not 0 has
 *         been logged.
 */
int call(ACE_Process_Options& options, std::shared_ptr<ACE_Log_Msg_Callback> callback = {});

/** The same without the limits of Tool_Limits, for what people may want to run for hours. */
int call_unlimited(ACE_Process_Options& options, std::shared_ptr<ACE_Log_Msg_Callback> callback);

/** The longest output that spawn_output() takes. */
constexpr size_t MAX_OUTPUT = 64 * 1024 * 1024;

/**
 * The same, with the output for the caller in place of the log.
 * @param output       replaced by what the tool printed, byte by byte, also on a failure
 * @param with_stderr  stderr belongs to the output, in the order of the writing; else its lines are
 *                     logged at LM_INFO
 * @return as call() does; -1 also, after an error line, for an output of more than MAX_OUTPUT
 * bytes, of which @a output then holds the beginning.
 */
int spawn_output(ACE_Process_Options& options, std::string& output, bool with_stderr);

} // namespace subprocess

#endif
