#include "host/rpc/json_rpc_handler.h"

#include "qmrt/log.h"
#include "qmrt/utf8.h"

int JSON_RPC_Handler::init(int, char**) {
    return 0;
}

int JSON_RPC_Handler::fini() {
    return 0;
}

int handle_json_rpc_exception(JSON_RPC_Channel_ptr const& channel,
                              JSON_RPC_Object_var const& object, char const* what) {
    bool const has_method = object->type() == JSON_RPC_Object::TYPE_REQUEST ||
                            object->type() == JSON_RPC_Object::TYPE_NOTIFY;
    std::string const method =
        has_method ? static_cast<JSON_RPC_Notify const&>(*object).method() : "response";
    QMRT_LOG(LM_ERROR, "The handler of JSON-RPC '%s' ended with an exception, %s\n",
             qmrt::to_one_line(method).c_str(), qmrt::to_one_line(what).c_str());
    refuse_json_rpc_request(channel, object, JSON_RPC_INTERNAL_ERROR, "Internal error");
    return -1;
}

void refuse_json_rpc_request(JSON_RPC_Channel_ptr const& channel, JSON_RPC_Object_var const& object,
                             int code, char const* message) {
    JSON_RPC_Channel_var const peer(channel);
    if (!peer.null() && object->type() == JSON_RPC_Object::TYPE_REQUEST)
        peer->send_error(code, static_cast<JSON_RPC_Request const&>(*object).id(), message);
}
