#include "gaussdb/common/gaussdb_cluster_manager.h"

#include "gaussdb/common/gaussdb_100_cluster_handler.h"
#include "gaussdb/common/gaussdb_200_cluster_handler.h"
#include "gaussdb/common/gaussdb_cluster_identity.h"
#include "gaussdb/common/gaussdb_cluster_name.h"
#include "gaussdb/common/gaussdb_ownership.h"
#include "gaussdb/common/gaussdb_t_single_handler.h"
#include "host/agent/host_services.h"
#include "host/agent/instance_backend.h"
#include "host/http/http_encode.h"
#include "host/process/password_file_entry.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/path.h"
#include "qmrt/path_trust.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <unistd.h>

namespace {

constexpr char ENV_DIRECTORY[] = "/var/cache/quilmot/zenbrak3/gaussdb";

/** Any user can start processes that are refused. */
constexpr size_t MAX_ALERTS = 100;

std::mutex instance_mutex;
std::atomic<GaussDB_Cluster_Manager*> the_instance = nullptr;

/**
 * The record of a cluster for the agent and the administrator. It has the name by which the
 * cluster's owner was checked, and not the one that the cluster's own files have.
 */
json_spirit::Object make_record(std::string const& name, GaussDB_Cluster_Handler const& handler) {
    GaussDB_Cluster_Info const info = handler.info();
    bool manual = false;
    if (json_spirit::object_get(info.extend_attrs, "manual", manual) && manual)
        return info.extend_attrs;
    GaussDB_Version const& version = handler.get_gaussdb_version();
    return json_spirit::Object_Maker()("instance", name)("nodes", info.nodes)(
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

/** Whether the tools of a cluster that is not running may be run as its user. */
bool is_environment_of(GaussDB_Env const& env, char const* user, std::string& reason) {
    Password_File_Entry entry;
    if (entry.get(user) == -1)
        reason = "this host does not have the user";
    else if (entry.uid() == 0)
        reason = "the tools of a database are not run as root";
    else
        (void)owns_tools(env, entry.uid(), reason);
    return reason.empty();
}

std::string identity_path(std::string const& name) {
    return Path_Conf(ENV_DIRECTORY, true, name + "_identity", 0755).str();
}

/** An empty one when nothing was recorded. */
Cluster_Identity load_identity(std::string const& name) {
    Cluster_Identity record;
    json_spirit::Value value;
    std::string reason;
    std::string const path = identity_path(name);
    if (path.empty() || access(path.c_str(), F_OK) == -1)
        return record;
    if (!is_trusted_path(path, geteuid(), PATH_MAY_BE_MISSING, reason) ||
        !load_json(path.c_str(), value) || value.type() != json_spirit::obj_type ||
        !record.read(value.get_obj())) {
        QMRT_LOG(LM_ERROR, "Failed to load %s, what it recorded of the cluster is lost. %s\n",
                 path.c_str(), reason.c_str());
        return Cluster_Identity();
    }
    return record;
}

void save_identity(std::string const& name, Cluster_Identity const& record) {
    std::string const path = identity_path(name); // what cannot be written has been logged
    if (!path.empty())
        (void)dump_json(path.c_str(), record.dump(), 0, false, 0640);
}

/** JSON has UTF-8 alone, and a variable may have any bytes: these are escaped in an object. */
void add_variable(json_spirit::Object& entries, std::string const& name, std::string const& value) {
    if (qmrt::is_utf8(name) && qmrt::is_utf8(value)) {
        entries.emplace(name, value);
        return;
    }
    std::string const escaped = http_encode_string(name, HUT_FLAG_UPPERCASE);
    entries.emplace(escaped,
                    json_spirit::Object{{"name", escaped},
                                        {"value", http_encode_string(value, HUT_FLAG_UPPERCASE)}});
}

/** Such an object; one of another form is left out. */
void take_escaped(json_spirit::Object const& entry, GaussDB_Env& env) {
    std::string name, value;
    if (http_decode_string(json_spirit::object_get_str(entry, "name"), 0, name) &&
        http_decode_string(json_spirit::object_get_str(entry, "value"), 0, value) &&
        !name.empty() && name.find('\0') == std::string::npos &&
        value.find('\0') == std::string::npos)
        env.set_env(name, value);
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
            instances.push_back(make_record(name, *handler));
    return true;
}

bool GaussDB_Cluster_Manager::update_offline_instance(char const* name, char const* user,
                                                      int version, std::string const& edition) {
    if (QMRT_IS_NULL_OR_EMPTY(name) || QMRT_IS_NULL_OR_EMPTY(user))
        return false;
    std::lock_guard const guard(discovery_mutex_);
    drop_of_other_user(name, user);
    if (cluster_exists(name))
        return true;
    GaussDB_Env env;
    if (!load_env(name, env)) {
        QMRT_LOG(LM_ERROR, "Failed to load environment variables of cluster %s\n", name);
        return false;
    }
    std::string reason;
    if (!is_environment_of(env, user, reason)) {
        QMRT_LOG(LM_ERROR, "Failed to update offline instance %s of user %s, %s\n", name, user,
                 reason.c_str());
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

std::optional<std::string> GaussDB_Cluster_Manager::owner_of(std::string const& name) const {
    auto const records = Host_Services::instance().instances();
    if (std::shared_ptr<Instance> const record =
            records ? records->find("gaussdb", name) : nullptr) {
        std::string user;
        record->get_option("user", user);
        return user;
    }
    GaussDB_Cluster_Handler_var const known = get_cluster(name.c_str());
    return known.null() ? std::nullopt : std::optional(known->user());
}

bool GaussDB_Cluster_Manager::is_owner_of(std::string const& name, uid_t uid,
                                          std::string& reason) const {
    std::optional<std::string> const owner = owner_of(name);
    Password_File_Entry entry;
    if (uid == 0)
        reason = "it belongs to root, and the tools of a database are not run as root";
    else if (owner && (owner->empty() || entry.get(owner->c_str()) == -1 || entry.uid() != uid))
        reason = "it belongs to uid " + std::to_string(uid) +
                 ", but the cluster is on record for user \"" + *owner + "\"";
    return reason.empty();
}

/** Takes out a handler whose user is not @a user; one of no user here stays. */
void GaussDB_Cluster_Manager::drop_of_other_user(std::string const& name, std::string const& user) {
    GaussDB_Cluster_Handler_var const known = get_cluster(name.c_str());
    if (known.null() || known->user().empty() || known->user() == user)
        return;
    QMRT_LOG(LM_ERROR,
             "Cluster %s is on record for user \"%s\", no longer using what was found of user "
             "\"%s\"\n",
             name.c_str(), user.c_str(), known->user().c_str());
    take_out(name, known);
}

/** The record decides: an administrator may have put it right. */
void GaussDB_Cluster_Manager::drop_overruled() {
    auto const records = Host_Services::instance().instances();
    if (!records)
        return;
    for (std::shared_ptr<Instance> const& record : records->list("gaussdb")) {
        std::string user;
        if (record->get_option("user", user))
            drop_of_other_user(record->name, user);
    }
}

void GaussDB_Cluster_Manager::raise_alert(std::string const& name, std::string const& text) {
    if (pending_alerts_.size() >= MAX_ALERTS)
        return;
    pending_alerts_.push_back({name, text});
    std::vector<Instance_Alert> const before = alerts();
    // discovery runs often: what is known already is not told again
    if (std::none_of(before.begin(), before.end(),
                     [&](Instance_Alert const& alert) { return alert.text == text; }))
        QMRT_LOG(LM_ERROR, "%s\n", text.c_str());
}

/** @param keep_others  there was another search before in this discovery */
void GaussDB_Cluster_Manager::publish_alerts(bool keep_others) {
    std::lock_guard const guard(alerts_mutex_);
    if (!keep_others)
        alerts_.clear();
    for (Instance_Alert const& alert : pending_alerts_)
        if (std::none_of(alerts_.begin(), alerts_.end(),
                         [&](Instance_Alert const& known) { return known.text == alert.text; }))
            alerts_.push_back(alert);
    pending_alerts_.clear();
}

std::vector<Instance_Alert> GaussDB_Cluster_Manager::alerts() const {
    std::lock_guard const guard(alerts_mutex_);
    return alerts_;
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
        found_here_.erase(name);
    }
    return true;
}

bool GaussDB_Cluster_Manager::dump_env(std::string const& name, GaussDB_Env const& env) {
    if (!is_cluster_file_name(name))
        return false;
    Path_Conf const path(ENV_DIRECTORY, true, name + "_env", 0755);
    json_spirit::Object entries;
    for (auto const& [key, value] : env.get_env())
        add_variable(entries, key, value);
    return path && dump_json(path.c_str(), entries, 0, false, 0640);
}

bool GaussDB_Cluster_Manager::load_env(std::string const& name, GaussDB_Env& env) {
    if (!is_cluster_file_name(name))
        return false;
    Path_Conf const path(ENV_DIRECTORY, true, name + "_env", 0750);
    json_spirit::Value entries;
    std::string reason;
    if (!path)
        return false;
    if (!is_trusted_path(path.str(), geteuid(), PATH_MAY_BE_MISSING, reason)) {
        QMRT_LOG(LM_ERROR, "Failed to load %s, others can change it: %s\n", path.c_str(),
                 reason.c_str());
        return false;
    }
    if (!load_json(path.c_str(), entries))
        return false;
    if (entries.type() != json_spirit::obj_type) {
        QMRT_LOG(LM_ERROR, "%s holds no environment\n", path.c_str());
        return false;
    }
    env.set_env(entries.get_obj());
    for (auto const& [key, value] : entries.get_obj())
        if (value.type() == json_spirit::obj_type)
            take_escaped(value.get_obj(), env);
    return true;
}

bool GaussDB_Cluster_Manager::is_found_here(std::string const& name) const {
    std::shared_lock const guard(clusters_mutex_);
    return found_here_.contains(name);
}

// which cluster it is

bool GaussDB_Cluster_Manager::is_same_cluster(char const* name, bool with_data,
                                              std::string& fault) {
    GaussDB_Cluster_Handler_var const handler = get_cluster(name);
    if (handler.null() || !is_found_here(name))
        return true;
    std::lock_guard const guard(records_mutex_);
    Cluster_Identity record = load_identity(name);
    if (record.name.empty()) // the profile said so when the cluster was found
        record.name = handler->env().get_value("GS_CLUSTER_NAME");
    Cluster_Identity const present = Cluster_Identity::look(*handler, record);
    std::string const difference = record.difference(present, with_data);
    if (difference.empty()) {
        if (record.complete(present))
            save_identity(name, record);
        return true;
    }
    fault = string_sprintf(
        "cluster \"%s\" is not the one on record: %s. If it is gone for good, run: zenbrak3 "
        "instance "
        "remove %s; if it is the same one after a planned change, run that and then: zenbrak3 "
        "instances --refresh",
        name, difference.c_str(), name);
    return false;
}

bool GaussDB_Cluster_Manager::owns_its_tools(char const* name, std::string& fault) const {
    GaussDB_Cluster_Handler_var const handler = get_cluster(name);
    std::string reason;
    if (handler.null() || !is_found_here(name) ||
        is_environment_of(handler->env(), handler->user().c_str(), reason))
        return true;
    fault = string_sprintf("the tools of cluster \"%s\" are not run: %s", name, reason.c_str());
    return false;
}

void GaussDB_Cluster_Manager::record_data(char const* name) {
    GaussDB_Cluster_Handler_var const handler = get_cluster(name);
    if (handler.null() || !is_found_here(name))
        return;
    std::lock_guard const guard(records_mutex_);
    Cluster_Identity record = load_identity(name);
    record.systems = Cluster_Identity::look(*handler, record).systems;
    save_identity(name, record);
}

void GaussDB_Cluster_Manager::forget_record(char const* name) {
    if (!name || !is_cluster_file_name(name))
        return;
    std::lock_guard const guard(records_mutex_);
    unlink(identity_path(name).c_str());
}

/** Tells of the clusters whose users have another one now. */
void GaussDB_Cluster_Manager::check_records() {
    for (auto const& [name, handler] : snapshot())
        if (std::string fault; !is_same_cluster(name.c_str(), false, fault))
            raise_alert(name, fault);
}

GaussDB_Cluster_Manager::map_type GaussDB_Cluster_Manager::snapshot() const {
    std::shared_lock const guard(clusters_mutex_);
    return clusters_;
}

/** False when the name is known by now; the one who was first stays. */
bool GaussDB_Cluster_Manager::enter(std::string const& name,
                                    GaussDB_Cluster_Handler_var const& handler) {
    std::lock_guard const guard(clusters_mutex_);
    bool const is_new = clusters_.try_emplace(name, handler).second;
    if (is_new)
        found_here_.insert(name);
    return is_new;
}

/** Takes out the entry unless it is another handler's by now. */
void GaussDB_Cluster_Manager::take_out(std::string const& name,
                                       GaussDB_Cluster_Handler_var const& handler) {
    std::lock_guard const guard(clusters_mutex_);
    auto const found = clusters_.find(name);
    if (found == clusters_.end() || found->second.get() != handler.get())
        return;
    clusters_.erase(found);
    found_here_.erase(name);
}
