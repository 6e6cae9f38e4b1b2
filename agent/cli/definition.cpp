#include "agent/cli/definition.h"

#include "host/http/http_encode.h"
#include "host/storage/compression.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/natoi.h"

#include <algorithm>

using json_spirit::object_get_str;

namespace {

bool is_number(std::string const& text) {
    return !text.empty() && text.size() < 6 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool read_wishes(Job_Wishes const& wishes, json_spirit::Object& definition, std::string& error) {
    json_spirit::Object options;
    if (!wishes.compression.empty() && !read_compression(wishes.compression, options)) {
        error = "'" + wishes.compression +
                "' is no compression: none, zstd[:LEVEL], lzop[:LEVEL] "
                "and auto are";
        return false;
    }
    if (wishes.channels > 0)
        options["channels"] = wishes.channels;
    for (std::string const& option : wishes.options)
        if (!read_option(option, options)) {
            error = "'" + option + "' is no option: KEY=VALUE is wanted";
            return false;
        }
    definition["options"] = options;
    if (!wishes.name.empty())
        definition["name"] = wishes.name;
    if (!wishes.uid.empty())
        definition["uid"] = wishes.uid;
    return true;
}

} // namespace

bool read_option(std::string const& text, json_spirit::Object& options) {
    size_t const equals = text.find('=');
    if (equals == 0 || equals == std::string::npos)
        return false;
    std::string const value = text.substr(equals + 1);
    json_spirit::Value parsed;
    bool const is_plain = !json_spirit::parse(value, parsed, nullptr) ||
                          parsed.type() == json_spirit::obj_type ||
                          parsed.type() == json_spirit::array_type || parsed.is_null();
    options[text.substr(0, equals)] = is_plain ? json_spirit::Value(value) : parsed;
    return true;
}

bool read_compression(std::string const& text, json_spirit::Object& options) {
    size_t const colon = text.find(':');
    std::string const method = text.substr(0, colon);
    if (method != "none" && compression_name_to_value(method.c_str(), -1) == COMPR_NONE)
        return false;
    if (colon != std::string::npos) {
        std::string const level = text.substr(colon + 1);
        if (!is_number(level) || method == "none")
            return false;
        options["compression_level"] = natoi<int>(level);
    }
    options["compression"] = method;
    return true;
}

std::string instance_entry(std::string const& instance) {
    return "gaussdb/" + http_encode_string(instance, HUT_FLAG_SLASH | HUT_FLAG_UPPERCASE);
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
    return read_wishes(wishes, definition, error);
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
    return read_wishes(wishes, definition, error);
}
