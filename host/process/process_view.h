#ifndef HOST_PROCESS_PROCESS_VIEW_H
#define HOST_PROCESS_PROCESS_VIEW_H

#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

/** What /proc tells of one process. Arguments and environment are whatever its user wrote there. */
struct Process_View {
    pid_t pid = -1;
    uid_t uid = static_cast<uid_t>(-1);
    std::vector<std::string> arguments;
    std::string environment;    ///< entries, each with a NUL behind it
    std::string program;        ///< path of its executable
    struct stat program_status; ///< of the executable that runs, whatever lies at that path now
    std::string directory;      ///< its working directory
    /**
     * "", or why its arguments and environment may be another user's than uid; a part of a
     * sentence. So it is for a program that was started with the rights of its file's owner
     * (setuid): its environment is the caller's.
     */
    std::string fault;
};

/**
 * Looks at a process. All of the view belongs to the same process, also when the process ends and
 * its id is used again, and its user was the same throughout.
 * @return 0; -1 with errno, ENOENT or ESRCH when there is no such process. Nothing is logged.
 */
int view_process(pid_t pid, Process_View& view);

#endif
