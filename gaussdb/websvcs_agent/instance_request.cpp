#include "gaussdb/websvcs_agent/instance_request.h"

#include "host/rpc/global_json_rpc_channel.h"
#include "host/rpc/json_rpc_session.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

#include <cerrno>
#include <new>

JSON_RPC_Request* open_request(JSON_RPC_Channel_ptr const& channel,
                               JSON_RPC_Object_var const& object, JSON_RPC_Channel_var& peer) {
    if (object.null() || object->type() != JSON_RPC_Object::TYPE_REQUEST) {
        QMRT_LOG(LM_EMERGENCY, "Unexpected error in %N:%l, obj is not JSON-RPC request!\n");
        return nullptr;
    }
    peer = JSON_RPC_Channel_var(channel.strong());
    if (peer.null()) {
        QMRT_LOG(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
        return nullptr;
    }
    return static_cast<JSON_RPC_Request*>(object.get());
}

int send_result(JSON_RPC_Channel* channel, JSON_RPC_Request* request,
                json_spirit::Value const& result) {
    JSON_RPC_Object_var const response(new (std::nothrow) JSON_RPC_Response(request));
    if (response.null()) {
        errno = ENOMEM;
        return channel->send_error(JSON_RPC_INTERNAL_ERROR, request->id(),
                                   "Internal error, out of memory.");
    }
    static_cast<JSON_RPC_Response*>(response.get())->result() = result;
    return channel->send(response);
}

bool notify_backupd_instance(char const* name, char const* uid) {
    json_spirit::Array const accounts{json_spirit::Object{{"user_uuid", uid}, {"name", "null"}}};
    json_spirit::Object const params =
        json_spirit::Object_Maker()("type", "gaussdb")("name", name)("accounts", accounts);
    JSON_RPC_Object_var request;
    if (!JSON_RPC_Session::make_rpc_request("backupd.instance.notify", json_spirit::Value(params),
                                            request)) {
        QMRT_LOG(LM_ERROR, "Failed to create 'backupd.instance.notify' JSON-RPC request object.\n");
        return false;
    }
    return JSON_RPC_Session(Global_JSON_RPC_Channel::instance()).notify(request) == 0;
}

bool init_handler(GaussDB_Cluster_Handler& handler) {
    try {
        return handler.init("");
    } catch (json_spirit::Error const& error) {
        QMRT_LOG(LM_ERROR, "Invalid record of a gaussdb instance, %s\n", error.what());
        return false;
    }
}
