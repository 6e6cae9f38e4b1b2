#include "agent/service/group_instances.h"

#include "agent/catalog/sqlite_catalog.h"
#include "agent/database/agent_database.h"
#include "agent/jobs/member_reader.h"
#include "agent/service/agent_identity.h"
#include "agent/service/agent_methods.h"
#include "agent/service/instance_probe.h"

#include <ctime>
#include <set>

using json_spirit::Object;
using json_spirit::Value;

char const GROUP_TABLES[] =
    "CREATE TABLE group_instance("
    "    host_uuid TEXT NOT NULL, type TEXT NOT NULL, name TEXT NOT NULL,"
    "    instance_uuid TEXT NOT NULL, PRIMARY KEY(host_uuid, type, name)) STRICT, WITHOUT ROWID;"
    "CREATE INDEX group_instance_uuid ON group_instance(instance_uuid);";

namespace {

void bind_all(SQLite::Statement& statement, std::vector<std::string> const& values) {
    int index = 0;
    for (std::string const& value : values)
        statement.bind(++index, value);
}

/** Reads "2026-11-21 10:00:00", local time. */
bool parse_local_time(std::string const& text, time_t& result) {
    tm parts = {};
    char const* const end = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    if (!end || *end)
        return false;
    parts.tm_isdst = -1;
    result = mktime(&parts);
    return result != -1;
}

} // namespace

bool Group_Instances::note(std::string const& host_uuid, std::string const& type,
                           std::string const& name, std::string const& instance_uuid) {
    return database_.change("note an instance of the group", [&](SQLite::Database& database) {
        SQLite::Statement insert(
            database, "INSERT INTO group_instance VALUES(?, ?, ?, ?)"
                      " ON CONFLICT DO UPDATE SET instance_uuid = excluded.instance_uuid");
        bind_all(insert, {host_uuid, type, name, instance_uuid});
        insert.exec();
        return true;
    });
}

bool Group_Instances::forget(std::string const& host_uuid, std::string const& type,
                             std::string const& name) {
    return database_.change("forget an instance of the group", [&](SQLite::Database& database) {
        SQLite::Statement erase(
            database, "DELETE FROM group_instance WHERE host_uuid = ? AND type = ? AND name = ?");
        bind_all(erase, {host_uuid, type, name});
        erase.exec();
        return true;
    });
}

bool Group_Instances::has(std::string const& host_uuid, std::string const& type,
                          std::string const& name) {
    bool found = false;
    (void)database_.read("look for an instance of a host", [&](SQLite::Database& database) {
        SQLite::Statement known(
            database, host_uuid == identity_.host_uuid
                          ? "SELECT 1 FROM instance WHERE type = ?2 AND name = ?3"
                          : "SELECT 1 FROM group_instance WHERE host_uuid = ?1 AND type = ?2 AND "
                            "name = ?3");
        if (host_uuid != identity_.host_uuid)
            known.bind(1, host_uuid);
        known.bind(2, type);
        known.bind(3, name);
        found = known.executeStep();
        return true;
    });
    return found;
}

std::vector<std::string> Group_Instances::hosts_of(std::string const& instance_uuid) {
    std::set<std::string> hosts;
    (void)database_.read("list the hosts of an instance", [&](SQLite::Database& database) {
        SQLite::Statement others(database,
                                 "SELECT host_uuid FROM group_instance WHERE instance_uuid = ?");
        others.bind(1, instance_uuid);
        while (others.executeStep())
            hosts.insert(others.getColumn(0).getString());
        SQLite::Statement own(database, "SELECT 1 FROM instance WHERE uuid = ?");
        own.bind(1, instance_uuid);
        if (own.executeStep())
            hosts.insert(identity_.host_uuid);
        return true;
    });
    return {hosts.begin(), hosts.end()};
}

namespace {

bool failed(Method_Fault& fault) {
    fault.message =
        "the record of the group could not be changed; the backup server's log says why";
    return false;
}

/** The host that a call comes from. */
std::string caller(Method_Call const& call, Agent_Identity const& identity) {
    return call.caller.is(Rpc_Caller::MEMBER) ? call.caller.host_uuid : identity.host_uuid;
}

/** The hosts of a cluster find it each for itself; nothing here can tell a false claim from that.
 */
void tell_of_others(std::vector<std::string> const& hosts, Rpc_Caller const& member,
                    std::string const& instance) {
    if (!hosts.empty())
        QMRT_LOG(LM_WARNING,
                 "%s now says that it has the instance %s, as host %s does; if it is not a node of "
                 "that cluster, remove it: zenbrak3 member remove\n",
                 member.text().c_str(), names::shown(instance).c_str(), hosts.front().c_str());
}

bool notify_instance(Group_Instances& instances, std::string const& host, Method_Call const& call,
                     Method_Fault& fault) {
    std::string error, type, name, uuid, change = "added";
    Member_Reader reader(call.params.get_obj(), "", error);
    reader.required_text("type", type, names::fault_of_id);
    reader.required_text("name", name, names::fault_of_instance);
    reader.text("uuid", uuid, names::fault_of_id);
    reader.text("change", change, names::fault_of_id);
    if (!error.empty())
        return invalid_params(error, fault);
    if (change == "removed")
        return instances.forget(host, type, name) || failed(fault);
    if (uuid.empty())
        uuid = Instance_Probe::uuid_of(type, name);
    if (call.caller.is(Rpc_Caller::MEMBER) && !instances.has(host, type, name))
        tell_of_others(instances.hosts_of(uuid), call.caller, name);
    return instances.note(host, type, name, uuid) || failed(fault);
}

bool restore_branch(SQLite_Catalog& catalog, Method_Call const& call, Value& result,
                    Method_Fault& fault) {
    std::string error, resource, text;
    time_t when = 0;
    Member_Reader reader(call.params.get_obj(), "", error);
    reader.required_text("resource_uuid", resource, names::fault_of_id);
    reader.required_text("restore_time", text);
    if (error.empty() && !parse_local_time(text, when))
        reader.blame("restore_time", "wanted a local time like \"2026-11-21 10:00:00\"");
    if (!reader.finish())
        return invalid_params(error, fault);
    if (!catalog.mark_restored(resource, when))
        return failed(fault);
    result = true;
    return true;
}

} // namespace

void add_group_methods(Method_Table& methods, Group_Instances& instances, SQLite_Catalog& catalog,
                       Agent_Identity const& identity) {
    methods.add("backupd.instance.notify",
                [&](Method_Call const& call, Value& result, Method_Fault& fault) {
                    result = Object();
                    return notify_instance(instances, caller(call, identity), call, fault);
                });
    methods.add("backup_set.gaussdb_restore_branch",
                [&](Method_Call const& call, Value& result, Method_Fault& fault) {
                    return restore_branch(catalog, call, result, fault);
                });
}
