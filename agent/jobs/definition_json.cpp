#include "agent/jobs/definition_json.h"

#include "agent/jobs/member_reader.h"
#include "host/http/http_encode.h"
#include "host/storage/rate_limits.h"
#include "host/yajl/yajl_parser.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/scoped_deleter.h"
#include "qmrt/uuid.h"

#include <algorithm>
#include <iterator>
#include <limits>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char const* JOB_TYPES[] = {"", "backup", "restore", "standby", "storage"};
static_assert(std::size(JOB_TYPES) == JOB_DEFINITION_STORAGE + 1);

constexpr char RATE_SEPARATOR = ';';

/** A uuid as we write it: the same one in capitals must not become another definition's. */
void read_uuid(Member_Reader& reader, char const* key, std::string& uuid) {
    std::string text;
    uuid_binary binary;
    if (!reader.text(key, text))
        return;
    if (uuid_string_to_binary(text, binary))
        uuid = uuid_binary_to_string(binary);
    else
        reader.blame(key, "is no uuid");
}

Job_Definition_Subtype subtype_of(std::string const& text) {
    for (int value = JOB_DEFINITION_SUBTYPE_FULL; value <= JOB_DEFINITION_SUBTYPE_IMPORT; ++value)
        if (text == job_def_subtype_to_string(static_cast<Job_Definition_Subtype>(value), nullptr))
            return static_cast<Job_Definition_Subtype>(value);
    return JOB_DEFINITION_SUBTYPE_NONE;
}

bool find_pool(Definition_Defaults const& defaults, std::string const& wanted, Object& target,
               Pool_Info& pool, std::string& error) {
    std::string reason;
    if (!defaults.find_pool(wanted, pool, reason)) {
        error = "target.pool: " + reason;
        return false;
    }
    target.erase("pool");
    json_spirit::insert(target)("id", pool.uuid);
    return true;
}

/** Gives options that name no compression the pool's. */
void compress_as(Pool_Info const& pool, Object& definition) {
    char const* const method = compression_value_to_name(pool.compression_method);
    Object options;
    json_spirit::object_get(definition, "options", options);
    if (pool.compression_method == COMPR_NONE || !method || options.count("compression"))
        return;
    json_spirit::insert(options)("compression", method);
    if (pool.compression_level != 0)
        options.emplace("compression_level", pool.compression_level);
    json_spirit::insert(definition)("options", options);
}

bool normalise_target(Object const& given, Definition_Defaults const& defaults, Object& result,
                      std::string& error) {
    Object target;
    std::string id;
    std::string pool;
    if (Object const* from = nullptr; json_spirit::object_get(given, "target", from)) {
        target = *from;
        Member_Reader reader(*from, "target.", error);
        reader.text("id", id, names::fault_of_label);
        reader.text("pool", pool, names::fault_of_label);
        if (!error.empty())
            return false;
    }
    bool const restore = json_spirit::object_get_str(given, "type") == "restore";
    if (restore && !pool.empty())
        error = "target.pool: a restore reads from the pool that its backup is in; give the "
                "resource to restore to as target.id, or no target";
    else if (!id.empty() && !pool.empty())
        error = "target.pool: give either this or target.id";
    if (!error.empty())
        return false;
    if (!restore && !(id.empty() && pool.empty())) {
        Pool_Info info;
        if (!find_pool(defaults, id.empty() ? pool : id, target, info, error))
            return false;
        compress_as(info, result);
    }
    if (restore && id.empty())
        if (Object const* source = nullptr; json_spirit::object_get(given, "source", source))
            json_spirit::insert(target)("id", json_spirit::object_get_str(*source, "id"));
    json_spirit::insert(result)("target", target);
    return true;
}

/** Gives a backup's source the uuid of its instance, which has to be on record. */
bool name_source(Object const& given, Definition_Defaults const& defaults, Object& result,
                 std::string& error) {
    std::string const name = instance_of_definition(given);
    if (name.empty() || !defaults.find_instance)
        return true;
    std::string uuid;
    std::string reason;
    if (!defaults.find_instance(name, uuid, reason)) {
        error = "source: " + reason;
        return false;
    }
    Object source = given.at("source").get_obj();
    if (json_spirit::object_get_str(given, "type") != "backup" || uuid.empty())
        return true;
    std::string const id = json_spirit::object_get_str(source, "id");
    if (!id.empty() && id != uuid) {
        error = "source.id: \"" + names::shown(id) + "\" is not the uuid of instance \"" +
                names::shown(name) + "\"; leave it out";
        return false;
    }
    json_spirit::insert(source)("id", uuid);
    json_spirit::insert(result)("source", source);
    return true;
}

/** Runs one of the module's parsers over a part of the definition. */
template <typename Part, typename Part_var>
bool parse_part(Job_Module::Parser_Creator* creator, char const* member, Object const& part,
                Part_var& result, std::string& error) {
    YAJL_Handler* const handler = creator ? creator->create() : nullptr;
    Scoped_Deleter const destroyer([=] {
        if (handler)
            creator->destroy(handler);
    });
    auto* const parser = dynamic_cast<YAJL_Parser<Part>*>(handler);
    if (!parser) {
        error = std::string(member) + ": the module has no parser for it";
        return false;
    }
    std::string text;
    try {
        text = json_spirit::to_text(Value(part));
    } catch (json_spirit::Error const& fault) {
        error = std::string(member) + ": " + fault.what();
        return false;
    }
    if (!parser->parse(text.data(), text.size()) || !parser->complete()) {
        error = std::string(member) + ": " + parser->error();
        return false;
    }
    if (!parser->ignored().empty()) {
        // whoever wrote it meant something by it
        error = std::string(member) + ": " + parser->ignored();
        return false;
    }
    result = Part_var(parser->release().release());
    return true;
}

bool parse_parts(Job_Module const& module, Object const& source, Object const& options,
                 Job_Definition& definition, std::string& error) {
    bool const backup = definition.type() == JOB_DEFINITION_BACKUP;
    Job_Source_var parsed_source;
    Job_Options_var parsed_options;
    if (!parse_part<Job_Source>(backup ? module.backup_source : module.restore_source, "source",
                                source, parsed_source, error) ||
        !parse_part<Job_Options>(backup ? module.backup_options : module.restore_options, "options",
                                 options, parsed_options, error))
        return false;
    definition.source(parsed_source);
    definition.options(parsed_options);
    return true;
}

void read_identity(Member_Reader& reader, Job_Module const& module, Job_Definition& definition) {
    std::string id;
    std::string text;
    read_uuid(reader, "id", id);
    if (id.empty())
        reader.blame("id", "is missing");
    definition.id(id);
    if (reader.required_text("name", text, names::fault_of_title))
        definition.name(text);
    if (reader.required_text("agent", text) && text != module.agent)
        reader.blame("agent", "\"" + names::shown(text) + "\" is not the agent of a loaded module");
    definition.agent(text);
    std::string uid;
    read_uuid(reader, "uid", uid);
    definition.uid(uid);
    std::string host;
    reader.text("host_id", host, names::fault_of_id);
    definition.host_id(host);
}

void read_kind(Member_Reader& reader, Job_Definition& definition) {
    std::string type;
    std::string subtype;
    if (reader.required_text("type", type)) {
        if (type == "backup")
            definition.type(JOB_DEFINITION_BACKUP);
        else if (type == "restore")
            definition.type(JOB_DEFINITION_RESTORE);
        else
            reader.blame("type", "\"" + type + "\" is neither backup nor restore");
    }
    if (reader.required_text("subtype", subtype)) {
        definition.subtype(subtype_of(subtype));
        if (definition.subtype() == JOB_DEFINITION_SUBTYPE_NONE)
            reader.blame("subtype", "\"" + subtype + "\" is none, such as full or incremental");
    }
}

void read_target(Member_Reader& reader, Job_Definition& definition, std::string& error) {
    Object const* object = nullptr;
    if (!reader.object("target", object)) {
        reader.blame("target", "is missing");
        return;
    }
    Member_Reader inner(*object, "target.", error);
    Job_Target target;
    std::string id;
    std::string device;
    inner.required_text("id", id, names::fault_of_id);
    inner.text("device_id", device, names::fault_of_id);
    inner.finish();
    target.id(id);
    target.device_id(device);
    definition.target(target);
}

void read_limits(Member_Reader& reader, Job_Definition& definition, std::string& error) {
    constexpr int64_t MAX_BUFFER = int64_t{1} << 40;
    int64_t retry = -1;
    int64_t buffer = 0;
    reader.number("max_seconds_retry", -1, std::numeric_limits<int>::max(), retry);
    reader.number("resumption_buffer_size", 0, MAX_BUFFER, buffer);
    definition.max_seconds_retry(static_cast<int>(retry));
    definition.resumption_buffer_size(static_cast<size_t>(buffer));

    Object const* object = nullptr;
    if (!reader.object("rate_limits", object))
        return;
    Member_Reader inner(*object, "rate_limits.", error);
    auto const limits = std::make_shared<Rate_Limits>();
    auto const read = [&](char const* key, Rate_Control_Entries& entries) {
        std::string text;
        if (inner.text(key, text) && !text.empty() &&
            !rate_entries_from_string(text, RATE_SEPARATOR, entries))
            inner.blame(key, "\"" + text + "\" has no form such as \"08:00-18:00=1048576;0\"");
    };
    read(Rate_Limits::dest_key, limits->dest);
    read(Rate_Limits::src_key, limits->src);
    inner.finish();
    definition.rate_limits(limits);
}

void read_scripts(Member_Reader& reader, Job_Definition& definition) {
    auto const script = [&](char const* key) {
        std::string text;
        reader.text(key, text, names::fault_of_text);
        return text;
    };
    auto const flag = [&](char const* key) {
        bool value = false;
        reader.flag(key, value);
        return value;
    };
    definition.precondition(script("precondition"));
    definition.pre_action(script("pre_action"));
    definition.post_action(script("post_action"));
    definition.ignore_pre_action_failure(flag("ignore_pre_action_failure"));
    definition.ignore_post_action_failure(flag("ignore_post_action_failure"));
    definition.run_post_action_always(flag("run_post_action_always"));
}

/** @return false, with the fault in @a error */
bool read_schedule(Member_Reader& reader, Definition_Schedule& schedule, std::string& error) {
    Object const* object = nullptr;
    if (!reader.object("schedule", object))
        return error.empty();
    return Definition_Schedule::parse(*object, schedule, error);
}

/** A schedule with levels says which level the definition has: the one that covers most. */
bool level_as_scheduled(Object const& given, Object& result, std::string& error) {
    Definition_Schedule const schedule = schedule_from_json(given, error);
    std::vector<std::string> const levels = schedule.levels();
    if (!error.empty() || levels.empty())
        return error.empty();
    std::string const level = json_spirit::object_get_str(given, "subtype");
    if (json_spirit::object_get_str(given, "type") != "backup")
        error = "schedule.times: only a backup has levels";
    else if (!level.empty() && std::ranges::count(levels, level) == 0)
        error = "subtype: the schedule has no times for level \"" + names::shown(level) + "\"";
    else if (level.empty())
        json_spirit::insert(result)("subtype", levels.front());
    return error.empty();
}

} // namespace

bool normalise_definition(Object const& given, Definition_Defaults const& defaults, Object& result,
                          std::string& error) {
    error.clear();
    Object normal;
    for (auto const& [key, value] : given)
        if (!value.is_null())
            normal.emplace(key, value);
    std::string id = uuid_string();
    std::string uid = defaults.uid;
    bool enabled = true;
    Object const* object = nullptr;
    Member_Reader reader(given, "", error);
    read_uuid(reader, "id", id);
    read_uuid(reader, "uid", uid);
    reader.flag("enabled", enabled);
    for (char const* key : {"target", "source", "options"})
        reader.object(key, object);
    if (!error.empty() || !normalise_target(given, defaults, normal, error) ||
        !name_source(given, defaults, normal, error) || !level_as_scheduled(given, normal, error))
        return false;
    json_spirit::insert(normal)("id", id)("uid", uid)("enabled", enabled);
    normal.emplace("agent", defaults.agent);
    normal.emplace("host_id", defaults.host_id);
    normal.emplace("options", Object());
    result = std::move(normal);
    return true;
}

bool definition_from_json(Job_Module const& module, Object const& object,
                          Job_Definition_var& result, std::string& error) {
    error.clear();
    Job_Definition_var definition(new (std::nothrow) Job_Definition);
    if (definition.null()) {
        error = "there is no memory for the definition";
        return false;
    }
    Member_Reader reader(object, "", error);
    read_identity(reader, module, *definition);
    read_kind(reader, *definition);
    read_target(reader, *definition, error);
    read_limits(reader, *definition, error);
    read_scripts(reader, *definition);
    Definition_Schedule schedule;
    read_schedule(reader, schedule, error);
    definition->schedule(Job_Schedule_var(new Job_Schedule_Text(schedule.first())));

    bool enabled;
    reader.flag("enabled", enabled); // the keeper of definitions looks at it
    Object const none;
    Object const* source = nullptr;
    Object const* options = &none;
    if (!reader.object("source", source))
        reader.blame("source", "is missing");
    reader.object("options", options);
    if (!reader.finish() || !parse_parts(module, *source, *options, *definition, error))
        return false;
    result = definition;
    return true;
}

Definition_Schedule schedule_from_json(Object const& definition, std::string& error) {
    error.clear();
    Definition_Schedule schedule;
    Member_Reader reader(definition, "", error);
    if (!read_schedule(reader, schedule, error))
        return {};
    return schedule;
}

std::string instance_of_definition(Object const& definition) {
    Object const* source = nullptr;
    if (!json_spirit::object_get(definition, "source", source))
        return "";
    std::string entry = json_spirit::object_get_str(*source, "restore_as");
    json_spirit::Array const* entries = nullptr;
    if (entry.empty() && json_spirit::object_get(*source, "entries", entries) &&
        !entries->empty() && entries->front().type() == json_spirit::str_type)
        entry = entries->front().get_str();
    size_t const begin = entry.find('/');
    if (begin == std::string::npos)
        return "";
    std::string name = entry.substr(begin + 1);
    name.resize(std::min(name.find('/'), name.size()));
    std::string decoded;
    return http_decode_string(name, 0, decoded) ? decoded : name;
}

char const* job_definition_type_name(Job_Definition_Type type) {
    auto const index = static_cast<unsigned>(type);
    return index < std::size(JOB_TYPES) ? JOB_TYPES[index] : "";
}
