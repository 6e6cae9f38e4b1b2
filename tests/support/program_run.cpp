#include "tests/support/program_run.h"

#include <boost/algorithm/string/replace.hpp>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

std::vector<char*> pointers(std::vector<std::string> const& texts) {
    std::vector<char*> result;
    for (std::string const& text : texts)
        result.push_back(const_cast<char*>(text.c_str()));
    result.push_back(nullptr);
    return result;
}

/** A file with that content, to be read as stdin. */
File_Descriptor input_file(std::string const& content) {
    File_Descriptor file(memfd_create("input", MFD_CLOEXEC));
    if (!file || write_all(file.get(), content.data(), content.size()) == -1 ||
        lseek(file.get(), 0, SEEK_SET) == -1)
        throw std::runtime_error("memfd_create");
    return file;
}

void make_pipe(File_Descriptor& reading, File_Descriptor& writing) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1)
        throw std::runtime_error("pipe2");
    reading.reset(ends[0]);
    writing.reset(ends[1]);
}

} // namespace

Program_Run::Program_Run(std::vector<std::string> const& args, Setting const& setting) {
    File_Descriptor input;
    File_Descriptor output;
    File_Descriptor errors;
    make_pipe(stderr_, errors);
    if (setting.columns) {
        winsize const size{24, setting.columns, 0, 0};
        int ours = -1;
        int its = -1;
        if (openpty(&ours, &its, nullptr, nullptr, &size) == -1)
            throw std::runtime_error("openpty");
        stdout_.reset(ours);
        terminal_.reset(its);
        fcntl(ours, F_SETFD, FD_CLOEXEC);
        fcntl(its, F_SETFD, FD_CLOEXEC);
    } else {
        input = input_file(setting.input);
        make_pipe(stdout_, output);
        if (setting.stdout_path)
            output.reset(open(setting.stdout_path, O_WRONLY | O_CLOEXEC));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, setting.columns ? terminal_.get() : input.get(), 0);
    posix_spawn_file_actions_adddup2(&actions, setting.columns ? terminal_.get() : output.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, errors.get(), 2);
    std::vector<std::string> variables;
    for (auto const& [name, value] : setting.env)
        variables.push_back(name + "=" + value);
    int const failed = posix_spawn(&pid_, args.front().c_str(), &actions, nullptr,
                                   pointers(args).data(), pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed)
        throw std::runtime_error("posix_spawn " + args.front());
}

Program_Run::~Program_Run() {
    if (pid_ != -1) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool Program_Run::read_some() {
    if (!stdout_ && !stderr_)
        return false;
    pollfd polled[] = {{stdout_.get(), POLLIN, 0}, {stderr_.get(), POLLIN, 0}};
    // our own hold on the terminal keeps it from ending by itself
    siginfo_t ended = {};
    bool const over =
        terminal_ &&
        waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOWAIT | WNOHANG) == 0 &&
        ended.si_pid == pid_;
    int const ready = poll(polled, 2, terminal_ ? (over ? 0 : 20) : -1);
    if (ready == 0)
        return !over;
    char buffer[4096];
    auto const take = [&](pollfd const& one, File_Descriptor& from, std::string& into) {
        if (!one.revents)
            return;
        ssize_t const count = read(from.get(), buffer, sizeof buffer);
        if (count > 0)
            into.append(buffer, static_cast<size_t>(count));
        else if (count == 0 || errno != EINTR)
            from.reset();
    };
    take(polled[0], stdout_, out_);
    take(polled[1], stderr_, err_);
    return true;
}

bool Program_Run::await(std::string const& text) {
    while (out().find(text) == std::string::npos && err_.find(text) == std::string::npos)
        if (!read_some())
            return false;
    return true;
}

void Program_Run::type(std::string const& text) {
    if (write_all(stdout_.get(), text.data(), text.size()) == -1)
        throw std::runtime_error("type");
}

bool Program_Run::echoes() const {
    termios settings = {};
    return tcgetattr(terminal_.get(), &settings) == 0 && (settings.c_lflag & ECHO);
}

int Program_Run::wait() {
    while (read_some()) {
    }
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

std::string Program_Run::out() const {
    return boost::replace_all_copy(out_, "\r\n", "\n");
}
