#ifndef BENCHMARKS_PRIVATE_ROOT_H
#define BENCHMARKS_PRIVATE_ROOT_H

#include <cstdio>
#include <cstdlib>
#include <unistd.h>
#include <vector>

/**
 * Begins the program again with directories and a process table of its own, the first time it is
 * called; ends the program where that cannot be had.
 */
inline void enter_private_root(char** arguments) {
    constexpr char ENTERED[] = "BENCH_PRIVATE_ROOT_ENTERED";
    if (std::getenv(ENTERED))
        return;
    setenv(ENTERED, "1", 1);
    char program[4096];
    ssize_t const length = readlink("/proc/self/exe", program, sizeof program - 1);
    if (length > 0) {
        program[length] = '\0';
        std::vector<char*> words = {const_cast<char*>(PRIVATE_ROOT), const_cast<char*>("--pids"),
                                    program};
        for (++arguments; *arguments; ++arguments)
            words.push_back(*arguments);
        words.push_back(nullptr);
        execv(PRIVATE_ROOT, words.data());
    }
    std::perror(PRIVATE_ROOT);
    std::exit(1);
}

#endif
