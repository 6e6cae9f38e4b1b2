#include "host/rpc/json_rpc_session.h"

#include "qmrt/check.h"

#include <atomic>
#include <new>

using json_spirit::Value;

bool JSON_RPC_Session::make_rpc_request(char const* method, Value const& params,
                                        JSON_RPC_Object_var& object) {
    static std::atomic<uint64_t> last_id{0};
    if (QMRT_IS_NULL_OR_EMPTY(method))
        return false;
    if (params.type() != json_spirit::obj_type && params.type() != json_spirit::array_type &&
        !params.is_null()) {
        QMRT_LOG(LM_ERROR, "The params of JSON-RPC '%s' are neither object nor array\n", method);
        return false;
    }
    auto* const request = new (std::nothrow) JSON_RPC_Request(++last_id, method, params);
    if (!request) {
        QMRT_LOG(LM_ERROR, "Failed to make JSON-RPC request '%s', out of memory\n", method);
        return false;
    }
    object = JSON_RPC_Object_var(request);
    return true;
}

int JSON_RPC_Session::notify(JSON_RPC_Object_var const& object) {
    if (QMRT_IS_NULL(channel_) || QMRT_IS_NULL(object.get()))
        return -1;
    if (object->type() == JSON_RPC_Object::TYPE_NOTIFY)
        return channel_->send(*object);
    if (object->type() != JSON_RPC_Object::TYPE_REQUEST) {
        QMRT_LOG(LM_ERROR, "Refused to notify with a JSON-RPC object that has no method\n");
        return -1;
    }
    auto const& request = static_cast<JSON_RPC_Request const&>(*object);
    return channel_->send(JSON_RPC_Notify(request.method(), request.params()));
}

bool JSON_RPC_Session::request(JSON_RPC_Object_var const& object, std::chrono::milliseconds timeout,
                               JSON_RPC_Reply& reply) {
    reply = {Value(), JSON_RPC_INTERNAL_ERROR, "there is no request or no channel", Value()};
    if (QMRT_IS_NULL(channel_) || QMRT_IS_NULL(object.get()))
        return false;
    if (object->type() != JSON_RPC_Object::TYPE_REQUEST) {
        QMRT_LOG(LM_ERROR, "Refused to request with a JSON-RPC object that is no request\n");
        return false;
    }
    return channel_->request(static_cast<JSON_RPC_Request const&>(*object), timeout, reply);
}
