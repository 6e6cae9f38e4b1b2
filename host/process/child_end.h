#ifndef HOST_PROCESS_CHILD_END_H
#define HOST_PROCESS_CHILD_END_H

#include <string>

/** How a child process ended. */
struct Child_End {
    enum Kind {
        NOT_STARTED, ///< there is no child, and `reason` says why
        RUNNING,     ///< it has not ended
        TIMED_OUT,   ///< it had not ended at the limit of a wait, and may be running still
        EXITED,      ///< `code` is its exit status, 0 to 255
        SIGNALLED,   ///< `code` is the signal that ended it
        STOPPED,     ///< this process has ended it, and `reason` says why
        LOST         ///< it has ended, but this process ignores SIGCHLD or waited for it elsewhere
    };

    Kind kind = NOT_STARTED;
    int code = 0;
    bool core_dumped = false;
    std::string reason;

    /** Nothing but an exit with 0 is a success. */
    [[nodiscard]] bool success() const { return kind == EXITED && code == 0; }
    /** The exit status; -1 for every other end, so that 0 is a success and nothing else. */
    int status() const { return kind == EXITED ? code : -1; }
    /** As a part of a sentence: "exited with status 3", "was ended by signal 9 (Killed)". */
    std::string describe() const;
};

#endif
