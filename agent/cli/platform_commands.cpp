// Management platforms and their instances.
#include "agent/cli/commands.h"
#include "agent/cli/password.h"
#include "agent/cli/results.h"
#include "host/agent/credential.h"
#include "qmrt/names.h"

#include <algorithm>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char LOOK_AT_LOGIN[] =
    "Look at host, port, user and password. A certificate of an authority that this host does not "
    "know needs ca_file under [platform] in the agent's configuration.";

/** Reads HOST, HOST:PORT, [ADDRESS] or [ADDRESS]:PORT. @return "" or why the text is invalid */
std::string read_endpoint(std::string const& text, std::string& host, int& port) {
    size_t colon = text.rfind(':');
    bool const is_bracketed = text.starts_with('[');
    if (is_bracketed ? colon < text.find(']') : colon != text.find(':'))
        colon = std::string::npos; // a part of the address
    host = text.substr(0, colon);
    if (is_bracketed && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    port = DEFAULT_PLATFORM_PORT;
    if (colon != std::string::npos) {
        std::string const number = text.substr(colon + 1);
        bool const is_number = !number.empty() && number.size() < 6 &&
                               number.find_first_not_of("0123456789") == std::string::npos;
        port = is_number ? std::stoi(number) : 0;
        if (port < 1 || port > 65535)
            return "'" + names::shown(number) + "' is not a port (expected 1 to 65535)";
    }
    std::string const fault = names::fault_of_host(host);
    return fault.empty() ? fault : "'" + names::shown(host) + "' " + fault;
}

/** Asks for the password and makes the members of a login. */
bool read_login(Command_Context& context, Platform_Login const& wishes, Object& login,
                int& status) {
    std::string host, error;
    int port = 0;
    if (std::string const fault = read_endpoint(wishes.endpoint, host, port); !fault.empty()) {
        status = context.fail(EXIT_USAGE, fault);
        return false;
    }
    secure_string password;
    if (!read_password("Password of " + printable(wishes.username) + " on " + printable(host) +
                           ": ",
                       password, error)) {
        status = error.empty() ? int{EXIT_INTERRUPTED}
                               : context.fail(EXIT_USAGE, "no password was read: " + error);
        return false;
    }
    std::string const enciphered = encrypt_string(
        std::string_view(password.data(), password.size()), CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH);
    if (enciphered.empty()) {
        status = context.fail(EXIT_FAILED, "the password cannot be enciphered");
        return false;
    }
    login = {{"tpops_host", host},
             {"tpops_port", port},
             {"tpops_ssl", !wishes.no_tls},
             {"username", wishes.username},
             {"password", enciphered}};
    return true;
}

/** What the platform offers. */
bool ask_platform(Command_Context& context, Platform_Login const& wishes, std::string const& doing,
                  Object& login, Array& offered, int& status) {
    if (!read_login(context, wishes, login, status))
        return false;
    Value answer;
    if (!context.ask("gaussdb.list_tpops_instances", login, doing, answer)) {
        status = context.status();
        if (status == EXIT_FAILED)
            Command_Context::tell(std::string(LOOK_AT_LOGIN) + "\n");
        return false;
    }
    if (answer.type() == json_spirit::array_type)
        offered = answer.get_array();
    return true;
}

/** The names of the instances that are on record. */
bool find_recorded(Command_Context& context, std::vector<std::string>& recorded) {
    Object answer;
    if (!context.ask("instance.list", Object(), "list the instances on record", answer))
        return false;
    Array const instances = array_of(answer, "instances");
    for (Object const& instance : json_spirit::objects_of(instances))
        recorded.push_back(json_spirit::object_get_str(instance, "name"));
    return true;
}

/** Chooses from the offered instances: by name, or all that can be added. */
class Choice {
public:
    Choice(Array const& offered, std::vector<std::string> const& recorded)
        : offered_(offered), recorded_(recorded) {}

    /** @return "" or why the instance cannot be chosen */
    std::string take(std::string const& name) {
        for (Object const& instance : json_spirit::objects_of(offered_))
            if (json_spirit::object_get_str(instance, "name") == name)
                return take(instance);
        return "the platform does not offer it to this user";
    }
    void take_all() {
        for (Object const& instance : json_spirit::objects_of(offered_))
            if (std::string const fault = take(instance); !fault.empty())
                left_out_ += "Left out " +
                             printable(json_spirit::object_get_str(instance, "name")) + ": " +
                             printable(fault) + ".\n";
    }
    Array const& chosen() const { return chosen_; }
    std::string const& left_out() const { return left_out_; }

private:
    std::string take(Object const& instance) {
        std::string const name = json_spirit::object_get_str(instance, "name");
        if (std::string const fault = names::fault_of_instance(name); !fault.empty())
            return "its name " + fault + "; rename it on the platform";
        if (std::string const fault =
                names::fault_of_id(json_spirit::object_get_str(instance, "id"));
            !fault.empty())
            return "its id " + fault;
        if (std::ranges::count(recorded_, name))
            return "an instance of this name is on record already";
        recorded_.push_back(name);
        chosen_.emplace_back(instance);
        return "";
    }

    Array const& offered_;
    std::vector<std::string> recorded_; ///< and those chosen
    Array chosen_;
    std::string left_out_;
};

std::string names_of(Array const& instances) {
    std::string text;
    for (Object const& instance : json_spirit::objects_of(instances))
        text +=
            (text.empty() ? "" : ", ") + printable(json_spirit::object_get_str(instance, "name"));
    return text;
}

} // namespace

int list_platform(Command_Context& context, Platform_Login const& wishes) {
    Object login;
    Array offered;
    int status = EXIT_OK;
    if (!ask_platform(context, wishes, "list the instances of platform " + wishes.endpoint, login,
                      offered, status))
        return status;
    Table table({{"NAME", "name"},
                 {"STATUS", "status"},
                 {"TYPE", "type"},
                 {"VERSION", "version"},
                 {"NODES", "node_count"},
                 {"ID", "id"}});
    if (!choose(context, table))
        return context.status();
    table.add(offered);
    if (context.json())
        context.print_json(Object{{"instances", table.rows()}});
    else
        context.print(table.text(context.terminal()));
    return EXIT_OK;
}

int add_from_platform(Command_Context& context, Platform_Login const& wishes,
                      Platform_Addition const& addition) {
    std::string const doing = "add instances of platform " + wishes.endpoint;
    Object params;
    Array offered;
    std::vector<std::string> recorded;
    std::string uid = addition.uid;
    int status = EXIT_OK;
    if (!find_recorded(context, recorded) || !find_uid(context, addition.uid, uid))
        return context.status();
    if (!ask_platform(context, wishes, doing, params, offered, status))
        return status;
    Choice choice(offered, recorded);
    if (addition.all)
        choice.take_all();
    for (std::string const& name : addition.names)
        if (std::string const fault = choice.take(name); !fault.empty())
            return context.fail(EXIT_REFUSED, "cannot add instance " + name + ": " + fault,
                                "`zenbrak3 platform list` shows what there is. Nothing was added.");
    Command_Context::tell(choice.left_out());
    if (choice.chosen().empty())
        return context.fail(EXIT_REFUSED,
                            "cannot " + doing +
                                ": the platform offers no instance that is not on record");
    params["uid"] = uid;
    params["instances"] = choice.chosen();
    params["xbsa_host"] = addition.xbsa_host;
    params["xbsa_port"] = addition.xbsa_port;
    params["xbsa_ssl"] = !addition.no_xbsa_tls;
    Value answer;
    if (!context.ask("gaussdb.add_tpops_instances", params, doing, answer))
        return context.status();
    size_t const added = answer.type() == json_spirit::array_type ? answer.get_array().size() : 0;
    if (added < choice.chosen().size())
        return context.fail(EXIT_FAILED,
                            "only " + std::to_string(added) + " of " +
                                std::to_string(choice.chosen().size()) + " instances were added",
                            "The agent's log says why: journalctl -u zenbrak3-agent");
    return done(context, Object{{"uuids", answer}, {"instances", choice.chosen()}},
                "On record: " + names_of(choice.chosen()) +
                    ". `zenbrak3 check INSTANCE` says what a backup still needs.");
}

int change_platform(Command_Context& context, std::string const& instance,
                    Platform_Change const& wishes) {
    std::string const doing = "change instance " + instance;
    Object params;
    if (!wishes.endpoint.empty()) {
        std::string host;
        int port = 0;
        if (std::string const fault = read_endpoint(wishes.endpoint, host, port); !fault.empty())
            return context.fail(EXIT_USAGE, fault);
        params["tpops_host"] = host;
        params["tpops_port"] = port;
    }
    if (wishes.tls || wishes.no_tls)
        params["tpops_ssl"] = wishes.tls;
    if (!wishes.xbsa_host.empty())
        params["xbsa_host"] = wishes.xbsa_host;
    if (wishes.xbsa_port > 0)
        params["xbsa_port"] = wishes.xbsa_port;
    if (wishes.xbsa_tls || wishes.no_xbsa_tls)
        params["xbsa_ssl"] = wishes.xbsa_tls;
    if (params.empty())
        return context.fail(EXIT_USAGE, "nothing to change in instance " + instance +
                                            ": name at least one option (see platform change "
                                            "--help)");
    Object record, options;
    if (!context.ask("instance.show", Object{{"instance", instance}}, doing, record,
                     "`zenbrak3 instances` lists the instances."))
        return context.status();
    json_spirit::object_get(record, "options", options);
    if (!options.count("tpops_host"))
        return context.fail(EXIT_REFUSED,
                            "cannot " + doing + ": it is not an instance of a platform",
                            "`zenbrak3 instance change` changes a cluster that is reached by ssh.");
    params["name"] = instance;
    Value result;
    if (!context.ask("gaussdb.modify_instance", params, doing, result))
        return context.status();
    return done(context, Object{{"result", result}}, "Instance " + instance + " is changed.");
}
