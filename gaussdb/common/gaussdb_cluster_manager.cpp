#include "gaussdb/common/gaussdb_cluster_manager.h"

#include "gaussdb/common/gaussdb_100_cluster_handler.h"
#include "gaussdb/common/gaussdb_200_cluster_handler.h"
#include "gaussdb/common/gaussdb_cluster_name.h"
#include "gaussdb/common/gaussdb_t_single_handler.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/check.h"
#include "qmrt/path.h"

#include <atomic>
#include <cerrno>

namespace {

constexpr char ENV_DIRECTORY[] = "/var/cache/quilmot/zenbrak3/gaussdb";

std::mutex instance_mutex;
std::atomic<GaussDB_Cluster_Manager*> the_instance = nullptr;

/** The record of a cluster for the agent and the administrator. */
json_spirit::Object make_record(GaussDB_Cluster_Handler const& handler) {
    GaussDB_Cluster_Info const info = handler.info();
    bool manual = false;
    if (json_spirit::object_get(info.extend_attrs, "manual", manual) && manual)
        return info.extend_attrs;
    GaussDB_Version const& version = handler.get_gaussdb_version();
    return json_spirit::Object_Maker()("instance", info.name)("nodes", info.nodes)(
        "app_path", info.app_path)("user", handler.user())(
        "version", static_cast<int>(version.model_))("edition", version.dump());
}

/**
 * A new handler of the flavours of which something is written down; null for any other, and with
 * ENOMEM without memory.
 */
GaussDB_Cluster_Handler* make_offline_handler(GaussDB_Env const& env, char const* user, int model,
                                              GaussDB_Version version) {
    GaussDB_Cluster_Handler* handler = nullptr;
    switch (model) {
    case GAUSSDB_200:
        version.model_ = GAUSSDB_200;
        handler = new (std::nothrow) GaussDB_200_Cluster_Handler(env, user, version);
        break;
    case GAUSSDB_100:
        version.model_ = GAUSSDB_100;
        handler = new (std::nothrow) GaussDB_100_Cluster_Handler(env, user, version);
        break;
    case GAUSSDB_T:
        handler = new (std::nothrow) GaussDB_T_Single_Handler(env, user);
        break;
    default:
        return nullptr;
    }
    if (handler == nullptr)
        errno = ENOMEM;
    return handler;
}

} // namespace

GaussDB_Cluster_Manager* GaussDB_Cluster_Manager::instance() {
    GaussDB_Cluster_Manager* manager = the_instance.load(std::memory_order_acquire);
    if (manager)
        return manager;
    std::lock_guard const guard(instance_mutex);
    manager = the_instance.load(std::memory_order_relaxed);
    if (manager == nullptr) {
        manager = new (std::nothrow) GaussDB_Cluster_Manager;
        if (manager == nullptr)
            errno = ENOMEM;
        the_instance.store(manager, std::memory_order_release);
    }
    return manager;
}

void GaussDB_Cluster_Manager::close_instance() {
    std::lock_guard const guard(instance_mutex);
    delete the_instance.exchange(nullptr);
}

void GaussDB_Cluster_Manager_fini() {
    GaussDB_Cluster_Manager::close_instance();
}

bool GaussDB_Cluster_Manager::get_instances(json_spirit::Array& instances) {
    if (!list_cluster() && !list_gaussdb_t())
        return false;
    for (auto const& [name, handler] : snapshot())
        if (!handler.null())
            instances.push_back(make_record(*handler));
    return true;
}

bool GaussDB_Cluster_Manager::update_offline_instance(char const* name, char const* user,
                                                      int version, std::string const& edition) {
    if (QMRT_IS_NULL_OR_EMPTY(name) || QMRT_IS_NULL_OR_EMPTY(user))
        return false;
    std::lock_guard const guard(discovery_mutex_);
    if (cluster_exists(name))
        return true;
    GaussDB_Env env;
    if (!load_env(name, env)) {
        QMRT_LOG(LM_ERROR, "Failed to load environment variables of cluster %s\n", name);
        return false;
    }
    GaussDB_Version numbers(GAUSSDB_UNKNOWN, 0, 0, 0);
    if (!numbers.parse(edition)) {
        QMRT_LOG(LM_ERROR, "Failed to update offline instance %s, %s\n", name, edition.c_str());
        return false;
    }
    GaussDB_Cluster_Handler_var const handler(make_offline_handler(env, user, version, numbers));
    if (handler.null())
        return false;
    if (!handler->init(name)) {
        QMRT_LOG(LM_ERROR, "Failed to init offline instance %s\n", name);
        return false;
    }
    enter(name, handler);
    return true;
}

GaussDB_Cluster_Handler_var GaussDB_Cluster_Manager::get_cluster(char const* name) const {
    if (name) {
        std::shared_lock const guard(clusters_mutex_);
        auto const found = clusters_.find(name);
        if (found != clusters_.end())
            return found->second;
    }
    return GaussDB_Cluster_Handler_var();
}

bool GaussDB_Cluster_Manager::cluster_exists(char const* name) const {
    std::shared_lock const guard(clusters_mutex_);
    return name && clusters_.count(name) != 0;
}

bool GaussDB_Cluster_Manager::add_cluster(char const* name, GaussDB_Cluster_Handler* handler) {
    if (QMRT_IS_NULL_OR_EMPTY(name) || QMRT_IS_NULL(handler))
        return false;
    {
        std::lock_guard const guard(clusters_mutex_);
        auto const [entry, is_new] = clusters_.try_emplace(name);
        if (is_new) {
            entry->second.reset(handler);
            return true;
        }
    }
    QMRT_LOG(LM_ERROR, "Cluster %s already exists.\n", name);
    return false;
}

bool GaussDB_Cluster_Manager::remove_cluster(char const* name) {
    if (name) {
        map_type::node_type taken; // the handler goes after the lock
        std::lock_guard const guard(clusters_mutex_);
        taken = clusters_.extract(name);
    }
    return true;
}

bool GaussDB_Cluster_Manager::dump_env(std::string const& name, GaussDB_Env const& env) {
    if (!is_cluster_file_name(name))
        return false;
    Path_Conf const path(ENV_DIRECTORY, true, name + "_env", 0755);
    json_spirit::Object entries;
    for (auto const& [key, value] : env.get_env())
        entries.emplace(key, value);
    return path && dump_json(path.c_str(), entries, 0, false, 0640);
}

bool GaussDB_Cluster_Manager::load_env(std::string const& name, GaussDB_Env& env) {
    if (!is_cluster_file_name(name))
        return false;
    Path_Conf const path(ENV_DIRECTORY, true, name + "_env", 0750);
    json_spirit::Value entries;
    if (!path || !load_json(path.c_str(), entries))
        return false;
    if (entries.type() != json_spirit::obj_type) {
        QMRT_LOG(LM_ERROR, "%s holds no environment\n", path.c_str());
        return false;
    }
    env.set_env(entries.get_obj());
    return true;
}

GaussDB_Cluster_Manager::map_type GaussDB_Cluster_Manager::snapshot() const {
    std::shared_lock const guard(clusters_mutex_);
    return clusters_;
}

/** False when the name is known by now; the one who was first stays. */
bool GaussDB_Cluster_Manager::enter(std::string const& name,
                                    GaussDB_Cluster_Handler_var const& handler) {
    std::lock_guard const guard(clusters_mutex_);
    return clusters_.try_emplace(name, handler).second;
}

/** Takes out the entry unless it is another handler's by now. */
void GaussDB_Cluster_Manager::take_out(std::string const& name,
                                       GaussDB_Cluster_Handler_var const& handler) {
    std::lock_guard const guard(clusters_mutex_);
    auto const found = clusters_.find(name);
    if (found != clusters_.end() && found->second.get() == handler.get())
        clusters_.erase(found);
}
