#ifndef TESTS_SUPPORT_DATABASE_PROCESS_H
#define TESTS_SUPPORT_DATABASE_PROCESS_H

#include "host/process/password_file_entry.h"
#include "qmrt/file.h"
#include "tests/support/test_child_path.h"

#include <fcntl.h>
#include <filesystem>
#include <grp.h>
#include <signal.h>
#include <stdexcept>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/**
 * The test's child as a program that only root can change. Processes are believed to be a
 * database's only if that is so from "/" down, and the build directory may lie anywhere. It lies
 * in the temporary directory, which the private root keeps for root, and stays for the next test.
 */
inline std::string const& trusted_test_child() {
    static std::string const path = [] {
        std::string const copy = std::filesystem::temp_directory_path() / "zenbrak3_test_child";
        std::string const scratch = copy + "." + std::to_string(getpid());
        std::filesystem::copy_file(ZENBRAK3_TEST_CHILD, scratch);
        std::filesystem::permissions(scratch, std::filesystem::perms(0755));
        std::filesystem::rename(scratch, copy);
        return copy;
    }();
    return path;
}

/**
 * A real process, idle until the object goes, that looks in /proc like one of a database's: its
 * first argument, its environment and its user are the test's. Its second argument is "cat", and
 * what the test gives stands behind that.
 */
class Database_Process {
public:
    /**
     * @param title        the first argument; it may hold blanks, so that it looks like several
     * @param environment  "NAME=value" each, and nothing else
     * @param user         whose it is; the test is run by root
     * @param rest         further arguments
     * @param executable   the test's child or a copy of it
     */
    Database_Process(std::string const& title, std::vector<std::string> const& environment,
                     char const* user = "nobody", std::vector<std::string> const& rest = {},
                     std::string const& executable = trusted_test_child()) {
        Password_File_Entry entry;
        int input[2];
        int started[2];
        // opened here, where the path can be walked: the user might not get there
        File_Descriptor const program(open(executable.c_str(), O_RDONLY | O_CLOEXEC));
        if (entry.get(user) == -1 || !program || pipe2(input, O_CLOEXEC) == -1 ||
            pipe2(started, O_CLOEXEC) == -1)
            throw std::runtime_error("Database_Process: " + title);
        std::vector<char*> variables;
        for (std::string const& variable : environment)
            variables.push_back(const_cast<char*>(variable.c_str()));
        variables.push_back(nullptr);
        std::vector<char*> arguments = {const_cast<char*>(title.c_str()), const_cast<char*>("cat")};
        for (std::string const& argument : rest)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            // other threads may hold locks of the library: only system calls from here on
            dup2(input[0], 0);
            if (syscall(SYS_setgroups, 0, nullptr) == 0 &&
                syscall(SYS_setresgid, entry.gid(), entry.gid(), entry.gid()) == 0 &&
                syscall(SYS_setresuid, entry.uid(), entry.uid(), entry.uid()) == 0)
                syscall(SYS_execveat, program.get(), "", arguments.data(), variables.data(),
                        AT_EMPTY_PATH);
            _exit(127);
        }
        close(input[0]);
        close(started[1]);
        input_.reset(input[1]);
        char byte;
        // the other end is closed by the start of the program, or by the end of a child without
        while (read(started[0], &byte, 1) == -1 && errno == EINTR) {
        }
        close(started[0]);
    }
    Database_Process(Database_Process&& other) noexcept
        : input_(std::move(other.input_)), pid_(std::exchange(other.pid_, -1)) {}
    ~Database_Process() { end(); }

    pid_t pid() const { return pid_; }

    /** Ends it and waits for its end. */
    void end() {
        if (pid_ == -1)
            return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    File_Descriptor input_;
    pid_t pid_ = -1;
};

#endif
