#include "gaussdb/websvcs_agent/gaussdb_create_instance_handler.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_non_intrusive_handler.h"
#include "gaussdb/common/gaussdb_non_intrusive_record.h"
#include "gaussdb/websvcs_agent/instance_request.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "qmrt/check.h"
#include "qmrt/names.h"
#include "qmrt/uuid.h"

#include <cerrno>
#include <memory>
#include <new>

namespace {

constexpr char TYPE[] = "gaussdb";
constexpr char NO_CREDENTIALS[] = "null"; // ssh authenticates

/** A cluster as it is declared. */
struct New_Instance {
    std::string name;
    std::string uid;
    std::string meta_path;
    std::string address;
    std::string source_commands;
    std::string ssh_options;
    uint16_t backup_port = 0;
    GaussDB_Version version{GAUSSDB_UNKNOWN, 0, 0, 0};

    json_spirit::Object record() const {
        return json_spirit::Object_Maker()("name", name)("instance", name)("meta_path", meta_path)(
            "address", address)("backup_port", static_cast<int>(backup_port))(
            "source_commands", source_commands)("ssh_options", ssh_options)("manual", true)(
            "version", static_cast<int>(version.model_))("major", version.major_)("edition",
                                                                                  version.dump());
    }
};

/** An error to answer with; a null text for success. */
struct Creation_Fault {
    int code = 0;
    char const* text = nullptr;
};

void require_instance_member(std::string const& fault) {
    if (!fault.empty())
        throw json_spirit::Error(fault);
}

/** Throws for what is missing, of another kind, or cannot be what it is to be. */
New_Instance read_new_instance(json_spirit::Object const& params) {
    New_Instance wanted;
    json_spirit::extract_or_throw(params)("name", wanted.name, true)("uid", wanted.uid, true)(
        "meta_path", wanted.meta_path, true)("address", wanted.address, true)(
        "backup_port", wanted.backup_port, true)("source_commands", wanted.source_commands,
                                                 false)("ssh_options", wanted.ssh_options, false);
    if (std::string const fault = names::fault_of_instance(wanted.name); !fault.empty())
        throw json_spirit::Error("name '" + names::shown(wanted.name) + "' " + fault);
    if (std::string const fault = names::fault_of_id(wanted.uid); !fault.empty())
        throw json_spirit::Error("uid '" + names::shown(wanted.uid) + "' " + fault);
    require_instance_member(fault_of_non_intrusive_record(params));
    if (!wanted.source_commands.empty() && !wanted.source_commands.ends_with(';'))
        wanted.source_commands += ';';
    if (wanted.ssh_options.empty())
        wanted.ssh_options = DEFAULT_SSH_OPTS;
    return wanted;
}

Creation_Fault ask_node(New_Instance& wanted) {
    if (!non_intrusive_get_cluster_version(wanted.address.c_str(), wanted.version,
                                           wanted.source_commands.c_str(),
                                           wanted.ssh_options.c_str())) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB version.\n");
        return {JSON_RPC_INVALID_PARAMS, "Failed to get GaussDB version"};
    }
    if (!settle_non_intrusive_flavour(wanted.version))
        return {JSON_RPC_INVALID_PARAMS,
                "This GaussDB version does not support non-intrusive backup"};
    if (wanted.source_commands.empty())
        wanted.source_commands =
            wanted.version.model_ == GAUSSDB_DWS ? SOURCE_DWS_PROFILE : SOURCE_GAUSS_ENV_FILE;
    return {};
}

Creation_Fault enter_cluster(GaussDB_Cluster_Manager& manager, New_Instance const& wanted) {
    std::unique_ptr<GaussDB_Non_Intrusive_Handler> handler(
        new (std::nothrow) GaussDB_Non_Intrusive_Handler(wanted.version));
    if (!handler)
        return {}; // the next search makes it from the record
    GaussDB_Cluster_Info info;
    info.name = wanted.name;
    info.extend_attrs = wanted.record();
    handler->info(info);
    handler->source_cmd(wanted.source_commands.c_str());
    handler->ssh_opts(wanted.ssh_options.c_str());
    if (!init_handler(*handler))
        return {JSON_RPC_INTERNAL_ERROR, "Failed to init DWS cluster handler."};
    if (manager.add_cluster(wanted.name.c_str(), handler.get()))
        (void)handler.release(); // the manager's now
    return {};
}

json_spirit::Object account_without_credentials() {
    return json_spirit::Object_Maker()("username", NO_CREDENTIALS)("password", NO_CREDENTIALS)(
        "auth_type", "instance");
}

Creation_Fault record_instance(GaussDB_Cluster_Manager& manager, New_Instance const& wanted,
                               std::shared_ptr<Instance> const& instance) {
    char const* const name = wanted.name.c_str();
    if (!add_instance(instance)) {
        QMRT_LOG(LM_ERROR, "Failed to add instance.\n");
        manager.remove_cluster(name);
        return {JSON_RPC_INTERNAL_ERROR, "Failed to save instance."};
    }
    Instance_Manager* const instances = Instance_Manager::instance();
    if (!instances->save_account(TYPE, name, wanted.uid.c_str(), account_without_credentials())) {
        QMRT_LOG(LM_ERROR, "Failed to save account.\n");
        manager.remove_cluster(name);
        (void)remove_instance(instances->find(TYPE, name));
        return {JSON_RPC_INTERNAL_ERROR, "Failed to save account."};
    }
    return {};
}

std::shared_ptr<Instance> make_instance(New_Instance const& wanted) {
    std::shared_ptr<Instance> instance(new (std::nothrow) Instance);
    if (!instance)
        return nullptr;
    instance->type = TYPE;
    instance->name = wanted.name;
    instance->options = wanted.record();
    instance->uuid = uuid_string();
    instance->logon_options[wanted.uid] = account_without_credentials();
    return instance;
}

} // namespace

int JSON_RPC_GaussDB_Create_Instance_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                                            JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var peer;
    JSON_RPC_Request* const request = open_request(channel, object, peer);
    if (!request)
        return -1;
    if (request->params().type() != json_spirit::obj_type)
        return peer->send_error(JSON_RPC_INVALID_PARAMS, request->id(), "Invalid params");
    return create_instance(peer.get(), request);
}

int JSON_RPC_GaussDB_Create_Instance_Handler::create_instance(JSON_RPC_Channel* channel,
                                                              JSON_RPC_Request* request) {
    auto const fail = [&](Creation_Fault const& fault) {
        return channel->send_error(fault.code, request->id(), fault.text);
    };
    New_Instance wanted;
    try {
        wanted = read_new_instance(request->params().get_obj());
    } catch (json_spirit::Error const& error) {
        QMRT_LOG(LM_ERROR, "Invalid request to create an instance, %s\n", error.what());
        return fail({JSON_RPC_INVALID_PARAMS, "Invalid params"});
    }
    GaussDB_Cluster_Manager* const manager = GaussDB_Cluster_Manager::instance();
    if (QMRT_IS_NULL(manager))
        return -1;
    // a cluster that is stopped may be on record alone, and its owner with it
    if (manager->cluster_exists(wanted.name.c_str()) ||
        Instance_Manager::instance()->find(TYPE, wanted.name.c_str())) {
        QMRT_LOG(LM_ERROR, "GaussDB instance %s already exists.\n", wanted.name.c_str());
        return fail({JSON_RPC_INVALID_PARAMS, "Name already exists"});
    }
    if (Creation_Fault const fault = ask_node(wanted); fault.text)
        return fail(fault);
    if (Creation_Fault const fault = enter_cluster(*manager, wanted); fault.text)
        return fail(fault);
    std::shared_ptr<Instance> const instance = make_instance(wanted);
    if (!instance) {
        manager->remove_cluster(wanted.name.c_str());
        errno = ENOMEM;
        return 0;
    }
    if (Creation_Fault const fault = record_instance(*manager, wanted, instance); fault.text)
        return fail(fault);
    // the instance stands even if the server was not told, which has been logged
    (void)notify_backupd_instance(wanted.name.c_str(), wanted.uid.c_str());
    return send_result(channel, request, instance->uuid);
}
