#include "host/process/ace_process_ex.h"

#include "host/process/child_registry.h"
#include "host/process/child_setup.h"
#include "host/process/deadline.h"
#include "host/process/log_callback_scope.h"
#include "qmrt/log.h"
#include "qmrt/no_sigpipe.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int DTOR_TERM_TIMEOUT_SECS = 60;

/** How often the end of a child is looked for on a kernel that cannot tell it. */
constexpr int LOOK_INTERVAL_MSECS = 10;

/** Keeps clear of 0, 1 and 2, which are free in a process that has closed them. */
bool move_up(File_Descriptor& fd) {
    if (fd.get() > STDERR_FILENO)
        return true;
    fd.reset(fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return static_cast<bool>(fd);
}

bool make_pipe(File_Descriptor& read_end, File_Descriptor& write_end) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1)
        return false;
    read_end.reset(ends[0]);
    write_end.reset(ends[1]);
    return move_up(read_end) && move_up(write_end);
}

/** Waits until @a fd is readable, or a while when there is none. */
void wait_readable(int fd, int timeout_msecs) {
    pollfd entry = {fd, POLLIN, 0};
    if (fd == -1 && (timeout_msecs == -1 || timeout_msecs > LOOK_INTERVAL_MSECS))
        timeout_msecs = LOOK_INTERVAL_MSECS;
    poll(&entry, fd == -1 ? 0 : 1, timeout_msecs);
}

} // namespace

ACE_Process_Ex::ACE_Process_Ex(unsigned int flags, char const* label,
                               std::shared_ptr<ACE_Log_Msg_Callback> callback)
    : flags_(flags),
      label_(label ? label : ""),
      shown_label_(label_),
      callback_(std::move(callback)),
      life_(std::make_shared<char>()) {}

ACE_Process_Ex::~ACE_Process_Ex() {
    if (!running())
        return;
    Log_Callback_Scope const scope(callback_);
    QMRT_LOG(LM_WARNING, "%s (pid %d) is running still and is ended\n", label(), pid_);
    end_now(ACE_Time_Value(DTOR_TERM_TIMEOUT_SECS));
}

pid_t ACE_Process_Ex::spawn(ACE_Process_Options& options) {
    Log_Callback_Scope const scope(callback_);
    if (running()) {
        QMRT_LOG(LM_ERROR, "Failed to start a program, %s (pid %d) is running still\n", label(),
                 pid_);
        errno = EBUSY;
        return -1;
    }
    close_pipes();
    pidfd_.reset();
    pid_ = -1;
    end_ = Child_End();
    return spawn_i(options);
}

pid_t ACE_Process_Ex::spawn_i(ACE_Process_Options& options) {
    Child_Setup setup;
    bool const prepared = setup.prepare(options);
    if (label_.empty())
        shown_label_ = setup.program().empty() ? "a program" : setup.program();
    if (!prepared)
        return fail(setup.reason(), errno);
    File_Descriptor child_ends[3];
    if (!make_pipes(setup, child_ends))
        return fail(std::string("its pipes cannot be made, ") + strerror(errno), errno);
    bool is_tried = false;
    pid_t const pid = Child_Registry::instance().start(
        [&] {
            is_tried = true;
            return start_child(setup.plan);
        },
        setup.plan.process_group == 0);
    if (!is_tried)
        return fail("this process is about to end", ESHUTDOWN);
    if (pid == -1) {
        setup.explain_failed_start();
        return fail(setup.reason(), setup.plan.error);
    }
    pid_ = pid;
    leads_group_ = setup.plan.process_group == 0;
    user_ = setup.plan.change_ids ? setup.plan.uid : getuid();
    end_.kind = Child_End::RUNNING;
    // refused by old kernels and by some containers; then the child is looked at now and again
    pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    return pid;
}

bool ACE_Process_Ex::make_pipes(Child_Setup& setup, File_Descriptor (&child_ends)[3]) {
    int(&streams)[3] = setup.plan.streams;
    if (flags_ & REDIRECT_STDIN) {
        if (!make_pipe(child_ends[0], stdin_) ||
            fcntl(stdin_.get(), F_SETFL, O_NONBLOCK | O_WRONLY) == -1)
            return false;
        streams[0] = child_ends[0].get();
    }
    if (flags_ & (REDIRECT_STDOUT | REDIRECT_STDOUT_STDERR)) {
        if (!make_pipe(stdout_, child_ends[1]))
            return false;
        streams[1] = child_ends[1].get();
    }
    if (flags_ & REDIRECT_STDOUT_STDERR)
        streams[2] = streams[1];
    else if (flags_ & REDIRECT_STDERR) {
        if (!make_pipe(stderr_, child_ends[2]))
            return false;
        streams[2] = child_ends[2].get();
    }
    return true;
}

pid_t ACE_Process_Ex::fail(std::string const& reason, int error) {
    close_pipes();
    end_.reason = reason;
    QMRT_LOG(LM_ERROR, "Failed to start %s: %s\n", label(), reason.c_str());
    errno = error;
    return -1;
}

bool ACE_Process_Ex::wait(ACE_Time_Value const* timeout) {
    if (!running())
        return true;
    Deadline const limit(timeout);
    if (!limit.limited())
        return reap(0);
    for (;;) {
        if (reap(WNOHANG))
            return true;
        if (limit.passed())
            return false;
        wait_readable(pidfd_.get(), limit.poll_timeout());
    }
}

/** Takes the child's end when it is there; without WNOHANG, waits for it. */
bool ACE_Process_Ex::reap(int wait_options) {
    siginfo_t info = {};
    int result = 0;
    auto const look = [&](int flags) {
        do
            result = waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | flags);
        while (result == -1 && errno == EINTR);
        return result == -1 || info.si_pid != 0;
    };
    if (!(wait_options & WNOHANG))
        look(WNOWAIT);
    if (!Child_Registry::instance().reap(pid_, [&] { return look(WNOHANG); }))
        return false;
    if (result == -1)
        end_.kind = Child_End::LOST;
    else {
        end_.kind = info.si_code == CLD_EXITED ? Child_End::EXITED : Child_End::SIGNALLED;
        end_.core_dumped = info.si_code == CLD_DUMPED;
        end_.code = info.si_status;
    }
    pidfd_.reset();
    return true;
}

void ACE_Process_Ex::abandon() {
    if (!running())
        return;
    Child_Registry::instance().abandon(pid_);
    close_pipes();
    pidfd_.reset();
    end_.kind = Child_End::LOST;
}

int ACE_Process_Ex::kill(int signal) {
    if (!running()) {
        errno = ESRCH;
        return -1;
    }
    // never another's process, not even where an ignored SIGCHLD gives the id away at once
    if (pidfd_ && !leads_group_)
        return static_cast<int>(syscall(SYS_pidfd_send_signal, pidfd_.get(), signal, nullptr, 0));
    return ::kill(leads_group_ ? -pid_ : pid_, signal);
}

void ACE_Process_Ex::end_now(ACE_Time_Value const& term_timeout) {
    close_pipes();
    kill(SIGTERM);
    if (wait(&term_timeout))
        return;
    kill(SIGKILL);
    (void)wait();
}

ssize_t ACE_Process_Ex::write_stdin(iovec const* texts, int count) {
    if (!stdin_) {
        errno = EBADF;
        return -1;
    }
    No_Sigpipe const guard;
    ssize_t written;
    do
        written = writev(stdin_.get(), texts, count);
    while (written == -1 && errno == EINTR);
    return written;
}

void ACE_Process_Ex::close_pipes() {
    stdin_.reset();
    stdout_.reset();
    stderr_.reset();
}
