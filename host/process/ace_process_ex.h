#ifndef HOST_PROCESS_ACE_PROCESS_EX_H
#define HOST_PROCESS_ACE_PROCESS_EX_H

#include "host/process/child_end.h"
#include "qmrt/file.h"

#include <ace/Log_Msg_Callback.h>
#include <ace/Process.h>

#include <memory>
#include <string>
#include <sys/uio.h>

class Child_Setup;

/**
 * One child process: starts it, holds its pipes, waits for it.
 *
 * ACE_Process_Options carry the settings, and ACE's own spawning is not used: what it gets wrong in
 * silence is a failure or right here.
 *
 * - The command line is split by split_command_line(); no shell runs. A line that fills its buffer
 *   to the last byte may have been cut by ACE and is refused, as is an empty one.
 * - The program is looked for on the PATH that the child will have: the options' own, else the
 *   inherited one, else the system's default.
 * - A user that the options carry is taken on whole, with the supplementary groups that the user
 *   database gives; the change and the working directory succeed or there is no child. An agent
 *   that already is that user needs no right to change.
 * - handle_inheritance(0) closes all but the three standard streams, at a price that does not
 * depend on how many descriptors are allowed.
 * - A standard stream that is not redirected and not set by set_handles() is /dev/null for stdin
 * and the parent's own for stdout and stderr.
 * - The child starts with default signal handling and no signal blocked.
 *
 * Any number of threads may start children at once: all descriptors made here are close-on-exec,
 * and no signal handler and no wait for "any child" is used. One object belongs to one thread.
 * Lines that it logs go to its callback too.
 */
class ACE_Process_Ex {
public:
    /** Which streams of the child are pipes to this process. */
    enum {
        REDIRECT_STDIN = 1,
        REDIRECT_STDOUT = 2,
        REDIRECT_STDERR = 4,
        REDIRECT_ALL = 7,          ///< the three above, each in a pipe of its own
        REDIRECT_STDOUT_STDERR = 8 ///< both into the stdout pipe, in the order of the writing
    };

    /**
     * @param flags     REDIRECT_ flags
     * @param label     names the child in log lines; null or "" for its program's name
     * @param callback  gets the lines of this child beside the usual log; null for none
     */
    ACE_Process_Ex(unsigned int flags, char const* label,
                   std::shared_ptr<ACE_Log_Msg_Callback> callback = {});
    /** Ends a child that is running still, as end_now() does, with a warning. */
    ~ACE_Process_Ex();
    ACE_Process_Ex(ACE_Process_Ex const&) = delete;
    ACE_Process_Ex& operator=(ACE_Process_Ex const&) = delete;

    /**
     * Starts the program of @a options.
     * @return its process id; -1 with errno after an error line with the real reason, also when
     * that was found by the child itself. end() tells the reason again, and no child is left. An
     * object whose child has ended may start another.
     */
    pid_t spawn(ACE_Process_Options& options);

    /**
     * Waits for the end of the child, no longer than @a timeout from now; null waits without limit.
     * It reads no pipe: a child that writes more than a pipe holds waits for its reader.
     * @return true when it has ended, or none is running; end() tells how. False at the limit.
     */
    [[nodiscard]] bool wait(ACE_Time_Value const* timeout = nullptr);

    /** True from spawn() until wait() has seen the end. */
    [[nodiscard]] bool running() const { return end_.kind == Child_End::RUNNING; }
    /** How the last child ended. */
    Child_End const& end() const { return end_; }
    /** The process id of the last child; -1 before there was one. */
    pid_t getpid() const { return pid_; }

    /**
     * Sends a signal to a running child, and to its whole process group when the options gave it
     * one of its own (setgroup(0)).
     * @return 0, or -1 with errno; ESRCH when no child is running.
     */
    int kill(int signal);

    /**
     * Closes the pipes, asks the child to end by SIGTERM, and by SIGKILL when it has not done so
     * after @a term_timeout. Returns when it has ended.
     */
    void end_now(ACE_Time_Value const& term_timeout);

    /**
     * Lets a running child go that not even SIGKILL ends, such as one that waits for a file system
     * which does not answer. It is waited for when it has ended; its end is LOST.
     */
    void abandon();

    /**
     * This side's ends of the pipes; ACE_INVALID_HANDLE for a stream that is not redirected or is
     * closed. They stay this object's. stdin does not block.
     */
    ACE_HANDLE stdin_handle() const { return stdin_.get(); }
    ACE_HANDLE stdout_handle() const { return stdout_.get(); }
    ACE_HANDLE stderr_handle() const { return stderr_.get(); }
    void close_stdin() { stdin_.reset(); }
    void close_stdout() { stdout_.reset(); }
    void close_stderr() { stderr_.reset(); }

    /** Readable when the child has ended, for poll(); -1 where the kernel has no such descriptor.
     */
    int end_handle() const { return pidfd_.get(); }

    /**
     * Writes some of the texts to the child's stdin, as much as fits now.
     * @return the bytes written; -1 with errno: EAGAIN when the pipe is full, EPIPE when nobody
     * reads it any more, EBADF when stdin is not redirected. No SIGPIPE reaches this process.
     */
    ssize_t write_stdin(iovec const* texts, int count);

    unsigned int flags() const { return flags_; }
    /** The user that the last child was started as. */
    uid_t user() const { return user_; }
    /** True when the last child has a process group of its own. */
    [[nodiscard]] bool leads_group() const { return leads_group_; }
    /** The name in log lines. */
    char const* label() const { return shown_label_.c_str(); }
    std::shared_ptr<ACE_Log_Msg_Callback> const& callback() const { return callback_; }
    /** Expires with this object. */
    std::weak_ptr<void const> life() const { return life_; }

private:
    pid_t spawn_i(ACE_Process_Options& options);
    [[nodiscard]] bool make_pipes(Child_Setup& setup, File_Descriptor (&child_ends)[3]);
    pid_t fail(std::string const& reason, int error);
    [[nodiscard]] bool reap(int wait_options);
    void close_pipes();

    unsigned int flags_;
    std::string label_;
    std::string shown_label_;
    std::shared_ptr<ACE_Log_Msg_Callback> callback_;
    std::shared_ptr<void const> life_;

    pid_t pid_ = -1;
    bool leads_group_ = false;
    uid_t user_ = 0;
    File_Descriptor pidfd_;
    File_Descriptor stdin_;
    File_Descriptor stdout_;
    File_Descriptor stderr_;
    Child_End end_;
};

#endif
