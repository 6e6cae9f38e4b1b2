// What there is: the agent, its pools, members, backups and definitions.
#include "agent/cli/commands.h"
#include "agent/cli/consequences.h"
#include "agent/cli/definition_file.h"
#include "agent/cli/guide.h"
#include "agent/cli/results.h"
#include "agent/cli/suggestion.h"
#include "agent/cli/table.h"
#include "host/http/http_encode.h"
#include "json_spirit/text.h"
#include "qmrt/names.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char LIST_POOLS[] = "`zenbrak3 pools` lists the pools.";
constexpr char LIST_MEMBERS[] = "`zenbrak3 members` lists the members.";
constexpr char LIST_BACKUPS[] = "`zenbrak3 backups` lists the backups.";
constexpr char LIST_DEFINITIONS[] = "`zenbrak3 definitions` lists the definitions.";

/** As done(); a warning of the answer is told besides. */
int done_with_pool(Command_Context& context, Object const& pool, std::string const& what) {
    std::string const warning = json_spirit::object_get_str(pool, "warning");
    int const status = done(context, pool, what);
    if (!warning.empty() && !context.json())
        context.print("Warning: " + printable(warning) + ".\n");
    return status;
}

bool read_wishes(Pool_Wishes const& wishes, Object& params, std::string& error) {
    if (!wishes.name.empty())
        params["name"] = wishes.name;
    if (!wishes.url.empty())
        params["url"] = wishes.url.starts_with('/') ? "file://" + http_encode_string(wishes.url, 0)
                                                    : wishes.url;
    if (!wishes.compression.empty()) {
        params["compression_level"] = 0; // the method's usual one
        if (!read_compression(wishes.compression, params, error))
            return false;
    }
    uint64_t limit = 0;
    if (!wishes.limit.empty()) {
        if (!read_size(wishes.limit, limit)) {
            error = "invalid size '" + names::shown(wishes.limit) +
                    "' (expected bytes, or a unit as in 500GiB or 2T)";
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

constexpr char LISTING_BACKUPS[] = "list the backups";
constexpr int USUAL_BACKUPS = 1000; ///< rows of a list without --limit

/** The pools; empty if the agent does not answer. */
Array list_of_pools(Command_Context& context) {
    Value answer;
    bool const told = context.try_to_ask("pool.list", Object(), answer);
    return told && answer.type() == json_spirit::obj_type ? array_of(answer.get_obj(), "pools")
                                                          : Array();
}

/** The name of the pool with this uuid; the uuid itself if the pool does not exist. */
std::string pool_name(Array const& pools, std::string const& uuid) {
    for (Object const& pool : json_spirit::objects_of(pools))
        if (json_spirit::object_get_str(pool, "uuid") == uuid)
            return json_spirit::object_get_str(pool, "name");
    return uuid;
}

/** @param name  or uuid; "" for any. @return false after a failure was printed */
bool is_known_pool(Command_Context& context, Array const& pools, std::string const& name) {
    for (Object const& pool : json_spirit::objects_of(pools))
        for (char const* const key : {"name", "uuid"})
            if (json_spirit::object_get_str(pool, key) == name)
                return true;
    if (name.empty() || pools.empty())
        return true;
    std::vector<std::string> names;
    for (Object const& pool : json_spirit::objects_of(pools))
        names.push_back(json_spirit::object_get_str(pool, "name"));
    std::string const close = did_you_mean(name, names);
    context.fail(EXIT_NOT_FOUND,
                 std::string("cannot ") + LISTING_BACKUPS + ": pool " + name + " does not exist",
                 close + (close.empty() ? "" : " ") + LIST_POOLS);
    return false;
}

} // namespace

int show_info(Command_Context& context) {
    Object info;
    if (!context.ask("agent.info", Object(), "ask the agent about itself", info))
        return context.status();
    Object module;
    if (!context.json() && json_spirit::object_get(info, "module", module))
        info["module"] = json_spirit::object_get_any(module, "path");
    return show_object(context, info,
                       {{"Name", "name"},
                        {"UUID", "uuid"},
                        {"Version", "version"},
                        {"Component", "component"},
                        {"Process", "pid"},
                        {"Started", "started", Form::TIME},
                        {"Data directory", "data_dir"},
                        {"Module", "module"},
                        {"Default user", "uid"},
                        {"Backup server", "backupd"}},
                       {"methods"});
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
        return context.fail(EXIT_USAGE, "nothing to change in pool " + pool +
                                            ": name at least one option (see pool update --help)");
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
        "type", json_spirit::Skip_Empty_Helper(filter.type))(
        "table", json_spirit::Skip_Empty_Helper(filter.table));
    params["limit"] = rows_to_ask(context, USUAL_BACKUPS, INT32_MAX);
    return context.show(interval, [&](std::string& text) {
        Object answer;
        Table table({{"BACKUP", "uuid", context.id_form()},
                     {"INSTANCE", "instance"},
                     {"LEVEL", "level"},
                     {"ENDED", "backup_end_time", Form::TIME},
                     {"DATA", "source_size", Form::SIZE},
                     {"SIZE", "backup_set_size", Form::SIZE},
                     {"KEY", "backup_key"},
                     {"POOL", "pool"}});
        table.add_extra({{"TYPE", "type"},
                         {"STARTED", "backup_start_time", Form::TIME},
                         {"CONTINUES", "prior_backup_key"},
                         {"FLAVOUR", "flavour", Form::WORD},
                         {"VERSION", "database_version"},
                         {"HOST", "host"}});
        if (!choose(context, table) || !context.ask("backup.list", params, LISTING_BACKUPS, answer))
            return false;
        Array backups = array_of(answer, "backups");
        cut_to_usual(context, USUAL_BACKUPS, backups);
        // their names are filtered, too
        Array const pools = list_of_pools(context);
        if (backups.empty() && (!is_known(context, "instance", filter.instance, LISTING_BACKUPS) ||
                                !is_known_pool(context, pools, filter.pool)))
            return false;
        Array const flavours = backups.empty() ? Array() : list_of_flavours(context);
        for (Object const& backup : json_spirit::objects_of(backups)) {
            Object shown = backup;
            shown["flavour"] = flavour_name(flavours, number_of(backup, "series"));
            shown["pool"] = pool_name(pools, json_spirit::object_get_str(backup, "pool_uuid"));
            shown.try_emplace("level", json_spirit::object_get_any(backup, "type"));
            table.add(shown, backup);
        }
        text = text_of_list(context, answer, "backups", table, "No backups.");
        Array const windows = array_of(answer, "windows");
        if (!windows.empty() && !context.json()) {
            Table times({{"TO ANY TIME FROM", "from", Form::TIME}, {"UNTIL", "until", Form::TIME}});
            times.add(windows);
            text += "\n" + times.text(context.terminal());
        }
        return true;
    });
}

/** Adds what the agent's module says of a backup. */
static void describe_backup(Command_Context& context, Object& backup) {
    backup["flavour"] = flavour_name(list_of_flavours(context), number_of(backup, "series"));
    Object const said = guide_answer(context, "guide.backup",
                                     {{"backup", json_spirit::object_get_str(backup, "uuid")}});
    Array const lines = array_of(said, "contents");
    for (Object const& line : json_spirit::objects_of(lines))
        backup[json_spirit::object_get_str(line, "label")] =
            json_spirit::object_get_str(line, "text");
}

int show_backup(Command_Context& context, std::string const& backup) {
    Object found;
    if (!context.ask("backup.show", Object{{"backup", backup}}, "show backup " + backup, found,
                     LIST_BACKUPS))
        return context.status();
    Object shown = found;
    bool const is_as_asked = json_spirit::object_get_str(found, "level_reason").empty();
    shown.try_emplace("level", json_spirit::object_get_any(found, "type"));
    for (char const* const key : {"type", "level_reason"})
        if (is_as_asked)
            shown.erase(key);
    if (!context.json())
        describe_backup(context, shown);
    show_object(context, context.json() ? found : shown,
                {{"Backup", "uuid"},
                 {"Instance", "instance"},
                 {"Level", "level"},
                 {"Asked for", "type"},
                 {"Reason", "level_reason"},
                 {"Key", "backup_key"},
                 {"Continues", "prior_backup_key"},
                 {"Started", "backup_start_time", Form::TIME},
                 {"Ended", "backup_end_time", Form::TIME},
                 {"Data from", "data_begin", Form::TIME},
                 {"Data until", "data_end", Form::TIME},
                 {"Database size", "source_size", Form::SIZE},
                 {"Size", "backup_set_size", Form::SIZE},
                 {"Flavour", "flavour"},
                 {"Version", "database_version"},
                 {"Nodes", "nodes"},
                 {"Database", "database"},
                 {"Compression", "compression"},
                 {"Host", "host"},
                 {"Job", "job_act_id"},
                 {"Definition", "name"},
                 {"Depends on", "depends"},
                 {"Needed by", "needed_by"}},
                // for programs
                {"series",
                 "storages",
                 "pieces",
                 "tables",
                 "begin_time",
                 "end_time",
                 "platform_begin_time",
                 "platform_end_time",
                 "agent",
                 "definition_uuid",
                 "granularity",
                 "host_uuid",
                 "incarnation",
                 "meta_destination",
                 "minor_resource_id",
                 "nodes_count",
                 "pool_uuid",
                 "resource_label",
                 "resource_uuid",
                 "seq",
                 "uid"});
    if (context.json())
        return EXIT_OK;
    Table storages({{"POOL", "pool"}, {"SIZE", "size", Form::SIZE}, {"COPY", "copy"}});
    Array const places = array_of(found, "storages");
    Array const pools = places.empty() ? Array() : list_of_pools(context);
    for (Object place : json_spirit::objects_of(places)) {
        place["pool"] = pool_name(pools, json_spirit::object_get_str(place, "pool_uuid"));
        storages.add(place);
    }
    Table pieces({{"SIZE", "size", Form::SIZE}, {"PIECE", "path"}});
    pieces.add(array_of(found, "pieces"));
    if (!storages.empty())
        context.print("\n" + storages.text(context.terminal()));
    if (!pieces.empty())
        context.print("\n" + pieces.text(context.terminal()));
    std::string held; // a line each, so that others can search it
    for (std::string const& name : held_names(found))
        held += printable(name) + "\n";
    if (!held.empty())
        context.print("\nHOLDS\n" + held);
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
        {"backups", "backup.list", "uuid"},     {"definitions", "definition.list", "name"},
        {"schedules", "schedule.list", "name"}};
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
