#include "tests/support/scripted_agent.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using json_spirit::Object;
using json_spirit::Value;

Scripted_Agent::Scripted_Agent() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        listen(listener_.get(), 8) == -1)
        throw std::runtime_error("listen " + path());
    thread_ = std::thread([this] { serve(); });
}

Scripted_Agent::~Scripted_Agent() {
    {
        std::lock_guard const guard(mutex_);
        is_ending_ = true;
        shutdown(listener_.get(), SHUT_RDWR);
        if (client_ != -1)
            shutdown(client_, SHUT_RDWR);
    }
    thread_.join();
}

void Scripted_Agent::on(std::string const& method, Answer const& answer) {
    std::lock_guard const guard(mutex_);
    answers_[method] = answer;
}

void Scripted_Agent::on(std::string const& method, Value const& result) {
    on(method, Answer([result](Value const&) { return result; }));
}

void Scripted_Agent::on(std::string const& method, std::vector<Value> const& results) {
    auto const next = std::make_shared<size_t>(0);
    on(method, Answer([results, next](Value const&) {
           return results.at(std::min((*next)++, results.size() - 1));
       }));
}

void Scripted_Agent::answer_raw(std::string const& bytes) {
    std::lock_guard const guard(mutex_);
    raw_ = bytes;
    is_raw_ = true;
}

void Scripted_Agent::send_first(std::string const& bytes) {
    std::lock_guard const guard(mutex_);
    first_ = bytes;
}

void Scripted_Agent::be_silent() {
    std::lock_guard const guard(mutex_);
    is_silent_ = true;
}

std::vector<Value> Scripted_Agent::calls(std::string const& method) const {
    std::lock_guard const guard(mutex_);
    std::vector<Value> found;
    for (auto const& [name, params] : calls_)
        if (name == method)
            found.push_back(params);
    return found;
}

void Scripted_Agent::await(std::string const& method, size_t count) const {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] {
        return static_cast<size_t>(
                   std::count_if(calls_.begin(), calls_.end(),
                                 [&](auto const& call) { return call.first == method; })) >= count;
    });
}

void Scripted_Agent::serve() {
    for (;;) {
        File_Descriptor const client(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        {
            std::lock_guard const guard(mutex_);
            if (is_ending_ || !client)
                return;
            client_ = client.get();
        }
        serve(client.get());
        std::lock_guard const guard(mutex_);
        client_ = -1;
    }
}

void Scripted_Agent::serve(int client) {
    std::string received;
    char buffer[4096];
    for (ssize_t count; (count = recv(client, buffer, sizeof buffer, 0)) > 0;) {
        received.append(buffer, static_cast<size_t>(count));
        for (size_t end; (end = received.find('\n')) != std::string::npos;) {
            if (!answer(client, received.substr(0, end)))
                return;
            received.erase(0, end + 1);
        }
    }
}

bool Scripted_Agent::answer(int client, std::string const& line) {
    Value request;
    if (!json_spirit::parse(line, request, nullptr) || request.type() != json_spirit::obj_type)
        throw std::runtime_error("no request: " + line);
    std::string const text = reply(request.get_obj());
    std::unique_lock lock(mutex_);
    std::string const all = is_raw_ ? raw_ : is_silent_ ? "" : first_ + text + "\n";
    bool const goes_on = !is_raw_;
    lock.unlock();
    return send(client, all.data(), all.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(all.size()) &&
           goes_on;
}

std::string Scripted_Agent::reply(Object const& request) {
    std::string const method = json_spirit::object_get_str(request, "method");
    Value const params = json_spirit::object_get_any(request, "params");
    Answer answer = [](Value const&) -> Value { throw Refusal{-32004, "not found"}; };
    {
        std::lock_guard const guard(mutex_);
        calls_.emplace_back(method, params);
        if (answers_.count(method))
            answer = answers_[method];
        changed_.notify_all();
    }
    Object reply{{"jsonrpc", "2.0"}, {"id", json_spirit::object_get_any(request, "id")}};
    try {
        reply["result"] = answer(params);
    } catch (Refusal const& refusal) {
        reply["error"] =
            Object{{"code", refusal.code}, {"message", refusal.message}, {"data", refusal.data}};
    }
    return json_spirit::to_text(reply);
}
