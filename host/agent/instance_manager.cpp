#include "host/agent/instance_manager.h"

#include "host/agent/host_services.h"
#include "host/agent/instance_backend.h"
#include "host/agent/instance_handler.h"
#include "qmrt/check.h"

#include <strings.h>

namespace {

/** The back end; null after an error line. */
std::shared_ptr<Instance_Backend> backend(std::string const& name) {
    std::shared_ptr<Instance_Backend> instances = Host_Services::instance().instances();
    if (!instances)
        QMRT_LOG(LM_ERROR, "No instance service is installed for instance %s\n", name.c_str());
    return instances;
}

/** True for an instance that can be named; otherwise an error line tells. */
bool is_named(std::shared_ptr<Instance const> const& instance) {
    if (QMRT_IS_NULL(instance))
        return false;
    if (!instance->type.empty() && !instance->name.empty())
        return true;
    QMRT_LOG(LM_ERROR, "An instance needs a type and a name, this one has \"%s\" and \"%s\"\n",
             instance->type.c_str(), instance->name.c_str());
    return false;
}

/** Takes name and password out of an account. */
bool read_account(json_spirit::Object const& account, std::string& username,
                  secure_string& password) {
    std::string user;
    secure_string secret;
    if (!json_spirit::object_get(account, "username", user) ||
        !json_spirit::object_get(account, "password", secret))
        return false;
    username = user;
    password = secret;
    return true;
}

} // namespace

Instance_Manager* Instance_Manager::instance() {
    static Instance_Manager manager;
    return &manager;
}

std::shared_ptr<Instance> Instance_Manager::find(char const* type, char const* name) {
    if (QMRT_IS_NULL_OR_EMPTY(type) || QMRT_IS_NULL_OR_EMPTY(name))
        return nullptr;
    std::shared_ptr<Instance_Backend> const instances = backend(name);
    return instances ? instances->find(type, name) : nullptr;
}

bool Instance_Manager::add_instance(std::shared_ptr<Instance> instance) {
    if (!is_named(instance))
        return false;
    std::shared_ptr<Instance_Backend> const instances = backend(instance->name);
    return instances && instances->put(*instance);
}

int Instance_Manager::get_account(char const* type, char const* uid, char const* name,
                                  std::string& username, secure_string& password,
                                  json_spirit::Object* account) {
    if (QMRT_IS_NULL_OR_EMPTY(type) || QMRT_IS_NULL_OR_EMPTY(uid) || QMRT_IS_NULL_OR_EMPTY(name))
        return -1;
    std::shared_ptr<Instance_Backend> const instances = backend(name);
    json_spirit::Object found;
    if (!instances || !instances->get_account(type, name, uid, found))
        return -1;
    if (!read_account(found, username, password)) {
        QMRT_LOG(LM_ERROR, "The account of instance %s has no user name or no password\n", name);
        return -1;
    }
    if (account)
        *account = std::move(found);
    return 0;
}

bool Instance_Manager::save_account(char const* type, char const* name, char const* uid,
                                    json_spirit::Object const& account) {
    if (QMRT_IS_NULL_OR_EMPTY(type) || QMRT_IS_NULL_OR_EMPTY(name) || QMRT_IS_NULL_OR_EMPTY(uid))
        return false;
    std::string username;
    secure_string password;
    if (!read_account(account, username, password)) {
        QMRT_LOG(LM_ERROR, "An account of instance %s needs a user name and a password\n", name);
        return false;
    }
    std::shared_ptr<Instance_Backend> const instances = backend(name);
    return instances && instances->save_account(type, name, uid, account);
}

int Instance_Manager::update_instance_options(Instance_var instance, Instance_Handler* handler) {
    if (!is_named(instance) || QMRT_IS_NULL(handler))
        return -1;
    std::shared_ptr<Instance> const on_record =
        find(instance->type.c_str(), instance->name.c_str());
    if (!on_record)
        return -1;
    if (on_record->logon_options.empty())
        return 0;
    for (auto const& account : on_record->logon_options) {
        std::string username;
        secure_string password;
        Instance_Handler::options_type options = instance->options;
        if (get_account(instance->type.c_str(), account.first.c_str(), instance->name.c_str(),
                        username, password) != 0 ||
            handler->update_options(instance->name.c_str(), username.c_str(), password.c_str(),
                                    options) != 0)
            continue;
        instance->options = std::move(options);
        return add_instance(instance) ? 0 : -1;
    }
    return -1;
}

std::shared_ptr<Instance_Handler> Instance_Manager::get_handler(std::string const& type) {
    std::lock_guard const guard(mutex_);
    auto const found = handlers_.find(type);
    return found == handlers_.end() ? nullptr : found->second;
}

void Instance_Manager::add_handler(std::shared_ptr<Instance_Handler> handler) {
    if (QMRT_IS_NULL(handler))
        return;
    std::lock_guard const guard(mutex_);
    handlers_[handler->type()].swap(handler);
}

void Instance_Manager::remove_handler(std::string const& type) {
    std::shared_ptr<Instance_Handler> last; // its destructor is a module's, and runs unlocked
    std::lock_guard const guard(mutex_);
    auto const found = handlers_.find(type);
    if (found == handlers_.end())
        return;
    last = std::move(found->second);
    handlers_.erase(found);
}

Instance_Manager::State Instance_Manager::state_from_text(std::string const& text) {
    struct Row {
        char const* text;
        State state;
    };
    // words of the databases' own tools and of the handlers
    static constexpr Row ROWS[] = {
        {"running", OPENED},        {"normal", OPENED},      {"degraded", OPENED},
        {"redistributing", OPENED}, {"open", OPENED},        {"starting", OPENING},
        {"opening", OPENING},       {"stopping", CLOSING},   {"closing", CLOSING},
        {"error", CLOSED},          {"unavailable", CLOSED}, {"stopped", CLOSED},
        {"closed", CLOSED},
    };
    for (Row const& row : ROWS)
        if (strcasecmp(row.text, text.c_str()) == 0)
            return row.state;
    return UNKNOWN;
}

bool add_instance(std::shared_ptr<Instance const> instance) {
    if (!is_named(instance))
        return false;
    std::shared_ptr<Instance_Backend> const instances = backend(instance->name);
    if (!instances)
        return false;
    std::shared_ptr<Instance> const before = instances->find(instance->type, instance->name);
    if (!instances->put(*instance))
        return false;
    if (instances->tell_server(Instance_Backend::ADDED, *instance))
        return true;
    if (before)
        (void)instances->put(*before);
    else
        (void)instances->erase(instance->type, instance->name);
    return false;
}

bool remove_instance(std::shared_ptr<Instance const> instance) {
    if (!is_named(instance))
        return false;
    std::shared_ptr<Instance_Backend> const instances = backend(instance->name);
    return instances && instances->tell_server(Instance_Backend::REMOVED, *instance) &&
           instances->erase(instance->type, instance->name);
}

bool update_instance(std::shared_ptr<Instance const> instance,
                     Instance::options_type const& options) {
    if (!is_named(instance))
        return false;
    std::shared_ptr<Instance_Backend> const instances = backend(instance->name);
    if (!instances)
        return false;
    Instance changed = *instance;
    changed.options = options;
    return instances->tell_server(Instance_Backend::UPDATED, changed);
}
