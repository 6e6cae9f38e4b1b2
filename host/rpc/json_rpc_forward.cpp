#include "host/rpc/json_rpc_forward.h"

#include "host/agent/host_services.h"
#include "host/rpc/upstream_backend.h"
#include "qmrt/check.h"
#include "qmrt/utf8.h"

using json_spirit::Value;
using json_spirit::Value_type;

namespace {

JSON_RPC_Reply no_server() {
    return {Value(), JSON_RPC_UNREACHABLE, "there is no upstream server", Value()};
}

/** Checks the result's type and hands it over. @return false, logged, for a failure of any kind */
bool take(bool replied, JSON_RPC_Reply&& reply, char const* method, std::string const& whom,
          Value* result, Value_type type) {
    bool const fits = type == json_spirit::null_type || reply.result.type() == type;
    if (replied && fits) {
        if (result)
            *result = std::move(reply.result);
        return true;
    }
    if (replied)
        QMRT_LOG(LM_ERROR, "Failed to call '%s' of %s, the result is of type %s instead of %s\n",
                 method, whom.c_str(), type_name(reply.result.type()), type_name(type));
    else
        QMRT_LOG(LM_ERROR, "Failed to call '%s' of %s, %s (%d)\n", method, whom.c_str(),
                 qmrt::to_one_line(reply.message).c_str(), reply.code);
    return false;
}

} // namespace

bool json_rpc_forward(char const* method, Value const& params, std::string const& host_uuid,
                      Value* result, Value_type type) {
    if (QMRT_IS_NULL_OR_EMPTY(method) || QMRT_IS_EMPTY(host_uuid))
        return false;
    JSON_RPC_Reply reply = no_server();
    std::shared_ptr<Upstream_Backend> const upstream = Host_Services::instance().upstream();
    bool const replied = upstream && upstream->forward(host_uuid, method, params, reply);
    return take(replied, std::move(reply), method, "agent " + host_uuid, result, type);
}

bool global_json_rpc(char const* method, Value const& params, int retry_seconds, Value& result,
                     Value_type type, int answer_seconds) {
    if (QMRT_IS_NULL_OR_EMPTY(method))
        return false;
    JSON_RPC_Reply reply = no_server();
    std::shared_ptr<Upstream_Backend> const upstream = Host_Services::instance().upstream();
    bool const replied =
        upstream && upstream->call(method, params, {answer_seconds, retry_seconds}, reply);
    return take(replied, std::move(reply), method, "the server", &result, type);
}
