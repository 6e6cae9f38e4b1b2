#include "tests/support/agent_process.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr int READY_TIMEOUT = 60000; ///< milliseconds

sockaddr_un address_of(std::string const& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

int status_of(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/** Sends a line and reads the one that answers it; "" when none comes. */
std::string exchange(std::string const& path, std::string const& line) {
    int const end = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un const address = address_of(path);
    std::string answer;
    if (connect(end, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
        send(end, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size())) {
        char buffer[65536];
        for (ssize_t size; answer.find('\n') == std::string::npos &&
                           (size = read(end, buffer, sizeof buffer)) > 0;)
            answer.append(buffer, static_cast<size_t>(size));
    }
    close(end);
    return answer;
}

} // namespace

Agent_Process::Agent_Process(std::string module, std::string settings,
                             std::vector<std::string> launcher)
    : launcher_(std::move(launcher)) {
    std::filesystem::create_directory(pool_dir());
    directory_.write("agent.toml", "[socket]\npath = '" + socket() + "'\n[agent]\ndata_dir = '" +
                                       data_dir() + "'\nmodule = '" + module + "'\n" + settings);
}

Agent_Process::~Agent_Process() {
    if (running())
        kill();
    if (testing::Test::HasFailure())
        std::fprintf(stderr, "--- the agent's log:\n%s---\n", log().c_str());
}

bool Agent_Process::start() {
    std::string const notify_path = directory_.path("notify");
    unlink(notify_path.c_str());
    int const notifications = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un const address = address_of(notify_path);
    EXPECT_EQ(0, bind(notifications, reinterpret_cast<sockaddr const*>(&address), sizeof address));
    std::vector<std::string> words = launcher_;
    words.insert(words.end(), {ZENBRAK3_AGENT, "--config", config()});
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int const log_file = open(directory_.path("log").c_str(),
                                  O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
        dup2(log_file, STDOUT_FILENO);
        dup2(log_file, STDERR_FILENO);
        setenv("NOTIFY_SOCKET", notify_path.c_str(), 1);
        unsetenv("JOURNAL_STREAM");
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    bool const ready = wait_until_ready(notifications);
    close(notifications);
    return ready;
}

bool Agent_Process::wait_until_ready(int notifications) {
    for (int waited = 0; waited < READY_TIMEOUT; waited += 20) {
        pollfd poll_end = {notifications, POLLIN, 0};
        if (poll(&poll_end, 1, 20) == 1) {
            char text[4096];
            ssize_t const size = recv(notifications, text, sizeof text, 0);
            if (size > 0 &&
                std::string_view(text, static_cast<size_t>(size)).starts_with("READY=1"))
                return true;
        }
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
    }
    ADD_FAILURE() << "the agent was not ready in time";
    return false;
}

void Agent_Process::signal(int number) const {
    ASSERT_GT(pid_, 0);
    ::kill(pid_, number);
}

void Agent_Process::kill() {
    signal(SIGKILL);
    wait();
}

int Agent_Process::stop() {
    signal(SIGTERM);
    return wait();
}

int Agent_Process::wait() {
    int status = 0;
    EXPECT_EQ(pid_, waitpid(pid_, &status, 0));
    pid_ = -1;
    return status_of(status);
}

Agent_Process::Reply Agent_Process::call(std::string const& method, Object const& params) const {
    std::string const line =
        json_spirit::to_text(
            Object{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}}) +
        "\n";
    Reply reply;
    Value value;
    std::string error;
    std::string const answer = exchange(socket(), line);
    if (!json_spirit::parse(answer, value, &error) || value.type() != json_spirit::obj_type) {
        reply.code = 1;
        reply.message = answer.empty() ? "no answer" : error;
        return reply;
    }
    Object const& object = value.get_obj();
    reply.result = json_spirit::object_get_any(object, "result");
    Object fault;
    if (json_spirit::object_get(object, "error", fault)) {
        json_spirit::object_get(fault, "code", reply.code);
        reply.message = json_spirit::object_get_str(fault, "message");
    }
    return reply;
}

Object Agent_Process::ask(std::string const& method, Object const& params) const {
    Reply const reply = call(method, params);
    EXPECT_TRUE(reply) << method << ": " << reply.code << " " << reply.message;
    return reply.result.type() == json_spirit::obj_type ? reply.result.get_obj() : Object();
}
