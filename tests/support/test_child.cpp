/*
 * The child of the process tests. Its arguments are verbs with their operands, carried out in turn;
 * behind the last it exits with 0:
 *
 *   out TEXT, err TEXT   writes the text and a line break
 *   raw out|err HEX      writes the bytes
 *   flood out|err COUNT  writes COUNT lines of 79 letters
 *   blob out|err COUNT   writes COUNT bytes "x"
 *   args WORD...         writes each word behind it as [word], a line each; takes all the rest
 *   env [NAME]           writes the variable as NAME=VALUE, or a line "NAME is not set"; or all
 *   ids                  writes "uid R E S gid R E S groups G..."
 *   cwd, fds, sigmask, sigignored, pgrp, stdin-kind
 *                        writes what it says; fds without the one that it reads them by
 *   cat                  copies stdin to stdout
 *   close in|out|err     closes the stream
 *   await FIFO           waits until somebody opens the FIFO for writing and closes it
 *   tell FIFO            opens the FIFO for writing and closes it
 *   leave FIFO TEXT      leaves a process behind that holds the streams, awaits FIFO, writes TEXT
 *   leave-flood          leaves a process behind that writes to stdout for ever
 *   daemon FILE          leaves a process behind that nothing but the streams connects with it, and
 *                        that minds no SIGTERM; FILE gets its process id
 *   session FILE         makes a child in a session of its own, without the streams; the same
 *   stay                 never ends by itself
 *   ignore SIGNAL        ignores the signal
 *   on-term N            on SIGTERM writes "told to end" and exits with N
 *   signal N             ends itself by the signal
 *   exit N
 *
 * It is built without sanitizers: it has to start fast, and what it shows is its own.
 */
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

char** next_argument;

std::string take() {
    if (!*next_argument) {
        std::fputs("an operand is missing\n", stderr);
        _exit(99);
    }
    return *next_argument++;
}

long take_number() {
    return std::atol(take().c_str());
}

int take_stream() {
    std::string const name = take();
    return name == "in" ? 0 : name == "out" ? 1 : 2;
}

void write_all(int fd, std::string const& text) {
    for (size_t done = 0; done < text.size();) {
        ssize_t const count = write(fd, text.data() + done, text.size() - done);
        if (count == -1 && errno != EINTR)
            _exit(98);
        if (count > 0)
            done += static_cast<size_t>(count);
    }
}

void line(std::string const& text, int fd = 1) {
    write_all(fd, text + "\n");
}

void raw() {
    int const fd = take_stream();
    std::string const hex = take();
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::strtol(hex.substr(i, 2).c_str(), nullptr, 16));
    write_all(fd, bytes);
}

void flood() {
    int const fd = take_stream();
    long left = take_number();
    std::string const one = std::string(79, 'a') + "\n";
    std::string many;
    while (many.size() < 65536)
        many += one;
    long const lines = static_cast<long>(many.size() / one.size());
    for (; left > 0; left -= lines)
        write_all(fd, many.substr(0, one.size() * static_cast<size_t>(std::min(left, lines))));
}

void blob() {
    int const fd = take_stream();
    size_t left = static_cast<size_t>(take_number());
    std::string const piece(1024 * 1024, 'x');
    while (left > 0) {
        size_t const size = std::min(left, piece.size());
        write_all(fd, piece.substr(0, size));
        left -= size;
    }
}

void args() {
    while (*next_argument)
        line("[" + take() + "]");
}

void env() {
    if (!*next_argument) {
        for (char** entry = environ; *entry; ++entry)
            line(*entry);
        return;
    }
    std::string const name = take();
    char const* const value = std::getenv(name.c_str());
    line(value ? name + "=" + value : name + " is not set");
}

void ids() {
    uid_t uids[3];
    gid_t gids[3];
    getresuid(&uids[0], &uids[1], &uids[2]);
    getresgid(&gids[0], &gids[1], &gids[2]);
    std::string text = "uid";
    for (uid_t const id : uids)
        text += " " + std::to_string(id);
    text += " gid";
    for (gid_t const id : gids)
        text += " " + std::to_string(id);
    gid_t groups[1024];
    int const count = getgroups(1024, groups);
    std::sort(groups, groups + count);
    text += " groups";
    for (int i = 0; i < count; ++i)
        text += " " + std::to_string(groups[i]);
    line(text);
}

void cwd() {
    char path[4096];
    line(getcwd(path, sizeof path) ? path : "none");
}

void fds() {
    DIR* const directory = opendir("/proc/self/fd");
    std::vector<int> found;
    while (dirent const* const entry = readdir(directory))
        if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(directory))
            found.push_back(std::atoi(entry->d_name));
    std::sort(found.begin(), found.end());
    std::string text = "fds";
    for (int const fd : found)
        text += " " + std::to_string(fd);
    line(text);
}

void blocked_signals() {
    sigset_t set;
    sigprocmask(SIG_BLOCK, nullptr, &set);
    std::string text = "blocked";
    for (int signal = 1; signal <= 64; ++signal)
        if (sigismember(&set, signal) == 1)
            text += " " + std::to_string(signal);
    line(text);
}

void ignored_signals() {
    std::string text = "ignored";
    for (int signal = 1; signal <= 64; ++signal) {
        struct sigaction action;
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN)
            text += " " + std::to_string(signal);
    }
    line(text);
}

void pgrp() {
    line(getpgrp() == getpid() ? "own group" : "group of another");
}

void stdin_kind() {
    struct stat status;
    struct stat devnull;
    stat("/dev/null", &devnull);
    if (fstat(0, &status) == -1)
        line("closed");
    else if (S_ISFIFO(status.st_mode))
        line("pipe");
    else if (S_ISCHR(status.st_mode) && status.st_rdev == devnull.st_rdev)
        line("/dev/null");
    else
        line("other");
}

void cat() {
    char buffer[65536];
    ssize_t count;
    while ((count = read(0, buffer, sizeof buffer)) > 0)
        write_all(1, std::string(buffer, static_cast<size_t>(count)));
}

void await(std::string const& fifo) {
    int fd;
    while ((fd = open(fifo.c_str(), O_RDONLY)) == -1 && errno == EINTR)
        continue;
    char byte;
    ssize_t count;
    while ((count = read(fd, &byte, 1)) > 0 || (count == -1 && errno == EINTR))
        continue;
    close(fd);
}

void tell() {
    close(open(take().c_str(), O_WRONLY));
}

void leave() {
    std::string const fifo = take();
    std::string const text = take();
    if (fork() != 0)
        return;
    await(fifo);
    line(text);
    _exit(0);
}

void leave_flood() {
    if (fork() != 0)
        return;
    for (;;)
        write_all(1, "left behind\n");
}

/** Writes the file under another name first: whoever sees it sees the whole number. */
void tell_pid(std::string const& path) {
    std::string const unfinished = path + ".new";
    int const fd = open(unfinished.c_str(), O_WRONLY | O_CREAT, 0600);
    write_all(fd, std::to_string(getpid()));
    close(fd);
    rename(unfinished.c_str(), path.c_str());
}

[[noreturn]] void stay(std::string const& path) {
    signal(SIGTERM, SIG_IGN);
    tell_pid(path);
    for (;;)
        pause();
}

void daemonise() {
    std::string const path = take();
    if (fork() != 0)
        return;
    setsid();
    if (fork() != 0)
        _exit(0);
    stay(path);
}

void make_session() {
    std::string const path = take();
    if (fork() != 0)
        return;
    setsid();
    for (int fd = 0; fd < 3; ++fd)
        close(fd);
    stay(path);
}

int volatile term_status;

void on_term() {
    term_status = static_cast<int>(take_number());
    struct sigaction action = {};
    action.sa_handler = [](int) {
        write_all(1, "told to end\n");
        _exit(term_status);
    };
    sigaction(SIGTERM, &action, nullptr);
}

[[noreturn]] void end_by_signal() {
    int const number = static_cast<int>(take_number());
    signal(number, SIG_DFL);
    raise(number);
    _exit(97);
}

} // namespace

int main(int, char** argv) {
    std::map<std::string, void (*)()> const verbs = {
        {"out", [] { line(take()); }},
        {"err", [] { line(take(), 2); }},
        {"raw", raw},
        {"flood", flood},
        {"blob", blob},
        {"args", args},
        {"env", env},
        {"ids", ids},
        {"cwd", cwd},
        {"fds", fds},
        {"sigmask", blocked_signals},
        {"sigignored", ignored_signals},
        {"pgrp", pgrp},
        {"stdin-kind", stdin_kind},
        {"cat", cat},
        {"close", [] { close(take_stream()); }},
        {"await", [] { await(take()); }},
        {"tell", tell},
        {"leave", leave},
        {"leave-flood", leave_flood},
        {"daemon", daemonise},
        {"stay",
         [] {
             for (;;)
                 pause();
         }},
        {"session", make_session},
        {"ignore", [] { signal(static_cast<int>(take_number()), SIG_IGN); }},
        {"on-term", on_term},
        {"signal", [] { end_by_signal(); }},
        {"exit", [] { _exit(static_cast<int>(take_number())); }},
    };
    next_argument = argv + 1;
    while (*next_argument) {
        std::string const verb = take();
        auto const found = verbs.find(verb);
        if (found == verbs.end()) {
            line("unknown verb " + verb, 2);
            return 96;
        }
        found->second();
    }
    return 0;
}
