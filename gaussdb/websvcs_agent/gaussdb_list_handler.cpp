#include "gaussdb/websvcs_agent/gaussdb_list_handler.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/websvcs_agent/instance_request.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "qmrt/check.h"
#include "qmrt/names.h"

#include <cerrno>
#include <new>

namespace {

constexpr char INVALID_PARAMS[] = "Invalid params";

/** What is wanted of which instance. */
struct List_Request {
    std::string uid;
    std::string instance;
    std::string database; ///< "" for the list of the databases
};

void require(char const* key, std::string const& name, names::Rule rule) {
    if (std::string const fault = rule(name); !fault.empty())
        throw json_spirit::Error(std::string(key) + " '" + names::shown(name) + "' " + fault);
}

/** Throws for what is missing or of another kind. */
List_Request read(json_spirit::Object const& params) {
    List_Request wanted;
    json_spirit::extract_or_throw(params)("uid", wanted.uid)("instance", wanted.instance)(
        "database", wanted.database, false);
    require("uid", wanted.uid, names::fault_of_id);
    require("instance", wanted.instance, names::fault_of_label);
    if (!wanted.database.empty())
        require("database", wanted.database, names::fault_of_database);
    return wanted;
}

/** What came of a listing: a null text for success. */
struct List_Outcome {
    char const* fault = nullptr;
    json_spirit::Value result{};
};

List_Outcome list_databases(GaussDB_Cluster_Handler const& handler, std::string const& username,
                            secure_string const& password) {
    std::vector<std::string> names;
    if (!handler.list_database(username.c_str(), password.c_str(), names))
        return {"Internal error: fail to get databases info"};
    json_spirit::Array databases;
    for (std::string const& name : names)
        if (name != "template0" && name != "template1")
            databases.push_back(json_spirit::Object_Maker()("name", name));
    return {nullptr, json_spirit::Object_Maker()("databases", std::move(databases))};
}

List_Outcome list_schemas(GaussDB_Cluster_Handler const& handler, std::string const& database) {
    GaussDB_Client_ptr const client = handler.create_client("", "", database.c_str());
    if (!client)
        return {"Internal error: fail to create client"};
    std::vector<std::string> names;
    if (!get_schemas(client.get(), true, handler.get_gaussdb_version(), names))
        return {"Internal error: fail to get schemas"};
    json_spirit::Array schemas(names.begin(), names.end());
    return {nullptr, json_spirit::Object_Maker()("schemas", std::move(schemas))};
}

List_Outcome list(Instance_Manager& manager, List_Request const& wanted) {
    std::string username;
    secure_string password;
    if (manager.get_account("gaussdb", wanted.uid.c_str(), wanted.instance.c_str(), username,
                            password, nullptr) < 0)
        return {"Internal error: get login info fail"};
    GaussDB_Cluster_Manager const* const clusters = GaussDB_Cluster_Manager::instance();
    GaussDB_Cluster_Handler_var const handler =
        clusters ? clusters->get_cluster(wanted.instance.c_str()) : GaussDB_Cluster_Handler_var();
    if (handler.null())
        return {"Internal error: fail to get cluster"};
    return wanted.database.empty() ? list_databases(*handler, username, password)
                                   : list_schemas(*handler, wanted.database);
}

/** The response to fill in; null, with ENOMEM, without memory. */
JSON_RPC_Object_var make_response(JSON_RPC_Request const* request) {
    JSON_RPC_Object_var response(new (std::nothrow) JSON_RPC_Response(request));
    if (response.null())
        errno = ENOMEM;
    return response;
}

json_spirit::Value& result_of(JSON_RPC_Object_var const& response) {
    return static_cast<JSON_RPC_Response*>(response.get())->result();
}

} // namespace

int JSON_RPC_GaussDB_List_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                                 JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var peer;
    JSON_RPC_Request* const request = open_request(channel, object, peer);
    if (!request)
        return -1;
    switch (request->params().type()) {
    case json_spirit::obj_type:
        return list_gaussdb_databases(peer.get(), request);
    case json_spirit::null_type:
        return list_gaussdb_instances(peer.get(), request);
    default:
        return peer->send_error(JSON_RPC_INVALID_PARAMS, request->id(), INVALID_PARAMS);
    }
}

int JSON_RPC_GaussDB_List_Handler::list_gaussdb_instances(JSON_RPC_Channel* channel,
                                                          JSON_RPC_Request* request) {
    JSON_RPC_Object_var const response = make_response(request);
    if (response.null())
        return -1;
    json_spirit::Array instances;
    GaussDB_Cluster_Manager* const manager = GaussDB_Cluster_Manager::instance();
    if (!manager || !manager->get_instances(instances))
        return channel->send_error(JSON_RPC_INTERNAL_ERROR, request->id(),
                                   "Internal error: failed to list servers");
    result_of(response) = std::move(instances);
    return channel->send(response);
}

int JSON_RPC_GaussDB_List_Handler::list_gaussdb_databases(JSON_RPC_Channel* channel,
                                                          JSON_RPC_Request* request) {
    JSON_RPC_Object_var const response = make_response(request);
    if (response.null())
        return -1;
    List_Request wanted;
    try {
        wanted = read(request->params().get_obj());
    } catch (json_spirit::Error const& error) {
        QMRT_LOG(LM_ERROR, "Invalid request to list databases, %s\n", error.what());
        return channel->send_error(JSON_RPC_INVALID_PARAMS, request->id(), INVALID_PARAMS);
    }
    Instance_Manager* const manager = Instance_Manager::instance();
    if (QMRT_IS_NULL(manager))
        return -1;
    List_Outcome outcome = list(*manager, wanted);
    if (outcome.fault)
        return channel->send_error(JSON_RPC_INTERNAL_ERROR, request->id(), outcome.fault);
    result_of(response) = std::move(outcome.result);
    return channel->send(response);
}
