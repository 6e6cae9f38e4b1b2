#include "tests/support/server_child.h"

#include "host/process/password_file_entry.h"

#include <arpa/inet.h>
#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/** In the child, where nothing but system calls is safe. */
[[noreturn]] void become_program(char* const* argv, Password_File_Entry const* user, int log,
                                 pid_t parent) {
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(log, 1);
    dup2(log, 2);
    close_range(3, ~0u, 0);
    if (user && (setgroups(0, nullptr) == -1 || setgid(user->gid()) == -1 ||
                 setuid(user->uid()) == -1 || chdir("/") == -1))
        _exit(126);
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent)
        _exit(126);
    execv(argv[0], argv);
    _exit(127);
}

pid_t start(std::vector<std::string> const& args, std::string const& user, std::string const& log) {
    Password_File_Entry entry;
    if (!user.empty() && entry.get(user.c_str()) == -1)
        throw std::runtime_error("no user " + user);
    std::vector<char*> argv;
    for (std::string const& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    int const fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_t const parent = getpid();
    pid_t const pid = fork();
    if (pid == 0)
        become_program(argv.data(), user.empty() ? nullptr : &entry, fd, parent);
    close(fd);
    if (pid == -1)
        throw std::runtime_error("fork for " + args[0]);
    return pid;
}

sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

} // namespace

Server_Child::Server_Child(std::vector<std::string> const& args, std::string const& user,
                           std::string const& log, int stop_signal)
    : pid_(start(args, user, log)), stop_signal_(stop_signal) {}

Server_Child::~Server_Child() {
    if (pid_ == -1)
        return;
    kill(pid_, stop_signal_);
    while (waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
    }
}

bool Server_Child::running() {
    if (pid_ != -1 && waitpid(pid_, nullptr, WNOHANG) == pid_)
        pid_ = -1;
    return pid_ != -1;
}

int Server_Child::run(std::vector<std::string> const& args, std::string const& user,
                      std::string const& log) {
    pid_t const pid = start(args, user, log);
    int status = -1;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

unsigned short Server_Child::free_port() {
    int const probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    bool const found = bind(probe, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                       getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    close(probe);
    if (!found)
        throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
}

bool Server_Child::accepts(unsigned short port) {
    int const probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in const address = loopback(port);
    bool const taken =
        connect(probe, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
    close(probe);
    return taken;
}
