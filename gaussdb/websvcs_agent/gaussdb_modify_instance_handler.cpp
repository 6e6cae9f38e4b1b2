#include "gaussdb/websvcs_agent/gaussdb_modify_instance_handler.h"

#include "gaussdb/common/gaussdb_non_intrusive_record.h"
#include "gaussdb/common/tpops_defs.h"
#include "gaussdb/common/tpops_record.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/websvcs_agent/instance_request.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

namespace {

constexpr char const* CHANGEABLE[] = {"meta_path",   "address",    "source_commands", "ssh_options",
                                      "backup_port", "tpops_host", "tpops_port",      "tpops_ssl",
                                      "xbsa_host",   "xbsa_port",  "xbsa_ssl",        "node_count"};

json_spirit::Object changed(json_spirit::Object record, json_spirit::Object const& params) {
    for (char const* key : CHANGEABLE)
        json_spirit::update_json_partial(record, params, key);
    return record;
}

std::string fault_of_changes(json_spirit::Object const& params) {
    try {
        GaussDB_TPOPS_Instance_Info().load(changed({}, params));
    } catch (json_spirit::Error const& error) {
        return error.what();
    }
    std::string const fault = fault_of_non_intrusive_record(params);
    return fault.empty() ? fault_of_tpops_record(params) : fault;
}

} // namespace

int JSON_RPC_GaussDB_Modify_Instance_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                                            JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var peer;
    JSON_RPC_Request* const request = open_request(channel, object, peer);
    return request ? modify_instance(peer.get(), request) : -1;
}

int JSON_RPC_GaussDB_Modify_Instance_Handler::modify_instance(JSON_RPC_Channel* channel,
                                                              JSON_RPC_Request* request) {
    auto const fail = [&](int code, char const* text) {
        return channel->send_error(code, request->id(), text);
    };
    if (request->params().type() != json_spirit::obj_type)
        return fail(JSON_RPC_INVALID_PARAMS, "Invalid params");
    json_spirit::Object const& params = request->params().get_obj();
    std::string const name = json_spirit::object_get_str(params, "name");
    if (name.empty())
        return fail(JSON_RPC_INVALID_PARAMS, "Missing instance name");
    GaussDB_Cluster_Handler_var const cluster = find_cluster(name);
    if (cluster.null())
        return fail(JSON_RPC_INVALID_PARAMS, "Instance does not exists");
    if (std::string const fault = fault_of_changes(params); !fault.empty()) {
        QMRT_LOG(LM_ERROR, "Invalid request to modify instance %s, %s\n", name.c_str(),
                 fault.c_str());
        return fail(JSON_RPC_INVALID_PARAMS, "Invalid params");
    }
    GaussDB_Cluster_Info info = cluster->info();
    info.extend_attrs = changed(info.extend_attrs, params);
    cluster->info(info);
    if (!init_handler(*cluster)) {
        QMRT_LOG(LM_ERROR, "Failed to init gaussdb instance handler.\n");
        return fail(JSON_RPC_INVALID_PARAMS, "Init gaussdb instance handler error.");
    }
    Instance_Manager* const instances = Instance_Manager::instance();
    std::shared_ptr<Instance> const instance = instances->find("gaussdb", name.c_str());
    if (!instance)
        return fail(JSON_RPC_INVALID_PARAMS, "Instance does not exists");
    // the record of a cluster that was found says whose it is, which its handler's does not
    bool const is_found =
        !info.extend_attrs.count("manual") && !info.extend_attrs.count("tpops_host");
    instance->options = is_found ? changed(instance->options, params) : info.extend_attrs;
    if (!instances->add_instance(instance)) {
        QMRT_LOG(LM_ERROR, "Failed to add instance to agent.\n");
        return fail(JSON_RPC_INTERNAL_ERROR, "Failed to add instance.");
    }
    if (!update_instance(instance, instance->options)) {
        QMRT_LOG(LM_ERROR, "Failed to update instance %s to backupd.\n", name.c_str());
        return fail(JSON_RPC_INTERNAL_ERROR, "Failed to update instance.");
    }
    return send_result(channel, request, json_spirit::Value(true));
}
