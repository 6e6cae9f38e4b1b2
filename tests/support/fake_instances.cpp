#include "tests/support/fake_instances.h"

#include "host/agent/host_services.h"
#include "qmrt/log.h"

bool Fake_Instance_Backend::enter(std::string const& operation, std::string const& rest) {
    calls_.push_back(operation + " " + rest);
    if (!failing_.count(operation))
        return true;
    QMRT_LOG(LM_ERROR, "The instances' record fails to %s\n", operation.c_str());
    return false;
}

std::shared_ptr<Instance> Fake_Instance_Backend::copy_of(Record const& record) {
    auto copy = std::make_shared<Instance>(record.instance);
    copy->logon_options.clear();
    for (auto const& [uid, account] : record.accounts) {
        json_spirit::Object shown = account;
        shown.erase("password");
        copy->logon_options[uid] = shown;
    }
    return copy;
}

std::shared_ptr<Instance> Fake_Instance_Backend::find(std::string const& type,
                                                      std::string const& name) {
    std::lock_guard const guard(mutex_);
    auto const found = records_.find({type, name});
    if (!enter("find", name) || found == records_.end())
        return nullptr;
    return copy_of(found->second);
}

std::vector<std::shared_ptr<Instance>> Fake_Instance_Backend::list(std::string const& type) {
    std::lock_guard const guard(mutex_);
    std::vector<std::shared_ptr<Instance>> result;
    if (!enter("list", type))
        return result;
    for (auto const& [key, record] : records_)
        if (key.first == type)
            result.push_back(copy_of(record));
    return result;
}

bool Fake_Instance_Backend::put(Instance const& instance) {
    std::lock_guard const guard(mutex_);
    if (!enter("put", instance.name))
        return false;
    records_[{instance.type, instance.name}].instance = instance;
    return true;
}

bool Fake_Instance_Backend::erase(std::string const& type, std::string const& name) {
    std::lock_guard const guard(mutex_);
    if (!enter("erase", name))
        return false;
    if (records_.erase({type, name}))
        return true;
    QMRT_LOG(LM_ERROR, "There is no %s instance %s to remove\n", type.c_str(), name.c_str());
    return false;
}

bool Fake_Instance_Backend::save_account(std::string const& type, std::string const& name,
                                         std::string const& uid,
                                         json_spirit::Object const& account) {
    std::lock_guard const guard(mutex_);
    if (!enter("save_account", name + " " + uid))
        return false;
    auto const found = records_.find({type, name});
    if (found == records_.end()) {
        QMRT_LOG(LM_ERROR, "There is no %s instance %s for an account\n", type.c_str(),
                 name.c_str());
        return false;
    }
    json_spirit::Object kept = account;
    secure_string password;
    if (json_spirit::object_get(account, "password", password))
        kept["password"] = password;
    found->second.accounts[uid] = kept;
    return true;
}

bool Fake_Instance_Backend::get_account(std::string const& type, std::string const& name,
                                        std::string const& uid, json_spirit::Object& account) {
    std::lock_guard const guard(mutex_);
    if (!enter("get_account", name + " " + uid))
        return false;
    auto const found = records_.find({type, name});
    if (found == records_.end() || !found->second.accounts.count(uid))
        return false;
    account = found->second.accounts[uid];
    return true;
}

bool Fake_Instance_Backend::tell_server(Change change, Instance const& instance) {
    static char const* const names[] = {"added", "updated", "removed"};
    std::lock_guard const guard(mutex_);
    if (!enter("tell_server", std::string(names[change]) + " " + instance.name))
        return false;
    told_[instance.name] = instance;
    return true;
}

void Fake_Instance_Backend::fail(std::string const& operation, bool value) {
    std::lock_guard const guard(mutex_);
    if (value)
        failing_.insert(operation);
    else
        failing_.erase(operation);
}

std::vector<std::string> Fake_Instance_Backend::calls() const {
    std::lock_guard const guard(mutex_);
    return calls_;
}

std::shared_ptr<Instance> Fake_Instance_Backend::told(std::string const& name) const {
    std::lock_guard const guard(mutex_);
    auto const found = told_.find(name);
    return found == told_.end() ? nullptr : std::make_shared<Instance>(found->second);
}

Fake_Instances::Fake_Instances() : backend_(std::make_shared<Fake_Instance_Backend>()) {
    Host_Services::instance().instances(backend_);
}

Fake_Instances::~Fake_Instances() {
    Host_Services::instance().instances(nullptr);
}
