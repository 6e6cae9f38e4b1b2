#ifndef AGENT_SERVICE_GROUP_INSTANCES_H
#define AGENT_SERVICE_GROUP_INSTANCES_H

#include "agent/rpc/method_table.h"

#include <string>
#include <vector>

class Agent_Database;
class SQLite_Catalog;
struct Agent_Identity;

/** The table behind Group_Instances. */
extern char const GROUP_TABLES[];

/**
 * Which hosts have which instance, as the backup server knows it: what its members told it, and
 * what is on its own record. On any thread; false has been logged.
 */
class Group_Instances {
public:
    /** Both live longer. */
    Group_Instances(Agent_Database& database, Agent_Identity const& identity)
        : database_(database), identity_(identity) {}

    [[nodiscard]] bool note(std::string const& host_uuid, std::string const& type,
                            std::string const& name, std::string const& instance_uuid);
    [[nodiscard]] bool forget(std::string const& host_uuid, std::string const& type,
                              std::string const& name);
    /** Whether a host has an instance of that type and name. */
    [[nodiscard]] bool has(std::string const& host_uuid, std::string const& type,
                           std::string const& name);
    /** Each host once; none for an instance that nobody has. */
    std::vector<std::string> hosts_of(std::string const& instance_uuid);

private:
    Agent_Database& database_;
    Agent_Identity const& identity_;
};

/**
 * backupd.instance.notify, backup_set.gaussdb_restore_branch, catalog.abort_open: what the members
 * of a group, and this agent's own jobs, tell the backup server.
 */
void add_group_methods(Method_Table& methods, Group_Instances& instances, SQLite_Catalog& catalog,
                       Agent_Identity const& identity);

#endif
