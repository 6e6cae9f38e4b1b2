// Instances: those that are found and those that are declared, their databases and accounts.
#include "agent/cli/check_command.h"
#include "agent/cli/commands.h"
#include "agent/cli/consequences.h"
#include "agent/cli/password.h"
#include "agent/cli/question.h"
#include "agent/cli/results.h"
#include "qmrt/names.h"

#include <algorithm>
#include <ctime>
#include <unistd.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char LIST_INSTANCES[] = "`zenbrak3 instances` lists the instances.";
constexpr char USUAL_PORT[] = "9500";

/** A line for each thing about the instances that is wrong. */
std::string instance_alerts_text(Object const& result) {
    std::string text;
    Array const alerts = array_of(result, "alerts");
    for (Object const& alert : json_spirit::objects_of(alerts))
        text += "Alert: " + value_text(json_spirit::object_get_any(alert, "text")) + "\n";
    return text.empty() ? text : "\n" + text;
}

/** The name in an element of a list: a text, or an object with a "name". */
Value const& name_in(Value const& element) {
    return element.type() == json_spirit::obj_type
               ? json_spirit::object_get_any(element.get_obj(), "name")
               : element;
}

/** Why a list of databases or schemas failed: often no account has been saved. */
int tell_list_failure(Command_Context& context, std::string const& instance,
                      std::string const& doing, Rpc_Error const& error) {
    constexpr char NO_ACCOUNT[] = "get login info fail"; // the module's words
    bool const has_no_account = error.message.find(NO_ACCOUNT) != std::string::npos ||
                                (error.data.type() == json_spirit::str_type &&
                                 error.data.get_str().find(NO_ACCOUNT) != std::string::npos);
    if (!has_no_account)
        return context.fail_to(doing, error, LIST_INSTANCES);
    if (!is_known(context, "instance", instance, doing))
        return context.status();
    return context.fail(EXIT_REFUSED,
                        "cannot " + doing + ": no account of " + instance + " is saved",
                        "`zenbrak3 account " + instance + " USER` saves one.");
}

int list_names(Command_Context& context, Object params, std::string const& uid,
               std::string const& doing, char const* key) {
    std::string owner;
    if (!find_uid(context, uid, owner))
        return context.status();
    params["uid"] = owner;
    Table table(std::vector<Column>{{"NAME", "name"}});
    if (!choose(context, table))
        return context.status();
    Value answer;
    Rpc_Error error;
    if (!context.try_to_ask("gaussdb.list", params, answer, error))
        return tell_list_failure(context, json_spirit::object_get_str(params, "instance"), doing,
                                 error);
    if (answer.type() != json_spirit::obj_type)
        return context.fail(EXIT_FAILED,
                            "cannot " + doing +
                                ": the agent's answer to gaussdb.list is not an object");
    Object result = answer.get_obj();
    for (Value const& element : array_of(result, key))
        table.add(Object{{"name", name_in(element)}}, element);
    result[key] = table.rows();
    std::string text; // one name a line, for scripts
    for (Value const& element : table.rows())
        text += value_text(name_in(element)) + "\n";
    if (context.json())
        context.print_json(result);
    else
        context.print(text);
    return EXIT_OK;
}

// clusters that are reached by ssh

Object host_key_of(Object const& tried) {
    Object key;
    json_spirit::object_get(tried, "host_key", key);
    return key;
}

/** Reads what is missing on a terminal, by a rule. @param usual  for an empty line; "" for none */
bool ask_for(Command_Context& context, std::string const& prompt, char const* usual,
             names::Rule rule, std::string& answer, int& status) {
    std::string const question = prompt + (*usual ? std::string(" [") + usual + "]" : "") + ": ";
    if (read_line(question, answer) != Line_End::LINE) {
        Command_Context::tell("\nNothing was changed.\n");
        status = EXIT_INTERRUPTED;
        return false;
    }
    if (answer.empty())
        answer = usual;
    std::string const fault = rule(answer);
    if (fault.empty())
        return true;
    status = context.fail(EXIT_USAGE, "'" + names::shown(answer) + "' " + fault);
    return false;
}

std::string fault_of_port(std::string_view text) {
    bool const is_number = !text.empty() && text.size() < 6 &&
                           text.find_first_not_of("0123456789") == std::string_view::npos;
    unsigned long const number = is_number ? std::stoul(std::string(text)) : 0;
    return number > 0 && number < 65536 ? "" : "is not a port (expected 1 to 65535)";
}

/** Something that a cluster's record must have, and how it is asked for. */
struct Needed {
    char const* key;
    char const* flag;
    char const* prompt;
    char const* usual;
    names::Rule rule;
};
constexpr Needed NEEDED[] = {
    {"address", "--address", "Where ssh logs in, HOST or ACCOUNT@HOST", "",
     names::fault_of_ssh_address},
    {"meta_path", "--meta-path", "The backup tool's metadata directory on the nodes", "",
     names::fault_of_bare_path},
    {"backup_port", "--backup-port", "Port of the backup tool's master on the node", USUAL_PORT,
     fault_of_port}};

/** Shell text to which another command can be added. */
std::string as_prefix(std::string commands) {
    commands.erase(commands.find_last_not_of(' ') + 1);
    return commands.empty() || commands.ends_with(';') ? commands : commands + ";";
}

/** A node that is switched off ends a run within a minute, and does not hold it for ever. */
constexpr char USUAL_SSH_OPTIONS[] =
    "-o ConnectTimeout=15 -o ServerAliveInterval=15 -o ServerAliveCountMax=4";

Object options_of(Declared_Instance const& wishes) {
    Object options;
    json_spirit::insert(options)("address", json_spirit::Skip_Empty_Helper(wishes.address))(
        "meta_path", json_spirit::Skip_Empty_Helper(wishes.meta_path));
    if (wishes.backup_port > 0)
        options["backup_port"] = wishes.backup_port;
    if (wishes.source_commands)
        options["source_commands"] = as_prefix(*wishes.source_commands);
    if (wishes.ssh_options)
        options["ssh_options"] = *wishes.ssh_options;
    return options;
}

/** Completes the options on a terminal; elsewhere all have to be given. */
bool complete(Command_Context& context, std::string const& doing, Object& options, int& status) {
    for (Needed const& needed : NEEDED) {
        if (options.count(needed.key))
            continue;
        if (!isatty(STDIN_FILENO)) {
            status = context.fail(EXIT_USAGE, "cannot " + doing + ": " + needed.flag +
                                                  " is missing, and stdin is not a terminal");
            return false;
        }
        std::string answer;
        if (!ask_for(context, needed.prompt, needed.usual, needed.rule, answer, status))
            return false;
        options[needed.key] =
            needed.rule == fault_of_port ? Value(std::stoi(answer)) : Value(answer);
    }
    return true;
}

/** Shows an unknown host key and asks whether it is the right one. */
bool accepts_key(Command_Context& context, std::string const& doing, std::string const& address,
                 Object const& key, int& status) {
    std::string const fingerprint = printable(json_spirit::object_get_str(key, "fingerprint"));
    std::string const shown =
        printable(json_spirit::object_get_str(key, "type")) + " " + fingerprint;
    std::string const compare = "Compare it on that host: ssh-keygen -l -f "
                                "/etc/ssh/ssh_host_ed25519_key.pub (or the one of its type).";
    if (!isatty(STDIN_FILENO)) {
        status = context.fail(EXIT_REFUSED,
                              "cannot " + doing + ": the host key of " + address +
                                  " is unknown: " + shown,
                              compare + " --host-key " + fingerprint + " accepts it.");
        return false;
    }
    std::string answer;
    Line_End const end =
        read_line("The host key of " + printable(address) + " is unknown: " + shown + "\n" +
                      compare + "\nIs it that host's key? [y/N] ",
                  answer);
    if (end == Line_End::LINE && is_yes(answer))
        return true;
    Command_Context::tell(end == Line_End::LINE ? "Nothing was changed.\n"
                                                : "\nNothing was changed.\n");
    status = end == Line_End::INTERRUPTED ? EXIT_INTERRUPTED : EXIT_REFUSED;
    return false;
}

/** Tries the options of a cluster, and says what was found. @param tried  the agent's answer */
bool try_options(Command_Context& context, std::string const& doing, Object const& options,
                 std::string const& host_key, Object& tried, int& status) {
    Object params{{"options", options}};
    if (!host_key.empty())
        params["accept_host_key"] = host_key;
    std::string const address = json_spirit::object_get_str(options, "address");
    if (!context.ask("instance.try", params, doing, tried)) {
        status = context.status();
        return false;
    }
    Object const key = host_key_of(tried);
    if (json_spirit::object_get_str(key, "state") == "unknown") {
        if (!accepts_key(context, doing, address, key, status))
            return false;
        params["accept_host_key"] = json_spirit::object_get_str(key, "fingerprint");
        if (!context.ask("instance.try", params, doing, tried)) {
            status = context.status();
            return false;
        }
    }
    bool ok = false;
    json_spirit::object_get(tried, "ok", ok);
    if (!context.json())
        context.print(check_text(tried));
    else if (!ok)
        context.print_json(tried);
    if (!ok)
        status = context.fail(EXIT_FAILED, "cannot " + doing + ": the trial failed",
                              "Do what the lines say and try again; nothing was recorded.");
    return ok;
}

/** What a trial has found of something: flavour and version of the database. */
std::string found_text(Object const& tried, char const* subject) {
    Array const lines = array_of(tried, "lines");
    for (Object const& line : json_spirit::objects_of(lines))
        if (json_spirit::object_get_str(line, "subject") == subject)
            return json_spirit::object_get_str(line, "text");
    return "";
}

/** Also the trial, for JSON. */
int declared(Command_Context& context, Object tried, Value const& result, std::string const& what) {
    tried["result"] = result;
    return done(context, tried,
                what + ": " + found_text(tried, "database") +
                    ", nodes: " + found_text(tried, "nodes") + ".");
}

} // namespace

bool find_uid(Command_Context& context, std::string const& wish, std::string& uid) {
    uid = wish;
    if (!uid.empty())
        return true;
    Object info;
    if (!context.ask("agent.info", Object(), "ask the agent for its default user", info))
        return false;
    uid = json_spirit::object_get_str(info, "uid");
    return true;
}

int add_instance(Command_Context& context, std::string const& instance,
                 Declared_Instance const& wishes) {
    if (std::string const fault = names::fault_of_instance(instance); !fault.empty())
        return context.fail(EXIT_USAGE, "'" + names::shown(instance) +
                                            "' cannot name an instance: it " + fault);
    std::string const doing = "add instance " + instance;
    int status = EXIT_OK;
    Object options = options_of(wishes), tried;
    Value known, result;
    if (context.try_to_ask("instance.show", Object{{"instance", instance}}, known))
        return context.fail(EXIT_REFUSED, "cannot " + doing + ": it is on record already",
                            "`zenbrak3 instance change` changes it.");
    options.try_emplace("ssh_options", USUAL_SSH_OPTIONS);
    if (!complete(context, doing, options, status) ||
        !try_options(context, doing, options, wishes.host_key, tried, status))
        return status;
    Object params = options;
    params["name"] = instance;
    std::string uid;
    if (!find_uid(context, wishes.uid, uid))
        return context.status();
    params["uid"] = uid;
    if (!context.ask("gaussdb.create_instance", params, doing, result))
        return context.status();
    return declared(context, tried, result, "Instance " + instance + " is on record");
}

int change_instance(Command_Context& context, std::string const& instance,
                    Declared_Instance const& wishes) {
    std::string const doing = "change instance " + instance;
    Object const changes = options_of(wishes);
    if (changes.empty() && wishes.host_key.empty())
        return context.fail(EXIT_USAGE, "nothing to change in instance " + instance +
                                            ": name at least one option (see instance change "
                                            "--help)");
    Object record, tried;
    Value result;
    if (!context.ask("gaussdb.get_instance", Object{{"instance", instance}}, doing, record,
                     LIST_INSTANCES))
        return context.status();
    if (json_spirit::object_get_str(record, "address").empty())
        return context.fail(EXIT_REFUSED,
                            "cannot " + doing + ": it is not a cluster that is reached by ssh",
                            "`zenbrak3 instance save` changes the options of others.");
    Object options;
    for (char const* key :
         {"address", "meta_path", "backup_port", "source_commands", "ssh_options", "version"})
        if (record.count(key))
            options[key] = record.at(key);
    for (auto const& [key, value] : changes)
        options[key] = value;
    int status = EXIT_OK;
    if (!try_options(context, doing, options, wishes.host_key, tried, status))
        return status;
    Object params = changes;
    params["name"] = instance;
    if (!context.ask("gaussdb.modify_instance", params, doing, result))
        return context.status();
    return declared(context, tried, result, "Instance " + instance + " is changed");
}

int list_instances(Command_Context& context, bool refresh, double interval) {
    std::vector<Column> columns{{"NAME", "name"},
                                {"FLAVOUR", "flavour", Form::WORD},
                                {"VERSION", "edition"},
                                {"LAST BACKUP", "last_backup", Form::TIME},
                                {"AGE", "age", Form::DURATION},
                                {"UUID", "uuid"}};
    if (refresh)
        columns.insert(columns.begin() + 1, {"STATE", "state"});
    Table empty(columns);
    empty.add_extra({{"TYPE", "type"}, {"LEVEL", "last_backup_level"}});
    return context.show(interval, [&](std::string& text) {
        Object answer;
        Table table = empty;
        if (!choose(context, table) || !context.ask("instance.list", Object{{"refresh", refresh}},
                                                    "list the instances", answer))
            return false;
        Array const instances = array_of(answer, "instances");
        int64_t const now = time(nullptr);
        for (Object const& instance : json_spirit::objects_of(instances)) {
            Object shown = instance;
            if (int64_t const last = number_of(instance, "last_backup"); last > 0)
                shown["age"] = std::max<int64_t>(now - last, 0);
            table.add(shown, instance);
        }
        text =
            text_of_list(context, answer, "instances", table,
                         "No instances are known; `zenbrak3 instances --refresh` looks for them.");
        if (!context.json())
            text += instance_alerts_text(answer);
        return true;
    });
}

int show_instance(Command_Context& context, std::string const& instance) {
    Object found;
    if (!context.ask("instance.show", Object{{"instance", instance}}, "show instance " + instance,
                     found, LIST_INSTANCES))
        return context.status();
    return show_object(context, found,
                       {{"Name", "name"},
                        {"Type", "type"},
                        {"UUID", "uuid"},
                        {"State", "state"},
                        {"Flavour", "flavour"},
                        {"Version", "edition"},
                        {"Last backup", "last_backup", Form::TIME},
                        {"Its level", "last_backup_level"},
                        {"Accounts", "accounts"},
                        {"Options", "options"}},
                       {"version", "usual_options"});
}

int save_instance(Command_Context& context, std::string const& instance,
                  std::vector<std::string> const& options) {
    if (std::string const fault = names::fault_of_instance(instance); !fault.empty())
        return context.fail(EXIT_USAGE, "'" + names::shown(instance) +
                                            "' cannot name an instance: it " + fault);
    Object read;
    std::string error;
    for (std::string const& option : options)
        if (!read_option(option, read, error))
            return context.fail(EXIT_USAGE, error);
    Object result;
    Object const params{{"name", instance}, {"type", "gaussdb"}, {"options", read}};
    if (!context.ask("instance.save", params, "save instance " + instance, result))
        return context.status();
    return done(context, result, "Instance " + instance + " is on record.");
}

int remove_instance(Command_Context& context, std::string const& instance, Consent const& consent) {
    int status = EXIT_OK;
    if (!consents(context, consent, instance_consequences(context, instance), status))
        return status;
    Value found;
    Object options;
    bool manual = false; // declared, and not found on a host
    if (context.try_to_ask("instance.show", Object{{"instance", instance}}, found) &&
        found.type() == json_spirit::obj_type &&
        json_spirit::object_get(found.get_obj(), "options", options))
        json_spirit::object_get(options, "manual", manual);
    Value result;
    if (!context.ask(manual ? "gaussdb.remove_instance" : "instance.remove",
                     Object{{"instance", instance}}, "remove instance " + instance, result,
                     LIST_INSTANCES))
        return context.status();
    return done(context, {}, "Instance " + instance + " and its accounts are forgotten.");
}

int list_databases(Command_Context& context, std::string const& instance, std::string const& uid) {
    return list_names(context, {{"instance", instance}}, uid, "list the databases of " + instance,
                      "databases");
}

int list_schemas(Command_Context& context, std::string const& instance, std::string const& database,
                 std::string const& uid) {
    return list_names(context, {{"instance", instance}, {"database", database}}, uid,
                      "list the schemas of database " + database + " of " + instance, "schemas");
}

int save_account(Command_Context& context, std::string const& instance, std::string const& username,
                 std::string const& uid) {
    secure_string password;
    std::string error;
    if (!read_password("Password of " + printable(username) + " on " + printable(instance) + ": ",
                       password, error))
        return error.empty() ? EXIT_INTERRUPTED
                             : context.fail(EXIT_USAGE, "no password was read: " + error);
    Object params{{"instance", instance}, {"username", username}, {"password", password}};
    if (!uid.empty())
        params["uid"] = uid;
    Object result;
    if (!context.ask("account.save", params, "save account " + username + " of " + instance, result,
                     LIST_INSTANCES))
        return context.status();
    return done(context, result, "Account " + username + " of " + instance + " is saved.");
}
