#ifndef BENCHMARKS_PRIVATE_PROCESSES_H
#define BENCHMARKS_PRIVATE_PROCESSES_H

#include "benchmarks/private_root.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/** Real idle processes of one first argument and one environment; gone with the object. */
class Idle_Processes {
public:
    Idle_Processes(std::string const& title, int count,
                   std::vector<std::string> const& environment) {
        int input[2];
        if (pipe2(input, O_CLOEXEC) == -1)
            return;
        input_ = input[1];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], 0);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        std::string number = std::to_string(count);
        char* const arguments[] = {const_cast<char*>(title.c_str()), number.data(), nullptr};
        std::vector<char*> variables;
        for (std::string const& variable : environment)
            variables.push_back(const_cast<char*>(variable.c_str()));
        variables.push_back(nullptr);
        if (posix_spawn(&pid_, IDLE_PROCESSES, &actions, &attributes, arguments,
                        variables.data()) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        close(input[0]);
    }
    ~Idle_Processes() {
        if (pid_ != -1) {
            kill(-pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(input_);
    }
    Idle_Processes(Idle_Processes const&) = delete;
    Idle_Processes& operator=(Idle_Processes const&) = delete;

private:
    int input_ = -1;
    pid_t pid_ = -1;
};

#endif
