#include "agent/service/agent_methods.h"

#include "agent/catalog/set_level.h"
#include "agent/jobs/agent_jobs.h"
#include "agent/jobs/member_reader.h"
#include "agent/service/agent_identity.h"
#include "agent/service/instance_probe.h"
#include "agent/service/readiness_check.h"
#include "agent/service/ssh_host_key.h"
#include "host/agent/database_guide.h"
#include "host/agent/host_services.h"
#include "host/agent/instance_backend.h"
#include "host/agent/instance_handler.h"
#include "host/agent/instance_manager.h"
#include "host/catalog/catalog_backend.h"
#include "json_spirit/access.h"

#include <algorithm>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char TYPE[] = "gaussdb";

/** Finds fault with an option whose key or text is not a plain one. */
void check_options(Member_Reader& reader, Object const* options, Database_Guide const* guide) {
    if (!options)
        return;
    for (auto const& [key, value] : *options) {
        std::string const path = "options." + names::shown(key);
        std::string const key_fault = names::fault_of_id(key);
        if (!key_fault.empty())
            reader.blame(path.c_str(), "a key that " + key_fault);
        if (value.type() == json_spirit::obj_type || value.type() == json_spirit::array_type)
            reader.blame(path.c_str(), "wanted a text, a number or a flag");
        if (value.type() != json_spirit::str_type || value.get_str().empty())
            continue;
        std::string const& text = value.get_str();
        std::string const fault =
            guide ? guide->fault_of_option(key, text) : names::fault_of_line(text);
        if (!fault.empty())
            reader.blame(path.c_str(), fault);
    }
}

/**
 * Adds the end and level of the last complete backup: 0 and "" without one, and null if the catalog
 * cannot be asked.
 */
void add_last_backups(Array& instances) {
    constexpr Catalog_Limits SOON = {5, 0};
    std::shared_ptr<Catalog_Backend> const catalog = Host_Services::instance().catalog();
    bool answers = catalog != nullptr;
    for (Value& instance : instances) {
        Object& row = instance.get_obj();
        Value sets;
        answers = answers && catalog->get_view(SOON, TYPE, "catalogs",
                                               {{"instance", row["name"]},
                                                {"sort", "backup_start_time"},
                                                {"order", "desc"},
                                                {"limit", 1},
                                                {"without_tables", "1"}},
                                               sets);
        row["last_backup"] = answers ? Value(0) : Value();
        row["last_backup_level"] = "";
        if (!answers || sets.type() != json_spirit::array_type || sets.get_array().empty() ||
            sets.get_array().front().type() != json_spirit::obj_type)
            continue;
        Object& set = sets.get_array().front().get_obj();
        add_level(set);
        row["last_backup"] = json_spirit::object_get_any(set, "backup_end_time");
        row["last_backup_level"] = set["level"];
    }
}

class Instance_Methods {
public:
    Instance_Methods(Agent_Identity const& identity, Instance_Probe& probe,
                     std::shared_ptr<Database_Guide> guide)
        : identity_(identity), probe_(probe), guide_(std::move(guide)) {}

    bool list(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error;
        bool refresh = false;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.flag("refresh", refresh);
        if (!reader.finish())
            return invalid_params(error, fault);
        if (refresh)
            (void)probe_.probe();
        Array instances;
        for (std::shared_ptr<Instance> const& instance : record()->list(TYPE))
            instances.emplace_back(describe(*instance, refresh));
        add_last_backups(instances);
        result = Object{{"instances", std::move(instances)}, {"alerts", alerts()}};
        return true;
    }

    bool show(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::shared_ptr<Instance> const instance = named(call, fault);
        if (!instance)
            return false;
        Object described = describe(*instance, true);
        Array accounts;
        for (auto const& [uid, account] : instance->logon_options)
            accounts.emplace_back(
                Object{{"uid", uid},
                       {"username", account.type() == json_spirit::obj_type
                                        ? json_spirit::object_get_str(account.get_obj(), "username")
                                        : ""}});
        described["accounts"] = std::move(accounts);
        Array one{std::move(described)};
        add_last_backups(one);
        result = std::move(one.front());
        return true;
    }

    bool save(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, type = TYPE;
        auto const instance = std::make_shared<Instance>();
        Object const* options = nullptr;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("name", instance->name, names::fault_of_instance);
        reader.text("type", type);
        reader.object("options", options);
        check_options(reader, options, guide_.get());
        if (type != TYPE)
            reader.blame("type", "only \"gaussdb\" is known");
        if (!reader.finish())
            return invalid_params(error, fault);
        std::shared_ptr<Instance> const before = record()->find(TYPE, instance->name);
        instance->type = type;
        instance->uuid = before ? before->uuid : Instance_Probe::uuid_of(type, instance->name);
        if (options)
            instance->options = *options;
        if (!add_instance(instance))
            return failed(fault);
        result = Object{{"uuid", instance->uuid}};
        return true;
    }

    /** Whether a cluster that is reached by ssh can be declared with these options. */
    bool try_options(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, accepted;
        Instance wanted;
        Object const* options = nullptr;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.object("options", options);
        check_options(reader, options, guide_.get());
        if (!options || json_spirit::object_get_str(*options, "address").empty())
            reader.blame("options.address", "is missing");
        reader.text("accept_host_key", accepted, names::fault_of_line);
        if (!reader.finish())
            return invalid_params(error, fault);
        wanted.type = TYPE;
        wanted.options = *options;
        std::string const address = json_spirit::object_get_str(*options, "address");
        std::string const ssh_options = json_spirit::object_get_str(*options, "ssh_options");
        Ssh_Host_Key key = find_ssh_host_key(address, ssh_options);
        if (!accepted.empty() && key.state == Ssh_Host_Key::UNKNOWN) {
            if (!trust_ssh_host_key(address, ssh_options, key, accepted, error))
                return refused(error, fault);
            key.state = Ssh_Host_Key::KNOWN;
        }
        Readiness_Check check(guide_);
        check.of_module(wanted, Database_Guide::TO_DECLARE);
        Object answer = check.dump();
        answer["host_key"] = key.dump();
        result = std::move(answer);
        return true;
    }

    bool remove(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::shared_ptr<Instance> const instance = named(call, fault);
        if (!instance)
            return false;
        if (!remove_instance(instance))
            return failed(fault);
        // or the next search would put it on record again
        if (auto const handler = Instance_Manager::instance()->get_handler(TYPE))
            handler->forget(instance->name.c_str());
        result = Object();
        return true;
    }

    bool save_account(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, name, uid = identity_.uid, username, password;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("instance", name, names::fault_of_label);
        reader.text("uid", uid, names::fault_of_id);
        reader.required_text("username", username, names::fault_of_account);
        reader.required_text("password", password);
        if (!reader.finish())
            return invalid_params(error, fault);
        std::shared_ptr<Instance> const instance = record()->find(TYPE, name);
        if (!instance)
            return not_found("instance " + name, fault);
        auto const handler = Instance_Manager::instance()->get_handler(TYPE);
        if (handler &&
            handler->logon(name.c_str(), username.c_str(), password.c_str(), nullptr) != 0)
            return refused("the instance " + name + " does not take the account " + username +
                               "; look at user and password, and whether the database runs",
                           fault);
        if (!Instance_Manager::instance()->save_account(
                TYPE, name.c_str(), uid.c_str(), {{"username", username}, {"password", password}}))
            return failed(fault);
        if (handler)
            Instance_Manager::instance()->update_instance_options(instance, handler.get());
        std::fill(password.begin(), password.end(), '\0');
        result = Object();
        return true;
    }

private:
    static std::shared_ptr<Instance_Backend> record() {
        return Host_Services::instance().instances();
    }
    static Array alerts() {
        Array alerts;
        if (auto const handler = Instance_Manager::instance()->get_handler(TYPE))
            for (Instance_Alert const& alert : handler->alerts())
                alerts.emplace_back(Object{{"instance", alert.instance}, {"text", alert.text}});
        return alerts;
    }
    static bool failed(Method_Fault& fault) {
        fault.message = "the record of instances could not be changed; the agent's log says why";
        return false;
    }
    /** The instance that the one parameter names; null with a fault. */
    static std::shared_ptr<Instance> named(Method_Call const& call, Method_Fault& fault) {
        std::string name;
        if (!only_name(call, "instance", names::fault_of_label, name, fault))
            return nullptr;
        std::shared_ptr<Instance> instance = record()->find(TYPE, name);
        if (!instance)
            (void)not_found("instance " + name, fault);
        return instance;
    }
    Object describe(Instance const& instance, bool with_state) const {
        std::string state;
        if (with_state)
            if (auto const handler = Instance_Manager::instance()->get_handler(TYPE))
                handler->get_state(instance.name.c_str(), state);
        Object options = instance.options;
        options.erase("password"); // kept encrypted, and nobody's business
        Object described{{"name", instance.name},
                         {"type", instance.type},
                         {"uuid", instance.uuid},
                         {"state", state},
                         {"options", options}};
        describe_kind(instance, described);
        return described;
    }
    /** Adds flavour and version: the module's words, or as the record has them. */
    void describe_kind(Instance const& instance, Object& described) const {
        Value version;
        std::string edition;
        Database_Flavour flavour;
        if (guide_) {
            Database_Guide::Identity const identity = guide_->identify(instance);
            for (Database_Flavour const& one : guide_->flavours())
                if (one.code == identity.flavour)
                    flavour = one;
            version = identity.flavour ? Value(identity.flavour) : Value();
            edition = identity.edition;
        } else {
            instance.get_option("version", version);
            instance.get_option("edition", edition);
        }
        json_spirit::insert(described)("version", version)("edition", edition)(
            "flavour", flavour.name)("usual_options", flavour.usual_options);
    }

    Agent_Identity const& identity_;
    Instance_Probe& probe_;
    std::shared_ptr<Database_Guide> const guide_;
};

/** The instance that a call names; "" without one. */
std::string instance_of(Value const& params) {
    return params.type() == json_spirit::obj_type
               ? json_spirit::object_get_str(params.get_obj(), "instance")
               : "";
}

} // namespace

void note_tool_calls(Method_Table& methods, std::vector<std::string> const& module_methods) {
    for (std::string const& method : module_methods)
        if (method != "gaussdb.roach_source") // which asks no tool, and backups wait for it
            methods.may_wait_for_tools(method, instance_of);
    methods.may_wait_for_tools("instance.show", instance_of);
    methods.may_wait_for_tools("instance.try", instance_of);
    methods.may_wait_for_tools("account.save", instance_of);
    methods.may_wait_for_tools("instance.list", [](Value const& params) {
        bool refresh = false;
        bool const given = params.type() == json_spirit::obj_type &&
                           json_spirit::object_get(params.get_obj(), "refresh", refresh);
        return given && refresh ? std::optional<std::string>("") : std::nullopt;
    });
    methods.may_wait_for_tools("guide.backup", [](Value const&) { return std::string(); });
    methods.may_wait_for_tools("guide.instance", instance_of);
    methods.may_wait_for_tools("agent.check", [](Value const&) { return std::string(); });
}

bool may_remove_instance(Agent_Jobs& runs, Method_Call const& call, Method_Fault& fault) {
    if (call.method != "instance.remove" && call.method != "gaussdb.remove_instance")
        return true;
    std::string const instance = instance_of(call.params);
    for (Job_Run const& run : runs.running())
        if (run.instance == instance)
            return refused("job " + run.run_id +
                               " of it is running or waits; wait for its end or cancel it",
                           fault);
    return true;
}

void add_instance_methods(Method_Table& methods, Agent_Identity const& identity,
                          Instance_Probe& probe, std::shared_ptr<Database_Guide> guide) {
    auto const instances = std::make_shared<Instance_Methods>(identity, probe, std::move(guide));
    add_member_methods<Instance_Methods>(methods, instances,
                                         {{"instance.list", &Instance_Methods::list},
                                          {"instance.show", &Instance_Methods::show},
                                          {"instance.save", &Instance_Methods::save},
                                          {"instance.try", &Instance_Methods::try_options},
                                          {"instance.remove", &Instance_Methods::remove},
                                          {"account.save", &Instance_Methods::save_account}});
}
