#include "gaussdb/websvcs_agent/gaussdb_get_instance_handler.h"

#include "gaussdb/job/cluster_job.h"
#include "gaussdb/websvcs_agent/instance_request.h"
#include "json_spirit/access.h"

int JSON_RPC_GaussDB_Get_Instance_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                                         JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var peer;
    JSON_RPC_Request* const request = open_request(channel, object, peer);
    return request ? get_instance(peer.get(), request) : -1;
}

int JSON_RPC_GaussDB_Get_Instance_Handler::get_instance(JSON_RPC_Channel* channel,
                                                        JSON_RPC_Request* request) {
    auto const refuse = [&](char const* text) {
        return channel->send_error(JSON_RPC_INVALID_PARAMS, request->id(), text);
    };
    if (request->params().type() != json_spirit::obj_type)
        return refuse("Params is not Object");
    std::string const instance =
        json_spirit::object_get_str(request->params().get_obj(), "instance");
    if (instance.empty())
        return refuse("Invalid params");
    GaussDB_Cluster_Handler_var const cluster = find_cluster(instance);
    if (cluster.null())
        return refuse("cluster does not exists");
    return send_result(channel, request, json_spirit::Value(cluster->info().extend_attrs));
}
