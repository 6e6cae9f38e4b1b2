#ifndef HOST_PROCESS_TOOL_LIMITS_H
#define HOST_PROCESS_TOOL_LIMITS_H

#include <cstddef>
#include <cstdint>

/**
 * What a tool may take that is asked a question: a status, a version, the rows of a query. Backup
 * and restore runs and the scripts of jobs have no such limits, see
 * Text_Process_Handler::unlimited().
 *
 * One setting for the whole process. The agent sets it from its configuration; a module that is
 * loaded into another agent gets the defaults.
 */
struct Tool_Limits {
    int64_t seconds = 60;                     ///< "limits.tool_timeout"
    uint64_t output_bytes = 64 * 1024 * 1024; ///< "limits.tool_output", stdout and stderr together
    /** Of one line. No answer that the module reads has lines of more than a few hundred bytes. */
    static constexpr size_t LINE_BYTES = 1024 * 1024;

    /** The current setting; a change counts for tools that start later. Thread-safe. */
    static Tool_Limits get();
    static void set(Tool_Limits const& limits);
};

#endif
