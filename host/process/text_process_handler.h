#ifndef HOST_PROCESS_TEXT_PROCESS_HANDLER_H
#define HOST_PROCESS_TEXT_PROCESS_HANDLER_H

#include "host/process/ace_process_ex.h"
#include "host/process/child_end.h"
#include "host/process/line_splitter.h"
#include "host/process/output_tail.h"
#include "host/process/tool_limits.h"

#include <ace/Log_Priority.h>
#include <ace/Time_Value.h>

#include <memory>
#include <set>
#include <string>
#include <sys/uio.h>

class Cancellation;
class Deadline;
class Process_Tree;

/**
 * Runs a tool and follows what it prints, line by line. The base of all line handlers: a derived
 * class overrides what it wants to see.
 *
 * A run is call(), or spawn() with any number of wait(), ended by the first wait() that sees it
 * over: the child has ended and its pipes are at their end. All happens on the calling thread, the
 * handlers too; one handler does one run at a time. With an ACE_Process_Ex that has a log callback,
 * all that the thread logs during these calls goes there too.
 *
 * stdout and stderr are read together as they come. A line is handed on without its "\n", with a
 * NUL behind it, and with whatever bytes it has; a last line without a "\n" counts. A line above 16
 * MiB comes in pieces of that size, which is told by one warning.
 *
 * The result of a run is the child's exit status; -1 when it was not started, ended by a signal or
 * lost. So 0 is an exit with 0 and nothing else. end() tells the rest. Logged here, once for a run:
 * an exit with another status at LM_WARNING, since only the caller knows what the status means; an
 * end by a signal at LM_ERROR; both with the last lines of stderr. A failed start is logged by
 * ACE_Process_Ex::spawn().
 *
 * A child that leaves a process behind which holds its pipes: after the child's end these are read
 * for as long as the constructor says (a fifth of a second at least), then a warning is logged and
 * the run is over.
 *
 * A run is a question to a tool unless unlimited() was called, and a question is answered in
 * bounds: it ends when the tool takes longer or prints more than Tool_Limits say. Every run ends
 * when the cancellation that was current at its start is cancelled. The tool then gets SIGTERM, and
 * two seconds later (five without limits) SIGKILL, together with its process group, which is its
 * own, with its descendants, and with its user's processes that hold its pipes. The result is -1,
 * end().kind is STOPPED, and one line tells the tool and the reason: at LM_WARNING for a
 * cancellation, at LM_ERROR for a limit. A process that holds the pipes of a tool that has answered
 * a question is killed when the run gives them up.
 */
class Text_Process_Handler {
public:
    /** In seconds. */
    enum {
        TERM_TIMEOUT = 600,         ///< terminate(): how long SIGTERM is tried before SIGKILL
        DTOR_TERM_TIMEOUT = 60,     ///< the same when a handler goes while its run goes on
        TERM_RETRY_INTERVAL = 60,   ///< how often SIGTERM is sent again
        PIPES_CLOSED_TIMEOUT = 60,  ///< how long pipes are read after the child's end
        REACTOR_EVENT_WAIT_TIME = 3 ///< how often a silent child is looked at where the kernel
                                    ///< cannot tell that it has ended
    };

    /** What is logged besides the lines. */
    enum {
        TPHF_LOG_NONE = 0,
        TPHF_LOG_CMD = 1,              ///< the command line, at LM_DEBUG
        TPHF_LOG_CVT_LOCAL_TO_UTF8 = 2 ///< lines are logged as UTF-8, taken as text of the locale
    };

    explicit Text_Process_Handler(unsigned int flags = TPHF_LOG_NONE,
                                  int pipes_closed_timeout_secs = PIPES_CLOSED_TIMEOUT);
    /** A run that goes on is ended by terminate(), its output thrown away. */
    virtual ~Text_Process_Handler();
    Text_Process_Handler(Text_Process_Handler const&) = delete;
    Text_Process_Handler& operator=(Text_Process_Handler const&) = delete;

    /** Runs of this handler are backups and the like, which may last for hours. Before a run. */
    void unlimited() { is_question_ = false; }

    /** Runs the program of @a options to its end. @a redirect_flags are ACE_Process_Ex's. */
    int call(unsigned int redirect_flags, ACE_Process_Options& options);
    /** The same with a process that the caller owns; it has to have no running child. */
    int call(ACE_Process_Ex* process, ACE_Process_Options& options);

    /**
     * Begins a run.
     * @return the child's process id; -1 when it was not started, or a run of this handler goes on.
     *         That is logged.
     * The process should live until the run is over. When it goes before, it ends its child itself
     * and the run is over without a result.
     */
    pid_t spawn(unsigned int redirect_flags, ACE_Process_Options& options);
    pid_t spawn(ACE_Process_Ex* process, ACE_Process_Options& options);

    /**
     * Follows the run to its end, no longer than @a timeout from now; null follows without limit.
     * @return the result of the run; -1 at the limit, end().kind is TIMED_OUT then, nothing has
     * been done to the child, and the run goes on with the next wait() or terminate().
     */
    int wait(ACE_Time_Value const* timeout = nullptr);

    /**
     * Ends the run: SIGTERM, again after each interval, and SIGKILL after the timeout. Output is
     * followed all the while, but what the child leaves behind is not waited for.
     * @return the result of the run, which is the exit status of a child that ended itself.
     */
    int terminate(ACE_Time_Value const& timeout = ACE_Time_Value(TERM_TIMEOUT),
                  ACE_Time_Value const& retry_interval = ACE_Time_Value(TERM_RETRY_INTERVAL));

    /**
     * Gives texts to the child's stdin, one behind the other, all of them, while its output is
     * followed. Between spawn() and wait(). The texts are not copied and reach no log.
     * @return the bytes given; less than all when the child does not read any more, with errno
     * then, EPIPE as a rule, and nothing logged. -1 with EBADF when stdin is not redirected.
     */
    ssize_t write_stdin(iovec const* texts, int count);
    /** The child reads the end of its stdin. wait() does this too. */
    void close_stdin();

    /** How the last run ended. */
    Child_End const& end() const { return end_; }
    /** True from spawn() until the run is over. */
    [[nodiscard]] bool running() const { return process_ != nullptr; }
    /**
     * The last lines of the last run's stderr, or of its whole output when both streams go into one
     * pipe, for the message of a failure: at most ten, joined by "\n", as UTF-8.
     */
    std::string last_error_lines() const { return tail_.lines(); }

    /**
     * Logs a line of output. A NUL in it is shown as "\0". What does not fit one line of the log
     * goes into the next.
     */
    void log_line(ACE_Log_Priority priority, char const* line, size_t length) const;

    /**
     * Called for each line. 0 goes on; any other result ends the handing on of both streams, while
     * the child is still read and waited for. The base logs the line at LM_INFO, whatever the
     * flags, except an empty one.
     */
    virtual int handle_stdout_line(char const* line, size_t length);
    virtual int handle_stderr_line(char const* line, size_t length);

    /** Called for each piece of stdout as it was read. The base makes the lines of it. */
    virtual int handle_stdout_segment(char const* data, size_t size);

    /** Called once when the redirected stream is at its end or given up. The base does nothing. */
    virtual void handle_stdout_close();
    virtual void handle_stderr_close();

private:
    /** One pipe from the child. */
    struct Stream {
        bool open = false;
        bool told_cut = false;
        Line_Splitter lines;
    };

    /** How far the ending of a run that was cancelled or exceeded a limit has come. */
    enum Stop_Step { NOT_STOPPED, ASKED_TO_END, KILLED };

    pid_t spawn_i(ACE_Process_Ex* process, ACE_Process_Options& options);
    void begin_run();
    std::string find_fault() const;
    [[nodiscard]] bool is_cancelled() const;
    void hold_to_bounds();
    void stop_tool(std::string const& fault);
    void kill_tool();
    void kill_holders();
    [[nodiscard]] bool has_run();
    [[nodiscard]] bool is_over() const {
        return !process_->running() && !stdout_.open && !stderr_.open;
    }
    [[nodiscard]] bool follow(Deadline const& limit);
    void follow_once(Deadline const& limit, bool until_writable);
    Deadline next_look(Deadline const& limit) const;
    void look_for_end();
    void give_up_open_streams();
    int finish();
    void log_end() const;

    int handle_of(Stream const& stream) const;
    ssize_t read_stream(Stream& stream, size_t size);
    void read_what_is_there(Stream& stream);
    void deliver(Stream& stream, char const* data, size_t size);
    void deliver_line(Stream& stream, char const* line, size_t length);
    void tell_cut_line(Stream& stream);
    void close_stream(Stream& stream);

    unsigned int flags_;
    int pipes_closed_timeout_secs_;

    std::unique_ptr<ACE_Process_Ex> own_process_;
    ACE_Process_Ex* process_ = nullptr; ///< null when no run goes on
    std::weak_ptr<void const> process_life_;
    Stream stdout_;
    Stream stderr_;
    std::unique_ptr<Deadline> pipes_limit_; ///< from the child's end on
    std::unique_ptr<char[]> buffer_;
    bool delivers_ = false;
    bool terminates_ = false;

    bool is_question_ = true;
    Tool_Limits limits_;
    std::unique_ptr<Deadline> time_limit_; ///< null for a run without limits
    std::shared_ptr<Cancellation> cancellation_;
    uint64_t printed_ = 0; ///< bytes
    std::set<ino_t> pipes_;
    Stop_Step stop_step_ = NOT_STOPPED;
    std::string stop_reason_;
    std::unique_ptr<Deadline> next_step_;
    std::unique_ptr<Process_Tree> tree_;

    Output_Tail tail_;
    Child_End end_;
};

#endif
