#include "gaussdb/instance_handler/gaussdb_instance_handler.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_non_intrusive_handler.h"
#include "gaussdb/common/gaussdb_tpops_handler.h"
#include "host/agent/credential.h"
#include "json_spirit/access.h"
#include "qmrt/check.h"

#include <cerrno>
#include <new>

namespace {

bool is_non_intrusive(int version) {
    return version == GAUSSDB_DWS || version == GAUSSDB_FOR_OPENGAUSS;
}

/** Adds what discovery has found and is not on record. */
void add_found(json_spirit::Array const& records, std::string const& type,
               Instance_Handler::instances_type& instances) {
    for (json_spirit::Object const& record : json_spirit::objects_of(records)) {
        std::string const name = json_spirit::object_get_str(record, "instance");
        if (name.empty() || instances.count(name))
            continue;
        auto const instance = std::make_shared<Instance>();
        instance->type = type;
        instance->name = name;
        instance->options = record;
        instances.emplace(name, instance);
    }
}

/** A stopped cluster of this host comes back by what was written down about it. */
void bring_back_offline(GaussDB_Cluster_Manager& manager, Instance const& instance, int version) {
    std::string user;
    std::string edition;
    if (!instance.name.empty() && instance.get_option("user", user) &&
        instance.get_option("edition", edition))
        manager.update_offline_instance(instance.name.c_str(), user.c_str(), version, edition);
}

GaussDB_Cluster_Info info_of(Instance const& instance) {
    GaussDB_Cluster_Info info;
    info.name = instance.name;
    info.extend_attrs = instance.options;
    return info;
}

/** init() throws for a record with values of the wrong kind. */
bool is_initialized(GaussDB_Cluster_Handler& handler) {
    try {
        return handler.init("");
    } catch (json_spirit::Error const& error) {
        QMRT_LOG(LM_ERROR, "Invalid record of a gaussdb instance, %s\n", error.what());
        return false;
    }
}

/** A cluster that is reached by ssh stays known even while its node does not answer. */
void bring_back_non_intrusive(GaussDB_Cluster_Manager& manager, Instance const& instance,
                              int model) {
    char const* const name = instance.name.c_str();
    if (instance.name.empty() || manager.cluster_exists(name))
        return;
    GaussDB_Version version(static_cast<GAUSSDB_VERSION>(model), 0, 0, 0);
    std::string edition;
    if (instance.get_option("edition", edition))
        (void)version.parse(edition);
    std::unique_ptr<GaussDB_Non_Intrusive_Handler> handler(
        new (std::nothrow) GaussDB_Non_Intrusive_Handler(version));
    if (!handler) {
        errno = ENOMEM;
        return;
    }
    handler->info(info_of(instance));
    if (!is_initialized(*handler))
        QMRT_LOG(LM_WARNING, "Failed to init gaussdb instance %s.\n", name);
    if (manager.add_cluster(name, handler.get()))
        (void)handler.release(); // the manager's now
    else
        QMRT_LOG(LM_ERROR, "Failed to add DWS instance %s to cluster manager.\n", name);
}

void bring_back(GaussDB_Cluster_Manager& manager, std::shared_ptr<Instance const> const& instance) {
    std::string tpops_host;
    if (instance->get_option("tpops_host", tpops_host)) {
        (void)init_tpops_instance(instance);
        return;
    }
    int version = 0;
    if (!instance->get_option("version", version))
        return;
    if (is_non_intrusive(version))
        bring_back_non_intrusive(manager, *instance, version);
    else
        bring_back_offline(manager, *instance, version);
}

GaussDB_Cluster_Handler_var find_cluster(char const* name) {
    GaussDB_Cluster_Manager const* const manager = GaussDB_Cluster_Manager::instance();
    return manager ? manager->get_cluster(name) : GaussDB_Cluster_Handler_var();
}

bool takes_account(char const* name, char const* username, char const* password) {
    GaussDB_Cluster_Handler_var const cluster = find_cluster(name);
    return !cluster.null() && cluster->test_logon(username, password);
}

/** Updates the handler's record, from which it is initialised again after a change. */
void note_account(char const* name, char const* username, std::string const& encrypted) {
    GaussDB_Cluster_Handler_var const cluster = find_cluster(name);
    if (cluster.null())
        return;
    GaussDB_Cluster_Info info = cluster->info();
    json_spirit::insert(info.extend_attrs)("username", username)("password", encrypted);
    cluster->info(info);
}

} // namespace

int GaussDB_Instance_Handler::probe_instances(instances_type& instances) {
    GaussDB_Cluster_Manager* const manager = GaussDB_Cluster_Manager::instance();
    if (QMRT_IS_NULL(manager))
        return 0;
    json_spirit::Array records;
    if (!manager->get_instances(records))
        QMRT_LOG(LM_ERROR, "Failed to list GaussDB instances\n");
    add_found(records, type(), instances);
    for (auto const& [name, instance] : instances)
        if (instance)
            bring_back(*manager, instance);
    return 0;
}

std::string& GaussDB_Instance_Handler::get_state(char const* name, std::string& state) {
    GaussDB_Cluster_Handler_var const cluster = find_cluster(name);
    bool balanced = false;
    std::string fault;
    if (!cluster.null() &&
        !GaussDB_Cluster_Manager::instance()->is_same_cluster(name, false, fault)) {
        // the tools would tell the state of another cluster of its user
        QMRT_LOG(LM_ERROR, "%s\n", fault.c_str());
        return state = "error";
    }
    if (!cluster.null() && cluster->get_status(state, balanced))
        return state;
    QMRT_LOG(LM_ERROR, "GaussDB_Instance_Handler::get_state error.\n");
    return state = "error";
}

int GaussDB_Instance_Handler::logon(char const* name, char const* username, char const* password,
                                    json_spirit::Object const*) {
    if (QMRT_IS_NULL_OR_EMPTY(name))
        return -1;
    if (!username && !password)
        return 0;
    if (QMRT_IS_NULL_OR_EMPTY(username) || QMRT_IS_NULL_OR_EMPTY(password))
        return -1;
    if (takes_account(name, username, password))
        return 0;
    QMRT_LOG(LM_ERROR, "GaussDB_Instance_Handler::logon error.\n");
    return -1;
}

int GaussDB_Instance_Handler::update_options(char const* name, char const* username,
                                             char const* password, options_type& options) {
    if (!options.count("tpops_host"))
        return 0;
    if (!takes_account(name, username, password))
        return -1;
    // "" for no password at all, which is logged there: better no account than half of one
    std::string const encrypted = encrypt_string(password, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH);
    if (encrypted.empty())
        return -1;
    json_spirit::insert(options)("username", username)("password", encrypted);
    note_account(name, username, encrypted);
    return 0;
}

std::vector<Instance_Alert> GaussDB_Instance_Handler::alerts() {
    GaussDB_Cluster_Manager const* const manager = GaussDB_Cluster_Manager::instance();
    return manager ? manager->alerts() : std::vector<Instance_Alert>();
}

void GaussDB_Instance_Handler::forget(char const* name) {
    if (GaussDB_Cluster_Manager* const manager = GaussDB_Cluster_Manager::instance())
        if (manager->remove_cluster(name))
            manager->forget_record(name);
}

bool init_tpops_instance(std::shared_ptr<Instance const> instance) {
    GaussDB_Cluster_Manager* const manager = GaussDB_Cluster_Manager::instance();
    if (QMRT_IS_NULL(manager))
        return false;
    char const* const name = instance->name.c_str();
    if (manager->cluster_exists(name))
        return true;
    std::unique_ptr<GaussDB_TPOPS_Handler> handler(new (std::nothrow) GaussDB_TPOPS_Handler);
    if (!handler) {
        errno = ENOMEM;
        return false;
    }
    handler->info(info_of(*instance));
    if (!handler->init("")) {
        QMRT_LOG(LM_WARNING, "Failed to init gaussdb instance %s.\n", name);
        return false;
    }
    if (!manager->add_cluster(name, handler.get())) {
        QMRT_LOG(LM_ERROR, "Failed to add TPOPS instance %s to cluster manager.\n", name);
        return false;
    }
    (void)handler.release(); // the manager's now
    return true;
}
