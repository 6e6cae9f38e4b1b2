#include "host/process/text_process_handler.h"

#include "host/process/cancellation.h"
#include "host/process/deadline.h"
#include "host/process/log_callback_scope.h"
#include "host/process/process_tree.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

/** What a pipe holds. */
constexpr size_t BUFFER_SIZE = 64 * 1024;

/**
 * How long the pipes of an ended child are read at least. A child that another thread is just
 * starting has copies of them too, up to its exec, and is not something that was left behind.
 */
constexpr suseconds_t SHORTEST_PIPES_TIMEOUT_USECS = 200000;

/** Between SIGTERM and SIGKILL for a tool whose question is given up. */
constexpr time_t STOP_GRACE_SECS = 2;

/** The same for a backup or a restore, which has files and sessions to clean up. */
constexpr time_t LONG_STOP_GRACE_SECS = 5;

/** How long the end of a killed tool is waited for; one that the kernel holds back is let go. */
constexpr time_t KILL_GRACE_SECS = 2;

/** How often a question is looked at where the kernel cannot tell that the tool has ended. */
constexpr suseconds_t LOOK_INTERVAL_USECS = 50000;

/** How often a tool that was asked to end is looked at for what it still starts. */
constexpr suseconds_t STOP_LOOK_USECS = 100000;

/** A line of the log holds 4 KiB. */
constexpr size_t MAX_LOGGED = 4000;

ACE_Time_Value shortest_pipes_timeout() {
    return ACE_Time_Value(0, SHORTEST_PIPES_TIMEOUT_USECS);
}

/** The bytes of @a text, at most MAX_LOGGED, that make whole UTF-8 characters. */
size_t logged_length(std::string const& text, size_t begin) {
    size_t const left = text.size() - begin;
    if (left <= MAX_LOGGED)
        return left;
    size_t length = MAX_LOGGED;
    while (length > MAX_LOGGED - 4 &&
           (static_cast<unsigned char>(text[begin + length]) & 0xC0) == 0x80)
        --length;
    return length;
}

/** Takes @a written bytes off the beginning of @a texts. */
void advance(std::vector<iovec>& texts, size_t written) {
    auto text = texts.begin();
    for (; text != texts.end() && text->iov_len <= written; ++text)
        written -= text->iov_len;
    if (text != texts.end()) {
        text->iov_base = static_cast<char*>(text->iov_base) + written;
        text->iov_len -= written;
    }
    texts.erase(texts.begin(), text);
}

} // namespace

Text_Process_Handler::Text_Process_Handler(unsigned int flags, int pipes_closed_timeout_secs)
    : flags_(flags), pipes_closed_timeout_secs_(pipes_closed_timeout_secs) {}

Text_Process_Handler::~Text_Process_Handler() {
    if (!has_run())
        return;
    delivers_ = false;
    terminate(ACE_Time_Value(DTOR_TERM_TIMEOUT));
}

int Text_Process_Handler::call(unsigned int redirect_flags, ACE_Process_Options& options) {
    return spawn(redirect_flags, options) == -1 ? -1 : wait();
}

int Text_Process_Handler::call(ACE_Process_Ex* process, ACE_Process_Options& options) {
    return spawn(process, options) == -1 ? -1 : wait();
}

pid_t Text_Process_Handler::spawn(unsigned int redirect_flags, ACE_Process_Options& options) {
    auto process = std::make_unique<ACE_Process_Ex>(redirect_flags, nullptr);
    pid_t const pid = spawn_i(process.get(), options);
    if (pid != -1)
        own_process_ = std::move(process);
    return pid;
}

pid_t Text_Process_Handler::spawn(ACE_Process_Ex* process, ACE_Process_Options& options) {
    return QMRT_IS_NULL(process) ? -1 : spawn_i(process, options);
}

pid_t Text_Process_Handler::spawn_i(ACE_Process_Ex* process, ACE_Process_Options& options) {
    Log_Callback_Scope const scope(process->callback());
    if (has_run()) {
        QMRT_LOG(LM_ERROR, "Failed to start a program, the run of %s (pid %d) goes on\n",
                 process_->label(), process_->getpid());
        errno = EBUSY;
        return -1;
    }
    char const* const line = options.command_line_buf();
    if (flags_ & TPHF_LOG_CMD && line)
        log_line(LM_DEBUG, line, strlen(line));
    tail_.clear();
    end_ = Child_End();
    cancellation_ = Cancellation::current();
    if (is_cancelled()) {
        QMRT_LOG(LM_WARNING, "No tool is started, %s\n", cancellation_->reason());
        end_.reason = cancellation_->reason();
        errno = ECANCELED;
        return -1;
    }
    if ((is_question_ || cancellation_) && options.getgroup() == ACE_INVALID_PID)
        options.setgroup(0);
    pid_t const pid = process->spawn(options);
    if (pid == -1) {
        if (!process->running())
            end_ = process->end();
        return -1;
    }
    end_ = process->end();
    process_ = process;
    process_life_ = process->life();
    stdout_ = Stream();
    stdout_.open = process->stdout_handle() != ACE_INVALID_HANDLE;
    stderr_ = Stream();
    stderr_.open = process->stderr_handle() != ACE_INVALID_HANDLE;
    pipes_limit_.reset();
    if (!buffer_)
        buffer_ = std::make_unique_for_overwrite<char[]>(BUFFER_SIZE);
    delivers_ = true;
    terminates_ = false;
    begin_run();
    return pid;
}

void Text_Process_Handler::begin_run() {
    time_limit_.reset();
    next_step_.reset();
    stop_step_ = NOT_STOPPED;
    printed_ = 0;
    pipes_.clear();
    tree_ = std::make_unique<Process_Tree>(process_->getpid());
    for (Stream* const stream : {&stdout_, &stderr_}) {
        struct stat status;
        if (stream->open && fstat(handle_of(*stream), &status) == 0)
            pipes_.insert(status.st_ino);
    }
    if (!is_question_)
        return;
    limits_ = Tool_Limits::get();
    time_limit_ = std::make_unique<Deadline>(ACE_Time_Value(limits_.seconds));
    for (Stream* const stream : {&stdout_, &stderr_})
        stream->lines = Line_Splitter(Tool_Limits::LINE_BYTES);
}

bool Text_Process_Handler::is_cancelled() const {
    return cancellation_ && cancellation_->cancelled();
}

/** Why the run has to be given up; "" as long as it is wanted and within its limits. */
std::string Text_Process_Handler::find_fault() const {
    if (is_cancelled())
        return cancellation_->reason();
    if (!time_limit_)
        return "";
    // what holds the pipes of a tool that has answered is no reason to lose the answer
    if (process_->running() && time_limit_->passed())
        return string_sprintf("it has not answered within %lld seconds (limits.tool_timeout)",
                              static_cast<long long>(limits_.seconds));
    if (printed_ > limits_.output_bytes)
        return string_sprintf("it has printed more than %llu bytes (limits.tool_output)",
                              static_cast<unsigned long long>(limits_.output_bytes));
    if (stdout_.lines.has_cut() || stderr_.lines.has_cut())
        return string_sprintf("it has printed a line of more than %zu bytes",
                              Tool_Limits::LINE_BYTES);
    return "";
}

/** Takes the next step in the ending of a run that was cancelled or exceeded a limit. */
void Text_Process_Handler::hold_to_bounds() {
    if ((!time_limit_ && !cancellation_) || is_over())
        return;
    if (stop_step_ == NOT_STOPPED) {
        std::string const fault = find_fault();
        if (!fault.empty())
            stop_tool(fault);
    }
    if (stop_step_ == ASKED_TO_END && next_step_->passed())
        kill_tool();
    else if (stop_step_ == ASKED_TO_END)
        tree_->add_descendants(process_->running()); // it may start others while it ends
    else if (stop_step_ == KILLED && next_step_->passed() && process_->running()) {
        QMRT_LOG(LM_ERROR, "%s (pid %d) does not end, not even by SIGKILL, and is left alone\n",
                 process_->label(), process_->getpid());
        process_->abandon();
    }
}

void Text_Process_Handler::stop_tool(std::string const& fault) {
    stop_reason_ = fault;
    stop_step_ = ASKED_TO_END;
    delivers_ = false;
    // before its end takes the line of its children apart
    tree_->add_descendants(process_->running());
    process_->kill(SIGTERM);
    time_t const grace = is_question_ ? STOP_GRACE_SECS : LONG_STOP_GRACE_SECS;
    next_step_ = std::make_unique<Deadline>(ACE_Time_Value(process_->running() ? grace : 0));
}

void Text_Process_Handler::kill_tool() {
    stop_step_ = KILLED;
    tree_->add_descendants(process_->running());
    process_->kill(SIGKILL);
    kill_holders();
    for (Stream* const stream : {&stdout_, &stderr_})
        if (stream->open)
            close_stream(*stream);
    next_step_ = std::make_unique<Deadline>(ACE_Time_Value(KILL_GRACE_SECS));
}

void Text_Process_Handler::kill_holders() {
    if (!pipes_.empty())
        tree_->add_holders(pipes_, process_->user());
    tree_->kill();
}

/** False as well when the process went before its run was over. */
bool Text_Process_Handler::has_run() {
    if (process_ && process_life_.expired()) {
        process_ = nullptr;
        end_ = Child_End();
        end_.kind = Child_End::LOST;
    }
    return process_ != nullptr;
}

int Text_Process_Handler::wait(ACE_Time_Value const* timeout) {
    if (!has_run())
        return -1;
    Log_Callback_Scope const scope(process_->callback());
    process_->close_stdin();
    if (follow(Deadline(timeout)))
        return finish();
    end_.kind = Child_End::TIMED_OUT;
    return -1;
}

int Text_Process_Handler::terminate(ACE_Time_Value const& timeout,
                                    ACE_Time_Value const& retry_interval) {
    if (!has_run())
        return -1;
    Log_Callback_Scope const scope(process_->callback());
    QMRT_LOG(LM_INFO, "Ending %s (pid %d)\n", process_->label(), process_->getpid());
    process_->close_stdin();
    terminates_ = true;
    if (pipes_limit_)
        *pipes_limit_ = earlier(*pipes_limit_, Deadline(shortest_pipes_timeout()));
    ACE_Time_Value const pause = std::max(retry_interval, ACE_Time_Value(0, 10000));
    Deadline const limit(timeout);
    do {
        process_->kill(SIGTERM);
        if (follow(earlier(limit, Deadline(pause))))
            return finish();
    } while (!limit.passed());
    QMRT_LOG(LM_WARNING, "%s (pid %d) has not ended on SIGTERM and is killed\n", process_->label(),
             process_->getpid());
    process_->kill(SIGKILL);
    (void)follow(Deadline());
    return finish();
}

ssize_t Text_Process_Handler::write_stdin(iovec const* texts, int count) {
    if (!has_run() || process_->stdin_handle() == ACE_INVALID_HANDLE) {
        errno = EBADF;
        return -1;
    }
    Log_Callback_Scope const scope(process_->callback());
    std::vector<iovec> rest(texts, texts + count);
    ssize_t total = 0;
    while (!rest.empty()) {
        ssize_t const written = process_->write_stdin(rest.data(), static_cast<int>(rest.size()));
        if (written != -1) {
            total += written;
            advance(rest, static_cast<size_t>(written));
            continue;
        }
        if (errno != EAGAIN)
            return total;
        follow_once(Deadline(), true);
        // what the child has left behind may hold the pipe without ever reading it
        if (!process_->running()) {
            errno = EPIPE;
            return total;
        }
    }
    return total;
}

void Text_Process_Handler::close_stdin() {
    if (has_run())
        process_->close_stdin();
}

/** @return true when the run is over, false at the limit. */
bool Text_Process_Handler::follow(Deadline const& limit) {
    while (!is_over()) {
        // looked at first, so that the last look at the child is after the limit, never before it
        bool const is_last = limit.passed();
        follow_once(limit, false);
        if (is_last && !is_over())
            return false;
    }
    return true;
}

/** Waits for the next thing to happen, up to the limit, and sees to it. */
void Text_Process_Handler::follow_once(Deadline const& limit, bool until_writable) {
    if (!stdout_.open && !stderr_.open && !until_writable && !time_limit_ && !cancellation_) {
        ACE_Time_Value left;
        if (limit.limited())
            left = limit.left();
        (void)process_->wait(limit.limited() ? &left : nullptr);
        return;
    }
    // poll() passes over an entry without a descriptor
    pollfd entries[] = {
        {handle_of(stdout_), POLLIN, 0},
        {handle_of(stderr_), POLLIN, 0},
        {process_->running() ? process_->end_handle() : -1, POLLIN, 0},
        {until_writable ? process_->stdin_handle() : -1, POLLOUT, 0},
        {stop_step_ == NOT_STOPPED && cancellation_ ? cancellation_->handle() : -1, POLLIN, 0}};
    if (poll(entries, std::size(entries), next_look(limit).poll_timeout()) == -1)
        return; // interrupted
    if (entries[0].revents)
        read_stream(stdout_, BUFFER_SIZE);
    if (entries[1].revents)
        read_stream(stderr_, BUFFER_SIZE);
    look_for_end();
    hold_to_bounds();
}

/** Up to when nothing has to be done unless something happens. */
Deadline Text_Process_Handler::next_look(Deadline const& limit) const {
    Deadline next = pipes_limit_ ? earlier(limit, *pipes_limit_) : limit;
    if (time_limit_ && stop_step_ == NOT_STOPPED && process_->running())
        next = earlier(next, *time_limit_);
    if (next_step_ && (stop_step_ == ASKED_TO_END || process_->running()))
        next = earlier(next, *next_step_);
    if (stop_step_ == ASKED_TO_END)
        next = earlier(next, Deadline(ACE_Time_Value(0, STOP_LOOK_USECS)));
    if (process_->running() && process_->end_handle() == -1)
        next = earlier(next, Deadline(time_limit_ ? ACE_Time_Value(0, LOOK_INTERVAL_USECS)
                                                  : ACE_Time_Value(REACTOR_EVENT_WAIT_TIME)));
    return next;
}

void Text_Process_Handler::look_for_end() {
    if (process_->running() && process_->wait(&ACE_Time_Value::zero)) {
        ACE_Time_Value const wanted(terminates_ ? 0 : pipes_closed_timeout_secs_);
        pipes_limit_ = std::make_unique<Deadline>(std::max(wanted, shortest_pipes_timeout()));
        if (time_limit_ && stop_step_ == NOT_STOPPED)
            *pipes_limit_ = earlier(*pipes_limit_, later(*time_limit_, shortest_pipes_timeout()));
    }
    if (!process_->running() && pipes_limit_ && pipes_limit_->passed())
        give_up_open_streams();
}

/** What the child itself has written is in the pipes by now; what comes later is not its own. */
void Text_Process_Handler::give_up_open_streams() {
    for (Stream* const stream : {&stdout_, &stderr_})
        if (stream->open)
            read_what_is_there(*stream);
    if (!stdout_.open && !stderr_.open)
        return;
    QMRT_LOG(LM_WARNING,
             "%s (pid %d) %s, but another process holds its output open; that is not waited for\n",
             process_->label(), process_->getpid(), process_->end().describe().c_str());
    if (time_limit_)
        kill_holders();
    for (Stream* const stream : {&stdout_, &stderr_})
        if (stream->open)
            close_stream(*stream);
}

int Text_Process_Handler::finish() {
    end_ = process_->end();
    if (stop_step_ != NOT_STOPPED) {
        tree_->kill();
        if (!is_question_) // what it was writing is cleaned up next
            (void)tree_->await_end(KILL_GRACE_SECS);
        end_ = Child_End();
        end_.kind = Child_End::STOPPED;
        end_.reason = stop_reason_;
    }
    log_end();
    process_ = nullptr;
    own_process_.reset();
    return end_.status();
}

void Text_Process_Handler::log_end() const {
    if (end_.success())
        return;
    bool const is_expected = end_.kind == Child_End::EXITED || terminates_ ||
                             (end_.kind == Child_End::STOPPED && is_cancelled());
    std::string const tail = tail_.lines();
    QMRT_LOG(is_expected ? LM_WARNING : LM_ERROR, "%s (pid %d) %s%s%s\n", process_->label(),
             process_->getpid(), end_.describe().c_str(),
             tail.empty() ? "" : ", the last lines of its stderr:\n", tail.c_str());
}

int Text_Process_Handler::handle_of(Stream const& stream) const {
    return &stream == &stdout_ ? process_->stdout_handle() : process_->stderr_handle();
}

/** @return the bytes read; 0 when there were none, and then the stream may have been closed. */
ssize_t Text_Process_Handler::read_stream(Stream& stream, size_t size) {
    ssize_t const count = read(handle_of(stream), buffer_.get(), std::min(size, BUFFER_SIZE));
    if (count > 0) {
        deliver(stream, buffer_.get(), static_cast<size_t>(count));
        return count;
    }
    if (count == 0 || (errno != EINTR && errno != EAGAIN))
        close_stream(stream);
    return 0;
}

void Text_Process_Handler::read_what_is_there(Stream& stream) {
    int size = 0;
    ioctl(handle_of(stream), FIONREAD, &size);
    while (size > 0 && stream.open)
        size -= static_cast<int>(read_stream(stream, static_cast<size_t>(size)));
    pollfd entry = {stream.open ? handle_of(stream) : -1, POLLIN, 0};
    if (poll(&entry, 1, 0) == 1 && entry.revents == POLLHUP)
        close_stream(stream);
}

void Text_Process_Handler::deliver(Stream& stream, char const* data, size_t size) {
    bool const is_stdout = &stream == &stdout_;
    if (!is_stdout || process_->flags() & ACE_Process_Ex::REDIRECT_STDOUT_STDERR)
        tail_.feed(data, size);
    printed_ += size;
    if (!delivers_)
        return;
    if (is_stdout)
        delivers_ = handle_stdout_segment(data, size) == 0 && delivers_;
    else {
        stream.lines.feed(data, size, [&](char const* line, size_t length) {
            deliver_line(stream, line, length);
        });
        tell_cut_line(stream);
    }
}

void Text_Process_Handler::deliver_line(Stream& stream, char const* line, size_t length) {
    if (!delivers_)
        return;
    int const result =
        &stream == &stdout_ ? handle_stdout_line(line, length) : handle_stderr_line(line, length);
    delivers_ = result == 0;
}

void Text_Process_Handler::tell_cut_line(Stream& stream) {
    if (!stream.lines.has_cut() || stream.told_cut || time_limit_)
        return; // a question is ended for it, which is told then
    stream.told_cut = true;
    QMRT_LOG(LM_WARNING, "%s (pid %d) prints lines of more than %Q bytes, they are cut\n",
             process_->label(), process_->getpid(), static_cast<uint64_t>(Line_Splitter::MAX_LINE));
}

void Text_Process_Handler::close_stream(Stream& stream) {
    stream.open = false;
    stream.lines.finish(
        [&](char const* line, size_t length) { deliver_line(stream, line, length); });
    if (&stream == &stdout_) {
        process_->close_stdout();
        handle_stdout_close();
    } else {
        process_->close_stderr();
        handle_stderr_close();
    }
}

void Text_Process_Handler::log_line(ACE_Log_Priority priority, char const* line,
                                    size_t length) const {
    if (!line)
        return;
    std::string text;
    for (char const* const end = line + length; line != end; ++line) {
        if (*line)
            text += *line;
        else
            text += "\\0";
    }
    if (flags_ & TPHF_LOG_CVT_LOCAL_TO_UTF8)
        text = qmrt::local_to_utf8(text);
    size_t begin = 0;
    do {
        size_t const size = logged_length(text, begin);
        QMRT_LOG(priority, "%s\n", text.substr(begin, size).c_str());
        begin += size;
    } while (begin < text.size());
}

int Text_Process_Handler::handle_stdout_line(char const* line, size_t length) {
    if (length > 0)
        log_line(LM_INFO, line, length);
    return 0;
}

int Text_Process_Handler::handle_stderr_line(char const* line, size_t length) {
    if (length > 0)
        log_line(LM_INFO, line, length);
    return 0;
}

int Text_Process_Handler::handle_stdout_segment(char const* data, size_t size) {
    stdout_.lines.feed(
        data, size, [&](char const* line, size_t length) { deliver_line(stdout_, line, length); });
    tell_cut_line(stdout_);
    return 0;
}

void Text_Process_Handler::handle_stdout_close() {}

void Text_Process_Handler::handle_stderr_close() {}
