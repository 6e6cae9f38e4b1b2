#include "agent/rpc/rest_routes.h"

#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/utf8.h"

#include <exception>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr int FORBIDDEN = 403;

int refuse(int status, char const* why, Value& answer) {
    answer = Object{{"error", why}};
    return status;
}

int instance_hosts(Instance_Hosts const& hosts, Rest_Request const& request, Value& answer) {
    std::string const uuid = request.parameter("instance_uuid");
    if (request.parameter("feature") != "backup" || request.parameter("scope") != "instances")
        return refuse(400, "feature=backup and scope=instances are expected", answer);
    if (uuid.empty())
        return refuse(400, "instance_uuid is missing", answer);
    if (std::string const fault = names::fault_of_id(uuid); !fault.empty())
        return refuse(400, ("instance_uuid " + fault).c_str(), answer);
    Array instances;
    for (std::string const& host : hosts(uuid))
        instances.push_back(Object{{"host_uuid", host}});
    Array rows;
    if (!instances.empty()) {
        char const* const form = instances.size() > 1 ? "cluster" : "single";
        rows.push_back(Object{{"form", form}, {"instances", std::move(instances)}});
    }
    answer = Object{{"rows", std::move(rows)}};
    return 200;
}

} // namespace

std::string Rest_Request::parameter(std::string const& key) const {
    for (auto const& [name, value] : query)
        if (name == key)
            return value;
    return "";
}

void Rest_Routes::add(int method, std::string const& path, Rest_Function function,
                      unsigned callers) {
    std::lock_guard const guard(mutex_);
    routes_[{path, method}] = {std::move(function), callers};
}

Rest_Function Rest_Routes::find(Rest_Request const& request, int& refusal) const {
    std::lock_guard const guard(mutex_);
    auto const found = routes_.find({request.path, request.method});
    if (found != routes_.end() && request.caller.is(found->second.callers))
        return found->second.function;
    auto const other = routes_.lower_bound({request.path, 0});
    if (found != routes_.end())
        refusal = FORBIDDEN;
    else
        refusal = other != routes_.end() && other->first.first == request.path ? 405 : 404;
    return nullptr;
}

int Rest_Routes::handle(Rest_Request const& request, Value& answer) const {
    answer = Value();
    int refusal = 0;
    Rest_Function const function = find(request, refusal);
    if (refusal == FORBIDDEN) {
        QMRT_LOG(LM_WARNING, "Refused %s %s to %s\n", http_method_name(request.method),
                 qmrt::to_one_line(request.path).c_str(), request.caller.text().c_str());
        return refuse(refusal, "the resource is not for this caller", answer);
    }
    if (!function)
        return refuse(refusal,
                      refusal == 404 ? "there is no such resource"
                                     : "the resource has no such method",
                      answer);
    try {
        return function(request, answer);
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "The handler of %s %s ended with an exception, %s\n",
                 http_method_name(request.method), qmrt::to_one_line(request.path).c_str(),
                 qmrt::to_one_line(error.what()).c_str());
        return refuse(500, "internal error", answer);
    }
}

void add_instance_hosts_route(Rest_Routes& routes, Instance_Hosts hosts) {
    routes.add(
        HTTP_METHOD_GET, "/d2/r/v2/resources",
        [hosts = std::move(hosts)](Rest_Request const& request, Value& answer) {
            return instance_hosts(hosts, request, answer);
        },
        Rest_Routes::ADMINISTRATORS | Rpc_Caller::MEMBER);
}
