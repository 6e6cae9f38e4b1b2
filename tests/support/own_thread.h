#ifndef TESTS_SUPPORT_OWN_THREAD_H
#define TESTS_SUPPORT_OWN_THREAD_H

#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

/**
 * What the kernel keeps for each thread alone (who it is, which files it sees, which system calls
 * it may make) can be changed on a thread of a test's own, and ends with it.
 */
template <typename Function>
void on_own_thread(Function function) {
    std::thread(function).join();
}

/** From now on the system call fails with @a error on the calling thread and its children. */
inline bool deny_system_call(long number, int error) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter = {sizeof program / sizeof program[0], program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

/**
 * From now on write(2) of at least @a least bytes fails with @a error on the calling thread and its
 * children. Smaller ones have to work: with them the sanitizers look whether memory can be read,
 * and end the program with status 0 when they do not.
 */
inline bool deny_writes(unsigned least, int error) {
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_write, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, least, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter = {sizeof program / sizeof program[0], program};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

/** The calling thread, of root, becomes another user. */
inline bool become(uid_t uid, gid_t gid) {
    return syscall(SYS_setgroups, 0, nullptr) == 0 && syscall(SYS_setresgid, gid, gid, gid) == 0 &&
           syscall(SYS_setresuid, uid, uid, uid) == 0;
}

/** The calling thread, of root, and its children see this content at the path of a file. */
inline bool cover_file(std::string const& path, std::string const& by) {
    static thread_local bool const is_private =
        unshare(CLONE_FS | CLONE_NEWNS) == 0 &&
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return is_private && mount(by.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

#endif
