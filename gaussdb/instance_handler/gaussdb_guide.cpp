#include "gaussdb/instance_handler/gaussdb_guide.h"

#include "gaussdb/common/gaussdb_const.h"
#include "gaussdb/instance_handler/gaussdb_host_check.h"
#include "gaussdb/instance_handler/gaussdb_node_check.h"
#include "gaussdb/instance_handler/gaussdb_t_check.h"
#include "gaussdb/instance_handler/gaussdb_tpops_check.h"
#include "gaussdb/job/job_definition_rules.h"
#include "json_spirit/access.h"
#include "qmrt/names.h"

using json_spirit::object_get_str;

namespace {

/** The tool of the flavours that are reached by ssh, and the SQL of T, have no usual number. */
constexpr int USUAL_CHANNELS = 4;

/** What is special of a flavour. */
struct Guide_Row {
    GAUSSDB_VERSION flavour;
    char const* name;
    char const* access;
    std::vector<std::string> parts;
    std::vector<std::string> restores;
    bool needs_channels;
};

std::vector<Guide_Row> const& rows() {
    static std::vector<Guide_Row> const table = {
        {GAUSSDB_100, "100", "on its own hosts", {}, {"instance"}, false},
        {GAUSSDB_200, "200", "on its own hosts", {}, {"instance"}, false},
        {GAUSSDB_T, "T", "on its own host", {}, {"instance"}, true},
        {GAUSSDB_DWS, "DWS", "over ssh", {"schema"}, {"instance", "schema", "table"}, true},
        {GAUSSDB_FOR_OPENGAUSS, "openGauss", "over ssh", {}, {"instance", "table"}, true},
        {GAUSSDB_TPOPS, "TPOPS", "through its platform", {}, {"instance", "time"}, false},
    };
    return table;
}

bool is_reached_by_ssh(int flavour) {
    return flavour == GAUSSDB_DWS || flavour == GAUSSDB_FOR_OPENGAUSS;
}

/** How an option is checked whose value becomes a part of paths and command lines. */
struct Record_Rule {
    char const* key;
    names::Rule rule;
};
constexpr Record_Rule RECORD_RULES[] = {{"user", names::fault_of_account},
                                        {"tpops_host", names::fault_of_host},
                                        {"instance", names::fault_of_instance},
                                        {"name", names::fault_of_instance},
                                        {"address", names::fault_of_ssh_address},
                                        {"meta_path", names::fault_of_bare_path},
                                        {"ssh_options", names::fault_of_ssh_options},
                                        {"source_commands", names::fault_of_remote_commands}};

/** Names of one type that a set lists. */
std::vector<std::string> held_by(json_spirit::Object const& set, char const* type) {
    json_spirit::Array records;
    std::vector<std::string> held;
    json_spirit::object_get(set, "tables", records);
    for (json_spirit::Object const& record : json_spirit::objects_of(records))
        if (object_get_str(record, "type") == type)
            held.push_back(object_get_str(record, "name"));
    return held;
}

std::string joined(std::vector<std::string> const& words) {
    std::string text;
    for (std::string const& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

std::string or_unknown(std::string const& text) {
    return text.empty() ? "unknown" : text;
}

bool is_of_schemas(json_spirit::Object const& set) {
    return object_get_str(set, "granularity") == "schema";
}

int series_of(json_spirit::Object const& set) {
    int series = GAUSSDB_UNKNOWN;
    json_spirit::object_get(set, "series", series);
    return series;
}

/** The user who writes to the pool, if a check has found one. */
std::string writer_of(std::vector<Instance_Check> const& lines) {
    std::string user;
    for (Instance_Check const& line : lines)
        if (!line.user.empty())
            user = line.user;
    return user;
}

void append(std::vector<Instance_Check>& lines, std::vector<Instance_Check> const& more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

} // namespace

std::vector<Database_Flavour> GaussDB_Guide::flavours() const {
    std::vector<Database_Flavour> flavours;
    for (Guide_Row const& row : rows()) {
        Database_Flavour flavour;
        flavour.code = row.flavour;
        flavour.name = row.name;
        flavour.title = flavour_title(row.flavour);
        flavour.access = row.access;
        flavour.levels = backup_levels_of(row.flavour);
        flavour.parts = row.parts;
        flavour.restores = row.restores;
        flavour.backup_options = job_options_of(JOB_DEFINITION_BACKUP, row.flavour);
        flavour.restore_options = job_options_of(JOB_DEFINITION_RESTORE, row.flavour);
        if (row.needs_channels)
            flavour.usual_options["channels"] = USUAL_CHANNELS;
        flavours.push_back(std::move(flavour));
    }
    return flavours;
}

Database_Guide::Identity GaussDB_Guide::identify(Instance const& instance) const {
    Identity identity;
    if (std::string host; instance.get_option("tpops_host", host)) {
        identity.flavour = GAUSSDB_TPOPS;
        instance.get_option("version", identity.edition);
        return identity;
    }
    instance.get_option("version", identity.flavour);
    instance.get_option("edition", identity.edition);
    return identity;
}

std::string GaussDB_Guide::fault_of_option(std::string const& key, std::string const& value) const {
    for (Record_Rule const& row : RECORD_RULES)
        if (key == row.key)
            return row.rule(value);
    return names::fault_of_line(value);
}

std::vector<Instance_Check> GaussDB_Guide::check(Instance const& instance, Check_Scope scope) {
    int const flavour = identify(instance).flavour;
    bool const is_declared = flavour == GAUSSDB_UNKNOWN && instance.options.count("address");
    std::vector<Instance_Check> lines;
    if (scope == TO_BACK_UP)
        lines = GaussDB_Host_Check(instance, flavour).instance();
    if (flavour == GAUSSDB_TPOPS)
        append(lines, GaussDB_TPOPS_Check(instance).run(scope));
    else if (flavour == GAUSSDB_T && scope == TO_BACK_UP)
        append(lines, GaussDB_T_Check(instance).run());
    else if (is_declared || is_reached_by_ssh(flavour))
        append(lines, GaussDB_Node_Check(instance.options).run(scope));
    if (scope == TO_BACK_UP)
        append(lines, GaussDB_Host_Check(instance, flavour).places(writer_of(lines)));
    return lines;
}

/** The platform builds a backup on what it knows itself. */
Backup_Outlook GaussDB_Guide::outlook(Instance const& instance, std::string const& pool,
                                      std::string const& level,
                                      json_spirit::Array const& usable) const {
    Backup_Outlook outlook;
    if (identify(instance).flavour != GAUSSDB_TPOPS || level == "full")
        return outlook;
    std::string timeline;
    bool is_known = false; // the platform knows a backup of the timeline
    for (json_spirit::Object const& backup : json_spirit::objects_of(usable))
        if (timeline.empty() && object_get_str(backup, "type") == "full")
            timeline = object_get_str(backup, "timeline");
    for (json_spirit::Object const& backup : json_spirit::objects_of(usable))
        is_known |= object_get_str(backup, "timeline") == timeline &&
                    !object_get_str(backup, "backup_id").empty();
    if (timeline.empty()) {
        outlook.note = "Pool " + pool + " has no full backup of " + instance.name +
                       " since its last restore: this becomes a full backup.";
    } else if (level == "log" && !is_known) {
        outlook.refusal = "its platform knows no backup that the log could follow";
        outlook.advice = "Make a full backup first.";
    }
    return outlook;
}

std::vector<std::pair<std::string, std::string>>
GaussDB_Guide::contents(json_spirit::Object const& set) const {
    std::vector<std::pair<std::string, std::string>> lines;
    if (is_of_schemas(set))
        lines.emplace_back("Holds", "schemas " + joined(held_by(set, "schema")) + " of database " +
                                        or_unknown(object_get_str(set, "database")));
    else if (object_get_str(set, "type") == "log")
        lines.emplace_back("Holds", "the archived log behind the backup before it");
    else
        lines.emplace_back("Holds", "the whole instance");
    switch (series_of(set)) {
    case GAUSSDB_T:
        lines.emplace_back("Written to", or_unknown(object_get_str(set, "meta_destination")));
        break;
    case GAUSSDB_TPOPS:
        lines.emplace_back("On the platform", or_unknown(object_get_str(set, "backup_id")));
        break;
    default:
        break;
    }
    return lines;
}

Loss GaussDB_Guide::restore_loss(json_spirit::Object const& set, std::string const& target,
                                 std::vector<std::string> const& tables) const {
    Loss loss;
    if (!tables.empty()) {
        loss.title = "This restores tables to instance " + target + ", which goes on running.";
        loss.lost = "a table that has a target's name already";
        for (std::string const& table : tables)
            loss.lines.emplace_back("Table", table);
    } else if (is_of_schemas(set)) {
        // no other database is touched
        loss.title = "This rebuilds schemas of database " +
                     or_unknown(object_get_str(set, "database")) + " of instance " + target +
                     ", which goes on running.";
        loss.lost = "what these schemas hold, unless the backup tool refuses schemas that are "
                    "not empty; nothing else";
        for (std::string const& schema : held_by(set, "schema"))
            loss.lines.emplace_back("Schema", schema);
    }
    return loss;
}

Loss GaussDB_Guide::backup_loss(json_spirit::Object const& set,
                                json_spirit::Array const& others) const {
    Loss loss;
    auto const rows = json_spirit::objects_of(others);
    bool const is_newest = rows.begin() != rows.end() &&
                           object_get_str(*rows.begin(), "uuid") == object_get_str(set, "uuid");
    if (series_of(set) == GAUSSDB_T && is_newest)
        loss.lines.emplace_back("Next backup", "must be a full one: the database builds on the "
                                               "set that it has made last");
    if (series_of(set) == GAUSSDB_TPOPS)
        loss.lines.emplace_back("Platform", "keeps its own record of the backup");
    return loss;
}

Loss GaussDB_Guide::instance_loss(Instance const& instance) const {
    Loss loss;
    int const flavour = identify(instance).flavour;
    if (flavour == GAUSSDB_TPOPS)
        loss.lines.emplace_back("Lost", "the login to its platform and its XBSA route; the "
                                        "platform keeps the instance");
    else if (is_reached_by_ssh(flavour))
        loss.lines.emplace_back("Lost", "its address, paths and ssh options, which `instance add` "
                                        "asks for anew");
    else
        loss.lines.emplace_back("Lost", "nothing that the next search would not find, while the "
                                        "database runs");
    return loss;
}
