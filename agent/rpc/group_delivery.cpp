#include "agent/rpc/group_delivery.h"

#include "agent/rpc/method_table.h"
#include "host/agent/host_manager.h"
#include "json_spirit/access.h"
#include "qmrt/scoped_deleter.h"

using json_spirit::Object;
using json_spirit::Value;

namespace {

/** For a method that is served by a handler of the module. */
constexpr std::chrono::minutes ANSWER{5};

bool deliver(Method_Table& methods, Method_Call const& call, Value& result, Method_Fault& fault) {
    Object const& params = call.params.get_obj();
    auto const scope = std::make_shared<Run_Scope>();
    std::string method;
    Object const* run = nullptr;
    secure_string key;
    json_spirit::extract_or_throw(params)("method", method)("key", key)("run", run);
    if (!scope->read(*run))
        throw json_spirit::Error("'run' does not describe a run");
    Host_Manager* const host = Host_Manager::instance();
    secure_string const before = host->access_key();
    Scoped_Deleter const leave([&] { host->access_key(before); });
    host->access_key(key);
    JSON_RPC_Reply reply;
    Rpc_Caller const caller{Rpc_Caller::FORWARDED, {}, {}, scope};
    if (methods.call(method, json_spirit::object_get_any(params, "params"), caller, ANSWER,
                     reply)) {
        result = std::move(reply.result);
        return true;
    }
    fault = {reply.code, std::move(reply.message), std::move(reply.data)};
    return false;
}

} // namespace

void serve_deliveries(Method_Table& methods) {
    methods.add(DELIVER, [&methods](Method_Call const& call, Value& result, Method_Fault& fault) {
        return deliver(methods, call, result, fault);
    });
}
