#include "gaussdb/websvcs_agent/gaussdb_remove_instance_handler.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/websvcs_agent/instance_request.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

int JSON_RPC_GaussDB_Remove_Instance_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                                            JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var peer;
    JSON_RPC_Request* const request = open_request(channel, object, peer);
    return request ? remove_instance(peer.get(), request) : -1;
}

int JSON_RPC_GaussDB_Remove_Instance_Handler::remove_instance(JSON_RPC_Channel* channel,
                                                              JSON_RPC_Request* request) {
    auto const refuse = [&](char const* text) {
        return channel->send_error(JSON_RPC_INVALID_PARAMS, request->id(), text);
    };
    if (request->params().type() != json_spirit::obj_type)
        return refuse("Invalid params");
    std::string const name = json_spirit::object_get_str(request->params().get_obj(), "instance");
    if (name.empty())
        return refuse("Missing cluster name");
    std::vector<std::string> hosts;
    if (get_cluster_host_uuids(name.c_str(), hosts) && hosts.size() > 1)
        return refuse("The instance to be deleted is still bound to a cluster");
    GaussDB_Cluster_Handler_var const cluster = find_cluster(name);
    if (cluster.null())
        return refuse("Cluster does not exist");
    bool manual = false;
    if (!json_spirit::object_get(cluster->info().extend_attrs, "manual", manual) || !manual)
        return refuse("Cluster is not manual added");
    std::shared_ptr<Instance> const instance =
        Instance_Manager::instance()->find("gaussdb", name.c_str());
    if (!instance)
        return refuse("Cluster instance does not exist");
    if (!::remove_instance(instance)) {
        QMRT_LOG(LM_ERROR, "Failed to remove instance %s.\n", name.c_str());
        return refuse("Remove instance failed");
    }
    GaussDB_Cluster_Manager::instance()->remove_cluster(name.c_str());
    return send_result(channel, request, json_spirit::Value(true));
}
