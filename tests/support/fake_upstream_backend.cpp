#include "tests/support/fake_upstream_backend.h"

#include "json_spirit/text.h"

using json_spirit::Value;

namespace {
char const GONE[] = "the server cannot be reached";
}

void Fake_Upstream_Backend::serve(int method, std::string const& path, Rest_Answer answer) {
    std::lock_guard const guard(mutex_);
    resources_[{method, path}] = std::move(answer);
}

void Fake_Upstream_Backend::serve_call(std::string const& method, RPC_Answer answer) {
    serve_forward("", method, std::move(answer));
}

void Fake_Upstream_Backend::serve_forward(std::string const& host_uuid, std::string const& method,
                                          RPC_Answer answer) {
    std::lock_guard const guard(mutex_);
    hosts_[host_uuid][method] = std::move(answer);
}

void Fake_Upstream_Backend::reachable(bool yes) {
    std::lock_guard const guard(mutex_);
    reachable_ = yes;
}

std::vector<Fake_Upstream_Backend::Rest_Call> Fake_Upstream_Backend::rest_calls() const {
    std::lock_guard const guard(mutex_);
    return rest_calls_;
}

std::vector<Fake_Upstream_Backend::RPC_Call> Fake_Upstream_Backend::rpc_calls() const {
    std::lock_guard const guard(mutex_);
    return rpc_calls_;
}

std::vector<std::pair<std::string, Value>> Fake_Upstream_Backend::notifications() const {
    std::lock_guard const guard(mutex_);
    return notifications_;
}

bool Fake_Upstream_Backend::rest(HTTP_Request const& request, Value const* body,
                                 HTTP_Response& response, Value* result) {
    Value const sent = body ? *body : Value();
    Rest_Answer found = rest_answer(404, Value());
    response.clear();
    if (result)
        *result = Value();
    {
        std::lock_guard const guard(mutex_);
        rest_calls_.push_back({request.method(), request.path(), request.query_string(), sent});
        if (!reachable_) {
            response.error(GONE);
            return false;
        }
        auto const resource = resources_.find({request.method(), request.path()});
        if (resource != resources_.end())
            found = resource->second;
    }
    HTTP_Query query;
    http_parse_query(request.query_string(), query);
    Value value;
    response.status(found(query, sent, value));
    if (!value.is_null())
        response.body(json_spirit::to_text(value));
    if (result)
        *result = std::move(value);
    return response.ok();
}

bool Fake_Upstream_Backend::answer(RPC_Call const& call, JSON_RPC_Reply& reply) {
    RPC_Answer found;
    reply = {{}, JSON_RPC_UNREACHABLE, GONE, {}};
    {
        std::lock_guard const guard(mutex_);
        rpc_calls_.push_back(call);
        if (!reachable_)
            return false;
        auto const host = hosts_.find(call.host_uuid);
        if (host == hosts_.end() && !call.host_uuid.empty()) {
            reply.message = "there is no agent " + call.host_uuid;
            return false;
        }
        if (host != hosts_.end() && host->second.contains(call.method))
            found = host->second.at(call.method);
    }
    reply = {{}, JSON_RPC_METHOD_NOT_FOUND, "Method not found", {}};
    if (!found)
        return false;
    reply = JSON_RPC_Reply();
    return found(call.params, reply); // may call the fake in its turn
}

bool Fake_Upstream_Backend::call(std::string const& method, Value const& params,
                                 Limits const& limits, JSON_RPC_Reply& reply) {
    return answer({"", method, params, limits}, reply);
}

bool Fake_Upstream_Backend::forward(std::string const& host_uuid, std::string const& method,
                                    Value const& params, JSON_RPC_Reply& reply) {
    if (host_uuid.empty()) {
        reply = {{}, JSON_RPC_UNREACHABLE, "there is no agent without a uuid", {}};
        return false;
    }
    return answer({host_uuid, method, params, {}}, reply);
}

bool Fake_Upstream_Backend::notify(std::string const& method, Value const& params,
                                   std::string& error) {
    std::lock_guard const guard(mutex_);
    if (!reachable_) {
        error = GONE;
        return false;
    }
    notifications_.emplace_back(method, params);
    return true;
}
