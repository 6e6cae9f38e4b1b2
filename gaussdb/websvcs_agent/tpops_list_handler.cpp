#include "gaussdb/websvcs_agent/tpops_list_handler.h"

#include "gaussdb/common/tpops_restful_client.h"
#include "gaussdb/websvcs_agent/instance_request.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

#include <cerrno>
#include <new>
#include <vector>

namespace {

bool init_login_info(json_spirit::Object const& params, TPOPS_Login& login) {
    try {
        login.load(params);
        return true;
    } catch (json_spirit::Error const& error) {
        QMRT_LOG(LM_ERROR, "Invalid params: %s.\n", error.what());
        return false;
    }
}

/** The instances of a platform. Throws for an answer that cannot be read. */
std::vector<TPOPS_Instance_Info> instances_of(TPOPS_RESTful_Client& client) {
    std::vector<TPOPS_Instance_Info> infos;
    (void)client.get_instances_info(infos); // an empty list is the caller's error
    return infos;
}

} // namespace

int JSON_RPC_TPOPS_List_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                               JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var peer;
    JSON_RPC_Request* const request = open_request(channel, object, peer);
    return request ? handle_request(peer.get(), *request) : -1;
}

int JSON_RPC_TPOPS_List_Handler::handle_request(JSON_RPC_Channel* channel,
                                                JSON_RPC_Request& request) {
    if (!channel) {
        QMRT_LOG(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
        return -1;
    }
    if (request.params().type() != json_spirit::obj_type)
        return channel->send_error(JSON_RPC_INVALID_PARAMS, request.id(),
                                   "Invalid params to list TPOPS instances");
    return list_tpops_instances(channel, &request);
}

int JSON_RPC_TPOPS_List_Handler::list_tpops_instances(JSON_RPC_Channel* channel,
                                                      JSON_RPC_Request* request) {
    auto const fail = [&](int code, char const* text) {
        return channel->send_error(code, request->id(), text);
    };
    JSON_RPC_Object_var const response(new (std::nothrow) JSON_RPC_Response(request));
    if (response.null()) {
        errno = ENOMEM;
        return -1;
    }
    json_spirit::Object const& params = request->params().get_obj();
    TPOPS_Login login;
    std::string name;
    bool const is_named = json_spirit::object_get(params, "name", name);
    std::shared_ptr<Instance> const instance =
        is_named ? Instance_Manager::instance()->find("gaussdb", name.c_str()) : nullptr;
    if (is_named && !instance)
        return fail(JSON_RPC_INVALID_PARAMS, "Instance does not exists");
    if (!init_login_info(instance ? instance->options : params, login))
        return fail(JSON_RPC_INVALID_PARAMS, "Invalid params");
    TPOPS_RESTful_Client client;
    if (!client.connect(login))
        return fail(JSON_RPC_INTERNAL_ERROR, "Internal error: failed to connect to TPOPS server");
    json_spirit::Array result;
    for (TPOPS_Instance_Info const& info : instances_of(client)) {
        if (is_named && info.name != name)
            continue;
        result.push_back(info.dump());
        if (is_named)
            break;
    }
    if (result.empty())
        return fail(JSON_RPC_INTERNAL_ERROR, "Internal error: failed to get instances info");
    static_cast<JSON_RPC_Response*>(response.get())->result() = std::move(result);
    return channel->send(response);
}
