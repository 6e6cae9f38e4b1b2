#include "agent/rpc/unix_client.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

using json_spirit::Value;

namespace {

constexpr size_t READ_SIZE = 64 * 1024;

std::string advice(int fault, std::string const& path) {
    switch (fault) {
    case ENOENT:
    case ECONNREFUSED:
        return "no agent answers at " + path +
               ": start the agent, or name the socket that it serves";
    case EACCES:
    case EPERM:
        return "access to " + path + " is denied: run this as the agent's user";
    case EAGAIN:
        return "the agent at " + path + " is busy: try again later";
    default:
        return "cannot connect to " + path + ", " + std::strerror(fault);
    }
}

} // namespace

bool Unix_Client::connect(std::string const& path, std::string& error) {
    close();
    path_ = path;
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        error = "the path of the agent's socket is empty or too long (107 bytes at most): " + path;
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    // not blocking: a listener whose queue is full is busy, not a reason to wait for ever
    File_Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket ||
        ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == -1) {
        error = advice(errno, path);
        return false;
    }
    socket_ = std::move(socket);
    return true;
}

void Unix_Client::close() {
    socket_.reset();
    inbox_.clear();
    searched_ = 0;
}

bool Unix_Client::call(std::string const& method, Value const& params,
                       std::chrono::milliseconds timeout, JSON_RPC_Reply& reply) {
    reply = JSON_RPC_Reply();
    if (!socket_) {
        reply.code = JSON_RPC_UNREACHABLE;
        reply.message = "there is no connection to the agent";
        return false;
    }
    Time const deadline = std::chrono::steady_clock::now() + timeout;
    int64_t const id = ++last_id_;
    std::string text = JSON_RPC_Request(id, method, params).text();
    if (text.empty()) {
        reply.code = JSON_RPC_INVALID_PARAMS;
        reply.message = "Invalid params: they are nested too deeply";
        return false;
    }
    text += '\n';
    Wait wait = send_all(text, deadline);
    if (wait != Wait::READY)
        return broken(wait, true, reply);
    std::string line;
    while ((wait = read_line(line, deadline)) == Wait::READY) {
        bool succeeded = false;
        if (take(line, id, reply, succeeded))
            return succeeded;
    }
    return broken(wait, false, reply);
}

/** @return false for what is not the reply to this request: late ones, notifications */
bool Unix_Client::take(std::string const& line, int64_t id, JSON_RPC_Reply& reply,
                       bool& succeeded) const {
    JSON_RPC_Message message;
    parse_json_rpc(line, message);
    for (JSON_RPC_Object_var const& object : message.objects) {
        if (object->type() == JSON_RPC_Object::TYPE_RESPONSE) {
            auto& response = static_cast<JSON_RPC_Response&>(*object);
            if (response.id() != Value(id))
                continue;
            reply.result = std::move(response.result());
            return succeeded = true;
        }
        if (object->type() != JSON_RPC_Object::TYPE_RESPONSE_ERROR)
            continue;
        auto const& error = static_cast<JSON_RPC_Response_Error const&>(*object);
        // an error without an id is about what could not be read, which was this request
        if (error.id() == Value(id) || error.id().is_null()) {
            reply = {Value(), error.code(), error.message(), error.data()};
            return true;
        }
    }
    return false;
}

bool Unix_Client::broken(Wait wait, bool half_sent, JSON_RPC_Reply& reply) {
    if (wait == Wait::LATE) {
        reply.code = JSON_RPC_TIMEOUT;
        reply.message = "the agent at " + path_ +
                        " did not reply in time: it may be at work still, see its log";
    } else {
        reply.code = JSON_RPC_UNREACHABLE;
        reply.message =
            "the connection to the agent at " + path_ + " broke: see whether it runs, and its log";
    }
    if (wait == Wait::BROKEN || half_sent)
        close(); // what follows a part of a message would be taken for its rest
    return false;
}

Unix_Client::Wait Unix_Client::wait_for(short events, Time deadline) const {
    while (true) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return Wait::LATE;
        pollfd one{socket_.get(), events, 0};
        int const ready =
            ::poll(&one, 1, static_cast<int>(std::min<int64_t>(left.count(), INT_MAX)));
        if (ready > 0)
            return Wait::READY;
        if (ready == -1 && errno != EINTR)
            return Wait::BROKEN;
    }
}

Unix_Client::Wait Unix_Client::send_all(std::string const& text, Time deadline) {
    for (size_t sent = 0; sent < text.size();) {
        ssize_t const size =
            ::send(socket_.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (size >= 0) {
            sent += static_cast<size_t>(size);
            continue;
        }
        if (errno == EINTR)
            continue;
        // an agent that refuses a message says so before it closes: what it said can be read
        if (errno != EAGAIN)
            return errno == EPIPE || errno == ECONNRESET ? Wait::READY : Wait::BROKEN;
        Wait const wait = wait_for(POLLOUT, deadline);
        if (wait != Wait::READY)
            return wait;
    }
    return Wait::READY;
}

Unix_Client::Wait Unix_Client::read_line(std::string& line, Time deadline) {
    while (true) {
        size_t const end = inbox_.find('\n', searched_);
        if (end != std::string::npos) {
            line = inbox_.substr(0, end);
            inbox_.erase(0, end + 1);
            searched_ = 0;
            return Wait::READY;
        }
        searched_ = inbox_.size();
        if (inbox_.size() > MAX_REPLY)
            return Wait::BROKEN;
        char buffer[READ_SIZE];
        ssize_t const size = ::recv(socket_.get(), buffer, sizeof buffer, 0);
        if (size > 0) {
            inbox_.append(buffer, static_cast<size_t>(size));
            continue;
        }
        if (size == 0 || (errno != EAGAIN && errno != EINTR))
            return Wait::BROKEN;
        Wait const wait = wait_for(POLLIN, deadline);
        if (wait != Wait::READY)
            return wait;
    }
}
