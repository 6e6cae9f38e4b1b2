#include "tests/support/https_server.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace json_spirit;

namespace {

constexpr char PROGRAM[] = ZENBRAK3_TEST_SUPPORT_DIR "/https_server_main";

/** Starts the program; the ends that it reads from and writes to are put at its 0 and 1. */
pid_t start(std::vector<std::string> const& arguments, int in, int out) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    std::vector<char*> argv{const_cast<char*>(PROGRAM)};
    for (std::string const& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    int const result = posix_spawn(&pid, PROGRAM, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (result != 0)
        throw std::runtime_error(std::string("cannot start ") + PROGRAM);
    return pid;
}

int wait_for(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

/** The process that all servers live in; it ends with this one, whose end closes its stdin. */
class Server_Process {
public:
    static Server_Process& instance() {
        static Server_Process process;
        return process;
    }

    /** A connection that is one server. */
    int connect() const {
        int const control = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        if (::connect(control, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1)
            throw std::runtime_error("cannot reach the servers' process");
        return control;
    }

private:
    Server_Process() {
        int in[2];
        int out[2];
        if (pipe2(in, O_CLOEXEC) == -1 || pipe2(out, O_CLOEXEC) == -1)
            throw std::runtime_error("pipe2");
        pid_ = start({"serve", path_}, in[0], out[1]);
        close(in[0]);
        close(out[1]);
        input_ = in[1];
        char ready[sizeof "ready"];
        ssize_t const length = read(out[0], ready, sizeof ready);
        close(out[0]);
        if (length <= 0)
            throw std::runtime_error("the servers' process has ended");
    }
    ~Server_Process() {
        close(input_);
        wait_for(pid_);
    }

    Temporary_Directory directory_;
    std::string path_ = directory_.path("control");
    pid_t pid_ = -1;
    int input_ = -1;
};

} // namespace

Test_Certificates& Test_Certificates::instance() {
    static Test_Certificates certificates;
    return certificates;
}

Test_Certificates::Test_Certificates() {
    if (wait_for(start({"certificates", files_.path()}, STDIN_FILENO, STDOUT_FILENO)) != 0)
        throw std::runtime_error("cannot make the certificates");
}

std::string Https_Server::Request::header(std::string const& name) const {
    return object_get_str(headers, name);
}

Https_Server::Https_Server(Options const& options)
    : control_(Server_Process::instance().connect()) {
    bool const tls = !options.certificate.empty();
    Test_Certificates& certificates = Test_Certificates::instance();
    Object setup{{"tls", tls},
                 {"address", options.address},
                 {"hold_handshake", options.hold_handshake},
                 {"newest_tls", options.newest_tls}};
    if (tls)
        insert(setup)("certificate", certificates.certificate(options.certificate))(
            "key", certificates.key(options.certificate));
    object_get(ask(setup).get_obj(), "port", port_);
}

Https_Server::~Https_Server() {
    ask({{"end", true}});
    close(control_);
}

Value Https_Server::ask(Object const& command) {
    std::string const line = to_text(command) + "\n";
    if (send(control_, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        throw std::runtime_error("cannot reach the server");
    size_t end;
    while ((end = unread_.find('\n')) == std::string::npos) {
        char piece[4096];
        ssize_t const length = recv(control_, piece, sizeof piece, 0);
        if (length <= 0)
            throw std::runtime_error("the server has ended");
        unread_.append(piece, static_cast<size_t>(length));
    }
    Value value;
    parse(std::string_view(unread_).substr(0, end), value, nullptr);
    unread_.erase(0, end + 1);
    return value;
}

void Https_Server::on(std::string const& request, Steps const& steps) {
    ask({{"on", request}, {"steps", steps.array()}});
}

void Https_Server::on(std::string const& request, int status, std::string const& body,
                      Headers const& headers) {
    on(request, Steps().send(answer(status, body, headers)));
}

void Https_Server::open_gate(std::string const& name) {
    ask({{"open", name}});
}

void Https_Server::await_requests(int count) {
    ask({{"await", count}});
}

std::vector<Https_Server::Request> Https_Server::requests() {
    std::vector<Request> result;
    Value const report = ask({{"report", true}});
    for (Object const& object : objects_of(report.get_obj().at("requests").get_array())) {
        Request& request = result.emplace_back();
        extract_or_throw(object)("method", request.method)("target", request.target)(
            "headers", request.headers)("body", request.body)("connection", request.connection);
    }
    return result;
}

int Https_Server::connections() {
    return static_cast<int>(
        object_get_int64_or_throw(ask({{"report", true}}).get_obj(), "connections"));
}

std::string Https_Server::answer(int status, std::string const& body, Headers const& headers) {
    std::string text = "HTTP/1.1 " + std::to_string(status) + " Reason\r\n";
    for (auto const& [name, value] : headers)
        text += name + ": " + value + "\r\n";
    if (status != 204)
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return text + "\r\n" + body;
}
