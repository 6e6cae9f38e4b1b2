#include "agent/cli/definition.h"

#include "agent/cli/text_form.h"
#include "host/http/http_encode.h"
#include "host/storage/compression.h"
#include "host/storage/rate_limits.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/names.h"
#include "qmrt/natoi.h"
#include "qmrt/posix_time.h"

#include <algorithm>
#include <map>

using json_spirit::object_get_str;

namespace {

bool is_number(std::string const& text) {
    return !text.empty() && text.size() < 6 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::vector<std::string> parts_of(std::string const& text, char divider) {
    std::vector<std::string> parts;
    for (size_t begin = 0; begin <= text.size();) {
        size_t const end = std::min(text.find(divider, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

std::string encoded(std::string const& name) {
    return http_encode_string(name, HUT_FLAG_SLASH | HUT_FLAG_UPPERCASE);
}

/** Checks the last names by the rule of names in a list, and one before them as a database. */
bool are_names(std::vector<std::string> const& path, size_t listed, std::string& error) {
    for (size_t at = 0; at < path.size(); ++at) {
        bool const is_database = at + listed < path.size();
        std::string const fault = is_database ? names::fault_of_database(path[at])
                                              : names::fault_of_listed_name(path[at]);
        if (!fault.empty()) {
            error = "'" + names::shown(path[at]) + "' " + fault;
            return false;
        }
    }
    return true;
}

/** Replaces the entry for the whole instance by one for each schema. */
bool read_schemas(std::string const& instance, std::vector<std::string> const& schemas,
                  json_spirit::Object& source, std::string& error) {
    json_spirit::Array entries;
    for (std::string const& schema : schemas) {
        std::vector<std::string> const path = parts_of(schema, '.');
        if (path.size() != 2) {
            error = "'" + names::shown(schema) + "' is not DATABASE.SCHEMA";
            return false;
        }
        if (!are_names(path, 1, error))
            return false;
        entries.emplace_back(instance_entry(instance) + "/schema/" + encoded(path[0]) + "/" +
                             encoded(path[1]));
    }
    if (!entries.empty())
        source["entries"] = entries;
    return true;
}

/** The database of a set that has this table: by its list, or the one that it is of. */
bool find_database(json_spirit::Object const& backup, std::string const& table,
                   std::string& database, std::string& error) {
    std::vector<std::string> found;
    std::vector<std::string> const held = held_names(backup);
    for (std::string const& path : held)
        if (path.ends_with("." + table) && parts_of(path, '.').size() == 3)
            found.push_back(path.substr(0, path.find('.')));
    if (found.size() == 1) {
        database = found.front();
        return true;
    }
    if (found.empty() && held.empty())
        error = "the backup has no list of its tables; it cannot restore them one by one";
    else if (found.empty())
        // nor are the schemas of the database's first user listed
        error = "the backup does not list table " + names::shown(table) +
                " (see zenbrak3 backup show); to restore it anyway, name its database: DATABASE." +
                names::shown(table);
    else
        error = "several databases have a table " + names::shown(table) + "; name one: DATABASE." +
                names::shown(table);
    return false;
}

/** "[DATABASE.]SCHEMA.TABLE[=SCHEMA.TABLE]" as an entry. */
bool read_table(std::string const& instance, std::string const& wish,
                json_spirit::Object const& backup, std::string& entry, std::string& error) {
    std::vector<std::string> const sides = parts_of(wish, '=');
    std::vector<std::string> from = parts_of(sides[0], '.');
    std::vector<std::string> to = sides.size() > 1 ? parts_of(sides[1], '.') : from;
    bool const is_path = from.size() == 2 || from.size() == 3;
    if (sides.size() > 2 || !is_path || (sides.size() > 1 && to.size() != 2)) {
        error = "'" + names::shown(wish) + "' is not [DATABASE.]SCHEMA.TABLE[=SCHEMA.TABLE]";
        return false;
    }
    if (!are_names(from, 2, error) || !are_names(to, 2, error))
        return false;
    std::string database;
    std::string const table = from[from.size() - 2] + "." + from.back();
    if (from.size() == 3)
        database = from.front();
    else if (!find_database(backup, table, database, error))
        return false;
    entry = instance_entry(instance) + "/table/" + encoded(database);
    for (std::string const& name :
         {from[from.size() - 2], from.back(), to[to.size() - 2], to.back()})
        entry += "/" + encoded(name);
    return true;
}

bool read_tables(std::string const& instance, std::vector<std::string> const& tables,
                 json_spirit::Object const& backup, json_spirit::Object& definition,
                 std::string& error) {
    json_spirit::Array entries;
    for (std::string const& table : tables) {
        std::string entry;
        if (!read_table(instance, table, backup, entry, error))
            return false;
        entries.emplace_back(entry);
    }
    if (!entries.empty()) {
        definition["subtype"] = "table";
        definition["source"].get_obj()["entries"] = entries;
    }
    return true;
}

/** Adds the options that the flavour's jobs usually have, as far as they are absent. */
void add_usual_options(json_spirit::Object const& described, json_spirit::Object& definition) {
    json_spirit::Object usual;
    json_spirit::object_get(described, "usual_options", usual);
    json_spirit::Object& options = definition["options"].get_obj();
    for (auto const& [key, value] : usual)
        options.try_emplace(key, value);
}

/** Limits the writes of a backup to the pool, or the reads of a restore from it. */
bool read_rates(std::vector<std::string> const& rates, json_spirit::Object& definition,
                std::string& error) {
    Rate_Control_Entries entries;
    for (std::string const& rate : rates) {
        size_t const divider = rate.find('=') + 1; // 0 without one
        uint64_t bytes = 0;
        Rate_Control_Entry entry;
        if (!read_size(rate.substr(divider), bytes) ||
            !Rate_Control_Entry::from_string(rate.substr(0, divider) + std::to_string(bytes),
                                             entry)) {
            error = "invalid --rate '" + rate +
                    "' (expected bytes per second, such as 200M or 08:00-18:00=50M)";
            return false;
        }
        entries.push_back(entry);
    }
    if (entries.empty())
        return true;
    char const* const key = object_get_str(definition, "type") == "restore" ? Rate_Limits::src_key
                                                                            : Rate_Limits::dest_key;
    definition["rate_limits"] = json_spirit::Object{{key, rate_entries_to_string(entries, ';')}};
    return true;
}

void read_scripts(Job_Wishes const& wishes, json_spirit::Object& definition) {
    for (auto const& [key, script] : {std::pair("precondition", &wishes.precondition),
                                      std::pair("pre_action", &wishes.pre_action),
                                      std::pair("post_action", &wishes.post_action)})
        if (!script->empty())
            definition[key] = *script;
    for (auto const& [key, flag] :
         {std::pair("ignore_pre_action_failure", wishes.ignore_pre_action_failure),
          std::pair("ignore_post_action_failure", wishes.ignore_post_action_failure),
          std::pair("run_post_action_always", wishes.run_post_action_always)})
        if (flag)
            definition[key] = true;
}

bool read_wishes(Job_Wishes const& wishes, json_spirit::Object& definition, std::string& error) {
    json_spirit::Object options;
    if (!read_rates(wishes.rates, definition, error))
        return false;
    if (!wishes.compression.empty() && !read_compression(wishes.compression, options, error))
        return false;
    if (wishes.channels > 0)
        options["channels"] = wishes.channels;
    for (std::string const& option : wishes.options)
        if (!read_option(option, options, error))
            return false;
    if (!wishes.config.empty())
        options["xml_config_path"] = wishes.config;
    if (wishes.restore_time != 0)
        options["restore_time"] = std::string(POSIX_Time_To_ISO8601(wishes.restore_time));
    definition["options"] = options;
    read_scripts(wishes, definition);
    if (!wishes.name.empty())
        definition["name"] = wishes.name;
    if (!wishes.uid.empty())
        definition["uid"] = wishes.uid;
    return true;
}

} // namespace

bool read_option(std::string const& text, json_spirit::Object& options, std::string& error) {
    size_t const equals = text.find('=');
    if (equals == 0 || equals == std::string::npos) {
        error = "invalid option '" + names::shown(text) + "' (expected KEY=VALUE)";
        return false;
    }
    std::string const value = text.substr(equals + 1);
    json_spirit::Value parsed;
    bool const is_plain = !json_spirit::parse(value, parsed, nullptr) ||
                          parsed.type() == json_spirit::obj_type ||
                          parsed.type() == json_spirit::array_type || parsed.is_null();
    options[text.substr(0, equals)] = is_plain ? json_spirit::Value(value) : parsed;
    return true;
}

bool read_compression(std::string const& text, json_spirit::Object& options, std::string& error) {
    size_t const colon = text.find(':');
    bool const has_level = colon != std::string::npos;
    std::string const method = text.substr(0, colon);
    std::string const level = has_level ? text.substr(colon + 1) : "";
    bool const is_valid = method == "none"
                              ? !has_level
                              : compression_name_to_value(method.c_str(), -1) != COMPR_NONE &&
                                    (!has_level || is_number(level));
    if (!is_valid) {
        error = "invalid compression '" + names::shown(text) +
                "' (expected none, auto, zstd, lzop, zstd:LEVEL or lzop:LEVEL)";
        return false;
    }
    if (has_level)
        options["compression_level"] = natoi<int>(level);
    options["compression"] = method;
    return true;
}

std::string instance_entry(std::string const& instance) {
    return "gaussdb/" + encoded(instance);
}

std::vector<std::string> held_names(json_spirit::Object const& backup) {
    json_spirit::Array records;
    json_spirit::object_get(backup, "tables", records);
    std::map<std::string, std::string> paths; // of what others are in, by uuid
    std::vector<std::string> all;
    for (json_spirit::Object const& record : json_spirit::objects_of(records)) {
        auto const parent = paths.find(object_get_str(record, "parent_uuid"));
        std::string const path =
            (parent == paths.end() ? "" : parent->second + ".") + object_get_str(record, "name");
        if (object_get_str(record, "type") != "table")
            paths[object_get_str(record, "uuid")] = path;
        all.push_back(path);
    }
    return all;
}

bool make_backup_definition(json_spirit::Object const& instance, std::string const& pool,
                            std::string const& level, Job_Wishes const& wishes,
                            json_spirit::Object& definition, std::string& error) {
    std::string const name = object_get_str(instance, "name");
    std::string const uuid = object_get_str(instance, "uuid");
    if (name.empty() || uuid.empty()) {
        error = "the agent knows no uuid of this instance";
        return false;
    }
    definition = {
        {"type", "backup"},
        {"subtype", level},
        {"agent", "gaussdb"},
        {"name", level + " backup of " + name + " to " + pool},
        {"target", json_spirit::Object{{"pool", pool}}},
        {"source", json_spirit::Object{{"id", uuid},
                                       {"name", name},
                                       {"entries", json_spirit::Array{instance_entry(name)}}}}};
    if (!read_schemas(name, wishes.schemas, definition["source"].get_obj(), error) ||
        !read_wishes(wishes, definition, error))
        return false;
    add_usual_options(instance, definition);
    return true;
}

bool make_backup_changes(Job_Wishes const& wishes, json_spirit::Object& changes,
                         std::string& error) {
    if (!read_wishes(wishes, changes, error))
        return false;
    json_spirit::Object& options = changes["options"].get_obj();
    if (!wishes.compression.empty()) // a level that is not given is not that of another method
        options.emplace("compression_level", json_spirit::Value());
    if (options.empty())
        changes.erase("options");
    return true;
}

bool make_restore_definition(json_spirit::Object const& backup,
                             json_spirit::Object const* restore_as, Job_Wishes const& wishes,
                             json_spirit::Object& definition, std::string& error) {
    for (char const* key : {"uuid", "instance", "resource_uuid", "backup_key"})
        if (object_get_str(backup, key).empty()) {
            error = std::string("the catalog has no ") + key + " of this backup";
            return false;
        }
    std::string const from = object_get_str(backup, "instance");
    std::string const to = restore_as ? object_get_str(*restore_as, "name") : from;
    std::string const to_uuid =
        object_get_str(restore_as ? *restore_as : backup, restore_as ? "uuid" : "resource_uuid");
    if (to.empty() || to_uuid.empty()) {
        error = "the agent knows no uuid of the instance to restore to";
        return false;
    }
    definition = {
        {"type", "restore"},
        {"subtype", "instance"},
        {"agent", "gaussdb"},
        {"name", "restore of " + from + (restore_as ? " as " + to : "")},
        {"target", json_spirit::Object{{"id", to_uuid}}},
        {"source", json_spirit::Object{{"id", backup.at("resource_uuid")},
                                       {"name", from},
                                       {"catalog_id", backup.at("uuid")},
                                       {"backup_key", backup.at("backup_key")},
                                       {"original", instance_entry(from)},
                                       {"restore_as", instance_entry(to)},
                                       {"entries", json_spirit::Array{instance_entry(from)}}}}};
    if (!read_tables(from, wishes.tables, backup, definition, error) ||
        !read_wishes(wishes, definition, error))
        return false;
    add_usual_options(backup, definition);
    return true;
}
