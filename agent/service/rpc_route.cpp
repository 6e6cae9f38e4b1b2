#include "agent/service/rpc_route.h"

#include "agent/rpc/method_table.h"
#include "agent/rpc/rest_routes.h"
#include "json_spirit/access.h"

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char PATH[] = "/d2/r/v2/rpc";
/** How long a caller may wait for a method that is served by a handler of the module. */
constexpr std::chrono::minutes TIMEOUT{10};
constexpr int OK = 200;

Value failure(Value const& id, int code, std::string const& message, Value const& data) {
    return JSON_RPC_Response_Error(code, id, message, data).value();
}

Value respond(Method_Table& methods, Rest_Request const& asked) {
    Value const& body = asked.body;
    if (body.type() != json_spirit::obj_type)
        return failure({}, JSON_RPC_INVALID_REQUEST, "Invalid Request", {});
    Object const& request = body.get_obj();
    Value const id = json_spirit::object_get_any(request, "id");
    std::string const method = json_spirit::object_get_str(request, "method");
    if (json_spirit::object_get_str(request, "jsonrpc") != "2.0" || method.empty() ||
        id.type() == json_spirit::obj_type || id.type() == json_spirit::array_type)
        return failure({}, JSON_RPC_INVALID_REQUEST, "Invalid Request", {});
    JSON_RPC_Reply reply;
    if (methods.call(method, json_spirit::object_get_any(request, "params"), asked.caller, TIMEOUT,
                     reply))
        return JSON_RPC_Response(id, std::move(reply.result)).value();
    return failure(id, reply.code, reply.message, reply.data);
}

} // namespace

void add_rpc_route(Rest_Routes& routes, Method_Table& methods) {
    routes.add(
        HTTP_METHOD_POST, PATH,
        [&methods](Rest_Request const& request, Value& answer) {
            answer = respond(methods, request);
            return OK;
        },
        Rest_Routes::ADMINISTRATORS | Rpc_Caller::MEMBER | Rpc_Caller::RUN);
}
