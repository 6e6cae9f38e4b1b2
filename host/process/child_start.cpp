#include "host/process/child_start.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef ZENBRAK3_SANITIZED
// ThreadSanitizer takes clone() over and treats the child as one of fork(), with memory of its own:
// it would then unlock twice what it locked once. This is the C library's function itself.
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);
#define ZENBRAK3_CLONE __clone
#else
#define ZENBRAK3_CLONE clone
#endif

// Until its exec the child runs in the parent's memory, beside the parent's threads. What runs
// there may touch nothing but the plan and its own stack: bare system calls, since the C library's
// setresuid() and its like tell every thread of the process, and no sanitizer's book-keeping.
#define IN_CHILD                                                                                   \
    __attribute__((no_sanitize("address"), no_sanitize("thread"), no_sanitize("undefined")))

namespace {

constexpr size_t STACK_SIZE = 64 * 1024;
/** Of a signal set, as the kernel has it. */
constexpr size_t KERNEL_SIGSET_SIZE = 8;
constexpr int LAST_SIGNAL = 64;
/** SIG_DFL as a kernel's sigaction, which is not longer than this, and the empty signal set. */
constexpr unsigned long ZEROS[16] = {};

/** An entry as getdents64(2) writes it. */
struct Directory_Entry {
    uint64_t inode;
    int64_t offset;
    unsigned short length;
    unsigned char type;
    char name[1];
};

/** The parent's handlers would run in the parent's memory, and an ignored signal stays ignored. */
IN_CHILD void reset_signal_handling() {
    for (int signal = 1; signal <= LAST_SIGNAL; ++signal)
        syscall(SYS_rt_sigaction, signal, ZEROS, nullptr, KERNEL_SIGSET_SIZE);
}

IN_CHILD bool open_devnull(int& fd) {
    fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR | O_CLOEXEC, 0));
    return fd != -1;
}

/** Puts @a fd where no dup to 0, 1 or 2 can overwrite it before its turn. */
IN_CHILD bool move_up(int& fd) {
    if (fd > STDERR_FILENO)
        return true;
    int moved = static_cast<int>(syscall(SYS_fcntl, fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    // the parent may run with a standard stream closed; a program need not cope with that
    if (moved == -1 && errno == EBADF) {
        int devnull = -1;
        if (!open_devnull(devnull))
            return false;
        moved = static_cast<int>(syscall(SYS_fcntl, devnull, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    fd = moved;
    return fd != -1;
}

IN_CHILD bool set_streams(Child_Plan const& plan) {
    int sources[3];
    for (int target = 0; target < 3; ++target) {
        sources[target] = plan.streams[target];
        if (sources[target] == Child_Plan::DEVNULL && !open_devnull(sources[target]))
            return false;
        if (!move_up(sources[target]))
            return false;
    }
    for (int target = 0; target < 3; ++target)
        if (syscall(SYS_dup3, sources[target], target, 0) == -1)
            return false;
    // twice when two streams have one source, which does no harm
    for (int target = 0; target < 3; ++target)
        syscall(SYS_close, sources[target]);
    return true;
}

IN_CHILD bool set_user(Child_Plan const& plan) {
    if (plan.change_groups && syscall(SYS_setgroups, plan.group_count, plan.groups) == -1 &&
        !(errno == EPERM && plan.groups_may_be_refused))
        return false;
    if (!plan.change_ids)
        return true;
    return syscall(SYS_setresgid, plan.gid, plan.gid, plan.gid) == 0 &&
           syscall(SYS_setresuid, plan.uid, plan.uid, plan.uid) == 0;
}

/** The number that a name of /proc/self/fd is; -1 for "." and "..". */
IN_CHILD int descriptor_of(char const* name) {
    int number = -1;
    for (; *name >= '0' && *name <= '9'; ++name)
        number = (number == -1 ? 0 : number * 10) + (*name - '0');
    return number;
}

/** For a kernel without close_range(2), which is younger than some that this runs on. */
IN_CHILD bool close_listed() {
    int const directory = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
    if (directory == -1)
        return false;
    alignas(Directory_Entry) char buffer[4096];
    long size;
    while ((size = syscall(SYS_getdents64, directory, buffer, sizeof buffer)) > 0) {
        for (long begin = 0; begin < size;) {
            Directory_Entry const* const entry =
                reinterpret_cast<Directory_Entry const*>(buffer + begin);
            int const fd = descriptor_of(entry->name);
            if (fd > STDERR_FILENO && fd != directory)
                syscall(SYS_close, fd);
            begin += entry->length;
        }
    }
    return size == 0;
}

IN_CHILD bool close_others(Child_Plan const& plan) {
    return !plan.close_others || syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, 0) == 0 ||
           close_listed();
}

/** After these a search goes on: there is no such file, or none that can be reached now. */
IN_CHILD bool is_passed_over(int error) {
    return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG || error == ESTALE ||
           error == ENODEV || error == ETIMEDOUT;
}

/** Returns only when none of the candidates could be run. */
IN_CHILD void run_program(Child_Plan& plan) {
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, ZEROS, nullptr, KERNEL_SIGSET_SIZE);
    char const* denied = nullptr;
    for (char const* const* path = plan.candidates; *path; ++path) {
        syscall(SYS_execve, *path, plan.argv, plan.envp);
        if (errno == EACCES)
            denied = *path;
        else if (!is_passed_over(errno)) {
            plan.failed_path = *path;
            return;
        }
    }
    if (denied) {
        plan.failed_path = denied;
        errno = EACCES;
    }
}

IN_CHILD int run_child(void* argument) {
    Child_Plan& plan = *static_cast<Child_Plan*>(argument);
    // first of all: as long as this child has copies of the pipes of other threads' children, their
    // readers do not see the end
    if (!set_streams(plan))
        plan.failed_step = CHILD_STREAMS;
    else if (!close_others(plan))
        plan.failed_step = CHILD_DESCRIPTORS;
    else if (plan.process_group != -1 && syscall(SYS_setpgid, 0, plan.process_group) == -1)
        plan.failed_step = CHILD_GROUP;
    else if (!set_user(plan))
        plan.failed_step = CHILD_USER;
    else if (plan.directory && syscall(SYS_chdir, plan.directory) == -1)
        plan.failed_step = CHILD_DIRECTORY;
    else {
        reset_signal_handling();
        run_program(plan);
        plan.failed_step = CHILD_EXEC;
    }
    plan.error = errno;
    syscall(SYS_exit_group, 127);
    return 127;
}

void reap(pid_t pid) {
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED) == -1 && errno == EINTR)
        continue;
}

} // namespace

pid_t start_child(Child_Plan& plan) {
    plan.failed_step = CHILD_STARTED;
    plan.error = 0;
    plan.failed_path = nullptr;
    std::unique_ptr<char[]> const stack(new (std::nothrow) char[STACK_SIZE]);
    if (!stack) {
        plan.failed_step = CHILD_MAKE;
        plan.error = ENOMEM;
        return -1;
    }
    uintptr_t const top = reinterpret_cast<uintptr_t>(stack.get() + STACK_SIZE) & ~uintptr_t{15};

    // no handler of ours may run in the child, where it would change our memory
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pid_t const pid = ZENBRAK3_CLONE(run_child, reinterpret_cast<void*>(top),
                                     CLONE_VM | CLONE_VFORK | SIGCHLD, &plan);
    if (pid == -1) {
        plan.failed_step = CHILD_MAKE;
        plan.error = errno;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);

    if (pid != -1 && plan.failed_step != CHILD_STARTED) {
        reap(pid);
        return -1;
    }
    return pid;
}
