// What there is: the agent, its instances, accounts, pools, backups and definitions.
#include "agent/cli/commands.h"
#include "agent/cli/consequences.h"
#include "agent/cli/definition_file.h"
#include "agent/cli/password.h"
#include "agent/cli/table.h"
#include "host/http/http_encode.h"
#include "json_spirit/text.h"
#include "qmrt/names.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char LIST_INSTANCES[] = "`zenbrak3 instances` lists the instances.";
constexpr char LIST_POOLS[] = "`zenbrak3 pools` lists the pools.";
constexpr char LIST_MEMBERS[] = "`zenbrak3 members` lists the members.";
constexpr char LIST_BACKUPS[] = "`zenbrak3 backups` lists the backups.";
constexpr char LIST_DEFINITIONS[] = "`zenbrak3 definitions` lists the definitions.";

/** The array under a key; empty when there is none. */
Array array_of(Object const& object, char const* key) {
    Array array;
    json_spirit::object_get(object, key, array);
    return array;
}

/**
 * Asks for a list and makes its text: JSON, a table, or a sentence when there is nothing.
 * @param answer  if not null and the text is not JSON, set to what was answered
 */
bool list_text(Command_Context& context, std::string const& method, Object const& params,
               std::string const& doing, char const* key, Table table, char const* none,
               std::string& text, Object* answer = nullptr) {
    Object result;
    if (!context.ask(method, params, doing, result))
        return false;
    if (context.json()) {
        text = printable_json(json_spirit::to_text(result, true));
        return true;
    }
    table.add(array_of(result, key));
    // what reads a pipe gets a table without rows
    text = table.empty() && context.terminal().interactive ? std::string(none) + "\n"
                                                           : table.text(context.terminal());
    if (answer)
        *answer = std::move(result);
    return true;
}

/** A line for each thing about the instances that is wrong. */
std::string instance_alerts_text(Object const& result) {
    std::string text;
    Array const alerts = array_of(result, "alerts");
    for (Object const& alert : json_spirit::objects_of(alerts))
        text += "Alert: " + value_text(json_spirit::object_get_any(alert, "text")) + "\n";
    return text.empty() ? text : "\n" + text;
}

/** An object of the result by its fields, or as JSON. */
int show_object(Command_Context& context, Object const& object, std::vector<Column> const& fields,
                std::vector<std::string> const& left_out = {}) {
    if (context.json())
        context.print_json(object);
    else
        context.print(fields_text(object, fields, left_out));
    return EXIT_OK;
}

/** Says what has been done, or prints the result. */
int done(Command_Context& context, Object const& result, std::string const& what) {
    if (context.json())
        context.print_json(result);
    else
        context.print(printable(what) + "\n");
    return EXIT_OK;
}

/** As done(); a warning of the answer is told besides. */
int done_with_pool(Command_Context& context, Object const& pool, std::string const& what) {
    std::string const warning = json_spirit::object_get_str(pool, "warning");
    return done(context, pool, warning.empty() ? what : what + "\nWarning: " + warning + ".");
}

/** The user on whose behalf this is: @a wish, else the agent's own default. */
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

/** One name a line: elements are texts, or objects with a "name". */
std::string names_text(Array const& names) {
    std::string text;
    for (Value const& element : names) {
        Value const& name = element.type() == json_spirit::obj_type
                                ? json_spirit::object_get_any(element.get_obj(), "name")
                                : element;
        text += value_text(name) + "\n";
    }
    return text;
}

int list_names(Command_Context& context, Object params, std::string const& uid,
               std::string const& doing, char const* key) {
    std::string owner;
    if (!find_uid(context, uid, owner))
        return context.status();
    params["uid"] = owner;
    Object result;
    if (!context.ask("gaussdb.list", params, doing, result, LIST_INSTANCES))
        return context.status();
    if (context.json())
        context.print_json(result);
    else
        context.print(names_text(array_of(result, key)));
    return EXIT_OK;
}

std::string check_line(Object const& line) {
    bool ok = false;
    json_spirit::object_get(line, "ok", ok);
    std::string text = (ok ? "ok    " : "FAIL  ") +
                       value_text(json_spirit::object_get_any(line, "subject")) + ": " +
                       value_text(json_spirit::object_get_any(line, "text")) + "\n";
    std::string const advice = json_spirit::object_get_str(line, "advice");
    return advice.empty() ? text : text + "      -> " + printable(advice) + "\n";
}

bool read_wishes(Pool_Wishes const& wishes, Object& params, std::string& error) {
    if (!wishes.name.empty())
        params["name"] = wishes.name;
    if (!wishes.url.empty())
        params["url"] = wishes.url.starts_with('/') ? "file://" + http_encode_string(wishes.url, 0)
                                                    : wishes.url;
    if (!wishes.compression.empty()) {
        params["compression_level"] = 0; // the method's usual one
        if (!read_compression(wishes.compression, params)) {
            error = "'" + wishes.compression +
                    "' is no compression: none, zstd[:LEVEL], lzop[:LEVEL] and auto are";
            return false;
        }
    }
    uint64_t limit = 0;
    if (!wishes.limit.empty()) {
        if (!read_size(wishes.limit, limit)) {
            error = "'" + wishes.limit + "' is no size: 500GiB, 2T or bytes are";
            return false;
        }
        params["limit"] = limit;
    }
    if (wishes.separate)
        params["separate"] = true;
    if (wishes.read_only || wishes.writable)
        params["read_only"] = wishes.read_only;
    return true;
}

} // namespace

int show_info(Command_Context& context) {
    Object info;
    if (!context.ask("agent.info", Object(), "ask the agent about itself", info))
        return context.status();
    return show_object(context, info,
                       {{"Name", "name"},
                        {"UUID", "uuid"},
                        {"Version", "version"},
                        {"Component", "component"},
                        {"Process", "pid"},
                        {"Started", "started", Form::TIME},
                        {"Data directory", "data_dir"},
                        {"Default user", "uid"},
                        {"Backup server", "backupd"}},
                       {"methods"});
}

int list_instances(Command_Context& context, bool refresh, double interval) {
    std::vector<Column> columns{{"NAME", "name"},
                                {"FLAVOUR", "version", Form::FLAVOUR},
                                {"VERSION", "edition"},
                                {"TYPE", "type"},
                                {"UUID", "uuid"}};
    if (refresh)
        columns.insert(columns.begin() + 1, {"STATE", "state"});
    return context.show(interval, [&](std::string& text) {
        Object answer;
        if (!list_text(context, "instance.list", {{"refresh", refresh}}, "list the instances",
                       "instances", Table(columns),
                       "No instances are known; `zenbrak3 instances --refresh` looks for them.",
                       text, &answer))
            return false;
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
                        {"Flavour", "version", Form::FLAVOUR},
                        {"Version", "edition"},
                        {"Accounts", "accounts"},
                        {"Options", "options"}});
}

int save_instance(Command_Context& context, std::string const& instance,
                  std::vector<std::string> const& options) {
    if (std::string const fault = names::fault_of_instance(instance); !fault.empty())
        return context.fail(EXIT_USAGE, "'" + names::shown(instance) +
                                            "' cannot name an instance: it " + fault);
    Object read;
    for (std::string const& option : options)
        if (!read_option(option, read))
            return context.fail(EXIT_USAGE, "'" + option + "' is no option: KEY=VALUE is wanted");
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
    Object result;
    if (!context.ask("instance.remove", Object{{"instance", instance}},
                     "remove instance " + instance, result, LIST_INSTANCES))
        return context.status();
    return done(context, result, "Instance " + instance + " and its accounts are forgotten.");
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

int check(Command_Context& context, std::string const& instance, std::string const& pool,
          std::string const& uid) {
    Object params;
    json_spirit::insert(params)("instance", json_spirit::Skip_Empty_Helper(instance))(
        "pool", json_spirit::Skip_Empty_Helper(pool))("uid", json_spirit::Skip_Empty_Helper(uid));
    Object result;
    if (!context.ask("agent.check", params, "check", result, LIST_INSTANCES))
        return context.status();
    if (context.json())
        context.print_json(result);
    Array const lines = array_of(result, "lines");
    for (Object const& line : json_spirit::objects_of(lines))
        if (!context.json())
            context.print(check_line(line));
    bool ok = false;
    json_spirit::object_get(result, "ok", ok);
    return ok ? EXIT_OK : EXIT_FAILED;
}

int list_pools(Command_Context& context, double interval) {
    return context.show(interval, [&](std::string& text) {
        return list_text(context, "pool.list", {}, "list the pools", "pools",
                         Table({{"NAME", "name"},
                                {"ONLINE", "online"},
                                {"USED", "used", Form::SIZE},
                                {"LIMIT", "limit", Form::LIMIT},
                                {"AVAILABLE", "available", Form::SIZE},
                                {"COMPRESSION", "compression"},
                                {"READ-ONLY", "read_only"},
                                {"URL", "url"},
                                {"UUID", "uuid"}}),
                         "No pools; `zenbrak3 pool create` creates one.", text);
    });
}

int create_pool(Command_Context& context, Pool_Wishes const& wishes) {
    Object params, pool;
    std::string error;
    if (!read_wishes(wishes, params, error))
        return context.fail(EXIT_USAGE, error);
    if (!context.ask("pool.create", params, "create pool " + wishes.name, pool))
        return context.status();
    return done_with_pool(context, pool, "Pool " + wishes.name + " is ready.");
}

int update_pool(Command_Context& context, std::string const& pool, Pool_Wishes const& wishes) {
    Object params, updated;
    std::string error;
    if (!read_wishes(wishes, params, error))
        return context.fail(EXIT_USAGE, error);
    if (params.empty())
        return context.fail(EXIT_USAGE, "nothing is said that pool " + pool + " is to change in");
    params["pool"] = pool;
    if (!context.ask("pool.update", params, "change pool " + pool, updated, LIST_POOLS))
        return context.status();
    return done_with_pool(context, updated, "Pool " + pool + " is changed.");
}

int remove_pool(Command_Context& context, std::string const& pool, Consent const& consent) {
    int status = EXIT_OK;
    if (!consents(context, consent, pool_consequences(context, pool), status))
        return status;
    Object result;
    if (!context.ask("pool.remove", Object{{"pool", pool}}, "remove pool " + pool, result,
                     LIST_POOLS))
        return context.status();
    return done(context, result, "Pool " + pool + " is removed.");
}

int list_members(Command_Context& context, double interval) {
    return context.show(interval, [&](std::string& text) {
        return list_text(context, "member.list", {}, "list the members", "members",
                         Table({{"NAME", "name"},
                                {"CONNECTED", "connected"},
                                {"LAST SEEN", "last_seen", Form::TIME},
                                {"HOST", "host"},
                                {"VERSION", "version"},
                                {"ALL POOLS", "all_pools"},
                                {"HOST UUID", "host_uuid"}}),
                         "No members; `zenbrak3 member add` creates a key for one.", text);
    });
}

int add_member(Command_Context& context, Member_Wishes const& wishes) {
    Object params{{"name", wishes.name}}, result;
    if (!wishes.host.empty())
        params["host"] = wishes.host;
    if (!wishes.pools.empty())
        params["pools"] = Array(wishes.pools.begin(), wishes.pools.end());
    if (wishes.all_pools)
        params["all_pools"] = true;
    if (!context.ask("member.add", params, "add member " + wishes.name, result, LIST_POOLS))
        return context.status();
    return done(context, result, json_spirit::object_get_str(result, "key"));
}

int remove_member(Command_Context& context, std::string const& member, Consent const& consent) {
    int status = EXIT_OK;
    if (!consents(context, consent, member_consequences(context, member), status))
        return status;
    Object result;
    if (!context.ask("member.remove", Object{{"member", member}}, "remove member " + member, result,
                     LIST_MEMBERS))
        return context.status();
    return done(context, result, "Member " + member + " is removed; its key opens nothing now.");
}

int list_backups(Command_Context& context, Backup_Filter const& filter, double interval) {
    Object params;
    json_spirit::insert(params)("instance", json_spirit::Skip_Empty_Helper(filter.instance))(
        "pool", json_spirit::Skip_Empty_Helper(filter.pool))(
        "type", json_spirit::Skip_Empty_Helper(filter.type));
    if (filter.limit > 0)
        params["limit"] = filter.limit;
    Table const table({{"BACKUP", "uuid", context.id_form()},
                       {"INSTANCE", "instance"},
                       {"TYPE", "type"},
                       {"ENDED", "backup_end_time", Form::TIME},
                       {"SIZE", "backup_set_size", Form::SIZE},
                       {"KEY", "backup_key"},
                       {"POOL", "pool_uuid", context.id_form()}});
    return context.show(interval, [&](std::string& text) {
        return list_text(context, "backup.list", params, "list the backups", "backups", table,
                         "No backups.", text);
    });
}

int show_backup(Command_Context& context, std::string const& backup) {
    Object found;
    if (!context.ask("backup.show", Object{{"backup", backup}}, "show backup " + backup, found,
                     LIST_BACKUPS))
        return context.status();
    show_object(context, found,
                {{"Backup", "uuid"},
                 {"Instance", "instance"},
                 {"Type", "type"},
                 {"Key", "backup_key"},
                 {"Continues", "prior_backup_key"},
                 {"Started", "backup_start_time", Form::TIME},
                 {"Ended", "backup_end_time", Form::TIME},
                 {"Database size", "source_size", Form::SIZE},
                 {"Size", "backup_set_size", Form::SIZE},
                 {"Flavour", "series", Form::FLAVOUR},
                 {"Version", "database_version"},
                 {"Compression", "compression"},
                 {"Host", "host"},
                 {"Job", "job_act_id"},
                 {"Depends on", "depends"}},
                {"storages", "pieces"});
    if (context.json())
        return EXIT_OK;
    Table storages({{"POOL", "pool_uuid"}, {"SIZE", "size", Form::SIZE}, {"COPY", "copy"}});
    storages.add(array_of(found, "storages"));
    Table pieces({{"SIZE", "size", Form::SIZE}, {"PIECE", "path"}});
    pieces.add(array_of(found, "pieces"));
    if (!storages.empty())
        context.print("\n" + storages.text(context.terminal()));
    if (!pieces.empty())
        context.print("\n" + pieces.text(context.terminal()));
    return EXIT_OK;
}

int remove_backup(Command_Context& context, std::string const& backup, bool dependents,
                  Consent const& consent) {
    Object found, params, result;
    std::string const doing = "remove backup " + backup;
    if (!context.ask("backup.show", Object{{"backup", backup}}, doing, found, LIST_BACKUPS))
        return context.status();
    int status = EXIT_OK;
    if (!consents(context, consent, backup_consequences(context, found, dependents), status))
        return status;
    params["backup"] = json_spirit::object_get_str(found, "uuid"); // the one that was shown
    if (dependents)
        params["dependents"] = true;
    if (!context.ask("backup.remove", params, doing, result, LIST_BACKUPS))
        return context.status();
    std::string list;
    for (Value const& uuid : array_of(result, "removed"))
        list += (list.empty() ? "" : ", ") + uuid.get_str();
    return done(context, result, "Removed: " + list);
}

int list_definitions(Command_Context& context, double interval) {
    return context.show(interval, [&](std::string& text) {
        return list_text(context, "definition.list", {}, "list the definitions", "definitions",
                         Table({{"NAME", "name"},
                                {"TYPE", "type"},
                                {"LEVEL", "subtype"},
                                {"STATE", "state"},
                                {"LAST RUN", "last_run", Form::TIME},
                                {"NEXT RUN", "next_run", Form::TIME},
                                {"ID", "id", context.id_form()}}),
                         "No definitions; `zenbrak3 definition save` creates one.", text);
    });
}

int show_definition(Command_Context& context, std::string const& definition) {
    Object found;
    if (!context.ask("definition.show", Object{{"definition", definition}},
                     "show definition " + definition, found, LIST_DEFINITIONS))
        return context.status();
    if (!context.json()) // what the agent adds is not for `definition save`
        for (char const* key : {"state", "last_run", "next_run"})
            found.erase(key);
    context.print_json(found);
    return EXIT_OK;
}

int save_definition(Command_Context& context, std::string const& file) {
    Object definition;
    Object result;
    if (!read_definition_file(context, file, definition) ||
        !context.ask("definition.save", definition, "save the definition", result))
        return context.status();
    return done(context, result,
                "Saved definition " + json_spirit::object_get_str(result, "id") + ".");
}

int remove_definition(Command_Context& context, std::string const& definition) {
    Object result;
    if (!context.ask("definition.remove", Object{{"definition", definition}},
                     "remove definition " + definition, result, LIST_DEFINITIONS))
        return context.status();
    return done(context, result, "Definition " + definition + " is removed.");
}

int print_names(Command_Context& context, std::string const& what) {
    struct List {
        char const* name;
        char const* method;
        char const* key;
    };
    static constexpr List LISTS[] = {
        {"instances", "instance.list", "name"}, {"pools", "pool.list", "name"},
        {"members", "member.list", "name"},     {"jobs", "job.list", "run_id"},
        {"backups", "backup.list", "uuid"},     {"definitions", "definition.list", "name"}};
    for (List const& list : LISTS) {
        Value result;
        if (what != list.name || !context.try_to_ask(list.method, Object(), result) ||
            result.type() != json_spirit::obj_type)
            continue;
        Array const rows = array_of(result.get_obj(), list.name);
        for (Object const& row : json_spirit::objects_of(rows))
            context.print(value_text(json_spirit::object_get_any(row, list.key)) + "\n");
    }
    return EXIT_OK;
}
