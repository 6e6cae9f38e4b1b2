#include "agent/rpc/local_upstream.h"

#include "json_spirit/text.h"

using json_spirit::Value;

namespace {

char const SERVER_ENDING[] = "the backup server is ending";

bool unreachable(JSON_RPC_Reply& reply) {
    reply = {Value(), JSON_RPC_UNREACHABLE, SERVER_ENDING, Value()};
    return false;
}

} // namespace

bool Local_Upstream::rest(HTTP_Request const& request, Value const* body, HTTP_Response& response,
                          Value* result) {
    response.clear();
    if (result)
        *result = Value();
    Rest_Request asked{
        request.method(), request.path(), {}, body ? *body : Value(), Rpc_Caller::local()};
    if (closed_ || !http_parse_query(request.query_string(), asked.query)) {
        response.error(closed_ ? SERVER_ENDING : "the query has a broken escape in it");
        return false;
    }
    Value answer;
    int const status = routes_.handle(asked, answer);
    try {
        if (!answer.is_null())
            response.body(json_spirit::to_text(answer));
    } catch (json_spirit::Error const& error) {
        response.error(error.what());
        return false;
    }
    response.status(status);
    if (result)
        *result = std::move(answer);
    return response.ok();
}

bool Local_Upstream::call(std::string const& method, Value const& params, Limits const& limits,
                          JSON_RPC_Reply& reply) {
    if (closed_)
        return unreachable(reply);
    std::chrono::seconds const timeout =
        limits.answer < 0 ? ANSWER : std::chrono::seconds(limits.answer);
    return methods_.call(method, params, Rpc_Caller::local(), timeout, reply);
}

bool Local_Upstream::forward(std::string const& host_uuid, std::string const& method,
                             Value const& params, JSON_RPC_Reply& reply) {
    return closed_ ? unreachable(reply) : group_.forward(host_uuid, method, params, reply);
}

bool Local_Upstream::notify(std::string const& method, Value const& params, std::string& error) {
    int const taken =
        closed_ ? -1
                : methods_.handle(JSON_RPC_Channel_ptr(),
                                  JSON_RPC_Object_var(new JSON_RPC_Notify(method, params)),
                                  Rpc_Caller::local());
    if (taken == 0)
        return true;
    error = closed_ ? SERVER_ENDING : "nobody takes the notification";
    return false;
}
