#include "agent/cli/unix_connection.h"

#include "agent/cli/interruption.h"
#include "host/process/password_file_entry.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

bool fail(Rpc_Error& error, Rpc_Error::Kind kind, std::string const& message) {
    error = Rpc_Error();
    error.kind = kind;
    error.message = message;
    return false;
}

/** What the agent answered: true for a result. */
bool read_answer(json_spirit::Object const& answer, json_spirit::Value& result, Rpc_Error& error) {
    json_spirit::Object const* fault = nullptr;
    if (json_spirit::object_get(answer, "error", fault)) {
        error = Rpc_Error();
        json_spirit::extract (*fault)("code", error.code)("message", error.message)("data",
                                                                                    error.data);
        return false;
    }
    json_spirit::Value const* const found = json_spirit::object_get_any_ptr(answer, "result");
    if (!found)
        return fail(error, Rpc_Error::UNREACHABLE, "its answer has neither a result nor an error");
    result = *found;
    return true;
}

/** The user of this process: its name, or its number. */
std::string user_text() {
    uid_t const uid = geteuid();
    Password_File_Entry user;
    return user.get_by_uid(uid) == 0 ? user.name() : std::to_string(uid);
}

/** Why a socket cannot be connected to, in words that help. */
std::string reason(int code) {
    switch (code) {
    case ENOENT:
        return "there is no such socket";
    case ECONNREFUSED:
        return "nobody listens on it";
    case EACCES:
        return "user " + user_text() + " may not use it";
    default:
        return std::strerror(code);
    }
}

} // namespace

bool Unix_Connection::lost(Rpc_Error& error, std::string const& why) {
    broken_ = true;
    socket_.reset();
    return fail(error, Rpc_Error::UNREACHABLE, "the connection to " + path_ + " was lost: " + why);
}

bool Unix_Connection::open(Rpc_Error& error) {
    if (broken_)
        return lost(error, "it failed before");
    if (socket_)
        return true;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path_.empty() || path_.size() >= sizeof address.sun_path)
        return fail(error, Rpc_Error::UNREACHABLE,
                    "'" + path_ + "' is no path of a socket: 1 to " +
                        std::to_string(sizeof address.sun_path - 1) + " bytes are possible");
    path_.copy(address.sun_path, path_.size());
    File_Descriptor connected(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connected ||
        connect(connected.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == -1) {
        int const code = errno;
        return fail(error, code == EACCES ? Rpc_Error::DENIED : Rpc_Error::UNREACHABLE,
                    "cannot connect to " + path_ + ": " + reason(code));
    }
    socket_ = std::move(connected);
    return true;
}

/** For poll(): -1 without a limit. */
int Unix_Connection::milliseconds_left() const {
    if (!end_)
        return -1;
    auto const left =
        std::chrono::ceil<std::chrono::milliseconds>(*end_ - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

bool Unix_Connection::wait(short events, Rpc_Error& error) {
    for (;;) {
        pollfd polled[] = {{socket_.get(), events, 0}, {Interruption::fd(), POLLIN, 0}};
        int const left = milliseconds_left();
        if (left == 0)
            return lost(error, "no answer within " + std::to_string(limit_.count()) + " seconds");
        if (poll(polled, 2, left) == -1 && errno != EINTR)
            return lost(error, std::strerror(errno));
        if (Interruption::happened()) {
            broken_ = true; // an answer may still come, to a question nobody asks any more
            return fail(error, Rpc_Error::INTERRUPTED, "interrupted");
        }
        if (polled[0].revents)
            return true;
    }
}

bool Unix_Connection::send(json_spirit::Value const& request, Rpc_Error& error) {
    // a password may be in it
    std::string plain = json_spirit::to_text(request);
    secure_string text(plain);
    secure_memset(plain.data(), 0, plain.size());
    text.push_back('\n');
    size_t sent = 0;
    while (sent < text.size()) {
        if (!wait(POLLOUT, error))
            return false;
        ssize_t const count = ::send(socket_.get(), text.data() + sent, text.size() - sent,
                                     MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count == -1 && errno != EAGAIN && errno != EINTR)
            return lost(error, std::strerror(errno));
        if (count > 0)
            sent += static_cast<size_t>(count);
    }
    return true;
}

bool Unix_Connection::receive_line(std::string& line, Rpc_Error& error) {
    for (size_t searched = 0;;) {
        size_t const end = received_.find('\n', searched);
        if (end != std::string::npos) {
            line = received_.substr(0, end);
            received_.erase(0, end + 1);
            return true;
        }
        searched = received_.size();
        if (searched > MAX_ANSWER)
            return lost(error, "its answer is too long");
        if (!wait(POLLIN, error))
            return false;
        char buffer[65536];
        ssize_t const count = recv(socket_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (count == 0)
            return lost(error, "the agent closed it");
        if (count == -1 && errno != EAGAIN && errno != EINTR)
            return lost(error, std::strerror(errno));
        if (count > 0)
            received_.append(buffer, static_cast<size_t>(count));
    }
}

bool Unix_Connection::call(std::string const& method, json_spirit::Value const& params,
                           json_spirit::Value& result, Rpc_Error& error) {
    if (!open(error))
        return false;
    json_spirit::Value const id(++last_id_);
    json_spirit::Object request{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null())
        request["params"] = params;
    if (!send(request, error))
        return false;
    for (std::string line; receive_line(line, error);) {
        json_spirit::Value answer;
        std::string fault;
        if (!json_spirit::parse(line, answer, &fault) || answer.type() != json_spirit::obj_type)
            return lost(error, "its answer is no JSON-RPC, " + fault);
        json_spirit::Value const& answered = json_spirit::object_get_any(answer.get_obj(), "id");
        // an agent that could not even read the question has no id to answer with
        bool const unreadable = answered.is_null() && answer.get_obj().count("error");
        if (answered == id || unreadable)
            return read_answer(answer.get_obj(), result, error);
    }
    return false;
}
