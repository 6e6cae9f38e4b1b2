#ifndef AGENT_CLI_EXIT_CODE_H
#define AGENT_CLI_EXIT_CODE_H

/** What the command ends with; they are in its manual, so they never change. */
enum Exit_Code : int {
    EXIT_OK = 0,
    EXIT_FAILED = 1,      ///< the job, or what was asked for, failed
    EXIT_USAGE = 2,       ///< the command line, or a definition, is not as it should be
    EXIT_UNREACHABLE = 3, ///< there is no agent, or it has gone
    EXIT_NOT_FOUND = 4,
    EXIT_REFUSED = 5,
    EXIT_CANCELED = 6,      ///< the job that was waited for was canceled
    EXIT_INTERRUPTED = 130, ///< Ctrl-C
};

#endif
