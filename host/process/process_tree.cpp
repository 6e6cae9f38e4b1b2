#include "host/process/process_tree.h"

#include "qmrt/path.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/** Each round finds the children of those found before; a tool that forks faster is not worth more.
 */
constexpr int MOST_ROUNDS = 20;
constexpr size_t MAX_STATUS_FILE = 64 * 1024;

using Clock = std::chrono::steady_clock;

/** How often processes are looked at that are to end. */
constexpr std::chrono::milliseconds LOOK(20);

struct Process_Status {
    pid_t parent = 0;
    uid_t user = 0; ///< the real one
};

/** What follows @a key at the beginning of a line; names in this file have no raw line breaks. */
bool take_number(std::string const& text, char const* key, long& number) {
    size_t const at = text.find(key);
    if (at == std::string::npos)
        return false;
    number = std::strtol(text.c_str() + at + std::strlen(key), nullptr, 10);
    return true;
}

bool read_status(pid_t pid, Process_Status& status) {
    std::string text;
    long parent = 0;
    long user = 0;
    std::string const path = "/proc/" + std::to_string(pid) + "/status";
    if (read_file(path.c_str(), text, MAX_STATUS_FILE) == -1 ||
        !take_number(text, "\nPPid:", parent) || !take_number(text, "\nUid:", user))
        return false;
    status = {static_cast<pid_t>(parent), static_cast<uid_t>(user)};
    return true;
}

std::vector<pid_t> all_processes() {
    std::vector<pid_t> pids;
    Directory_Reader reader("/proc");
    while (char const* const name = reader ? reader.next() : nullptr) {
        pid_t pid = 0;
        char const* const end = name + std::strlen(name);
        auto const read = std::from_chars(name, end, pid);
        if (read.ec == std::errc() && read.ptr == end && pid > 1)
            pids.push_back(pid);
    }
    return pids;
}

/** By the text of the links: looking behind one may hang on a file system that does not answer. */
bool holds_one_of(pid_t pid, std::set<ino_t> const& pipes) {
    constexpr std::string_view PREFIX = "pipe:[";
    std::string const folder = "/proc/" + std::to_string(pid) + "/fd";
    Directory_Reader reader(folder.c_str());
    while (char const* const name = reader ? reader.next() : nullptr) {
        char target[64];
        ssize_t const size = readlink((folder + "/" + name).c_str(), target, sizeof target - 1);
        if (size <= 0)
            continue;
        target[size] = '\0';
        if (std::string_view(target).starts_with(PREFIX) &&
            pipes.count(std::strtoull(target + PREFIX.size(), nullptr, 10)))
            return true;
    }
    return false;
}

/** How long ago a process was started, in seconds. @return false when it is gone */
bool read_age(pid_t pid, double& age) {
    constexpr int START_TIME = 19; // counted from the state, which follows the name
    std::string text;
    if (read_file(("/proc/" + std::to_string(pid) + "/stat").c_str(), text, MAX_STATUS_FILE) == -1)
        return false;
    size_t at = text.rfind(')'); // the name may have blanks and brackets
    for (int field = 0; field <= START_TIME && at != std::string::npos; ++field)
        at = text.find(' ', at + 1);
    timespec now;
    if (at == std::string::npos || clock_gettime(CLOCK_BOOTTIME, &now) == -1)
        return false;
    double const ticks = std::strtod(text.c_str() + at, nullptr);
    age = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 -
          ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    return true;
}

/** The program itself is the first argument, the script of an interpreter the second one. */
bool runs_one_of(pid_t pid, std::set<std::string> const& names) {
    std::string line;
    // what does not fit is cut, and the first two arguments are at the beginning
    File_Descriptor const file(
        open(("/proc/" + std::to_string(pid) + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC));
    char buffer[2 * PATH_MAX];
    ssize_t const size = file ? read(file.get(), buffer, sizeof buffer) : -1;
    if (size <= 0)
        return false;
    line.assign(buffer, static_cast<size_t>(size));
    size_t begin = 0;
    for (int argument = 0; argument < 2 && begin < line.size(); ++argument) {
        std::string const word = line.c_str() + begin;
        if (names.contains(word.substr(word.rfind('/') + 1)))
            return true;
        begin += word.size() + 1;
    }
    return false;
}

} // namespace

/** The caller looks at the process again behind this: its id may be another's by then. */
bool Process_Tree::add(pid_t pid) {
    if (pid == root_ || pid == getpid() || found_.count(pid))
        return false;
    found_.emplace(pid, File_Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))));
    return true;
}

/** Whose ids may be others' by now. */
void Process_Tree::forget_ended() {
    std::erase_if(found_, [](auto const& one) {
        pollfd entry = {one.second.get(), POLLIN, 0};
        return one.second && poll(&entry, 1, 0) == 1;
    });
}

void Process_Tree::add_descendants(bool root_lives) {
    forget_ended();
    bool has_new = true;
    for (int round = 0; has_new && round < MOST_ROUNDS; ++round) {
        has_new = false;
        for (pid_t const pid : all_processes()) {
            Process_Status status;
            auto const is_ours = [&] {
                return read_status(pid, status) &&
                       ((root_lives && status.parent == root_) || found_.count(status.parent) != 0);
            };
            if (!is_ours() || !add(pid))
                continue;
            if (is_ours())
                has_new = true;
            else
                found_.erase(pid);
        }
    }
}

void Process_Tree::add_holders(std::set<ino_t> const& pipes, uid_t user) {
    for (pid_t const pid : all_processes()) {
        Process_Status status;
        auto const is_holder = [&] {
            // a child that another thread is just starting has copies of all descriptors
            return read_status(pid, status) && status.user == user && status.parent != getpid() &&
                   holds_one_of(pid, pipes);
        };
        if (is_holder() && add(pid) && !is_holder())
            found_.erase(pid);
    }
}

void Process_Tree::add_programs(User_Programs const& programs) {
    if (programs.user == 0)
        return;
    for (pid_t const pid : all_processes()) {
        Process_Status status;
        double age = 0;
        auto const is_wanted = [&] {
            return read_status(pid, status) && status.user == programs.user && read_age(pid, age) &&
                   age <= static_cast<double>(programs.max_age) && runs_one_of(pid, programs.names);
        };
        if (is_wanted() && add(pid) && !is_wanted())
            found_.erase(pid);
    }
}

void Process_Tree::kill(int signal) {
    for (auto const& [pid, handle] : found_) {
        if (handle)
            syscall(SYS_pidfd_send_signal, handle.get(), signal, nullptr, 0);
        else
            ::kill(pid, signal);
    }
}

bool Process_Tree::has_ended() {
    forget_ended();
    return std::ranges::all_of(found_, [](auto const& one) {
        return !one.second && ::kill(one.first, 0) == -1; // a kernel without pidfds
    });
}

bool Process_Tree::await_end(time_t seconds) {
    auto const limit = Clock::now() + std::chrono::seconds(seconds);
    while (!has_ended() && Clock::now() < limit)
        std::this_thread::sleep_for(LOOK);
    return has_ended();
}

bool end_programs(User_Programs const& programs, time_t grace_seconds) {
    constexpr std::chrono::seconds KILL_GRACE(2);
    Process_Tree tree;
    auto const add_all = [&] {
        tree.add_programs(programs);
        tree.add_descendants(false);
    };
    auto const end_by = [&](int signal, std::chrono::seconds time) {
        tree.kill(signal);
        auto const limit = Clock::now() + time;
        while (!tree.has_ended() && Clock::now() < limit) {
            std::this_thread::sleep_for(LOOK);
            add_all();
            if (signal == SIGKILL)
                tree.kill();
        }
        return tree.has_ended();
    };
    add_all();
    if (tree.has_ended())
        return true;
    return end_by(SIGTERM, std::chrono::seconds(grace_seconds)) || end_by(SIGKILL, KILL_GRACE);
}
