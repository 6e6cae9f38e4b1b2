#ifndef AGENT_INSTANCES_SQLITE_INSTANCES_H
#define AGENT_INSTANCES_SQLITE_INSTANCES_H

#include "agent/database/agent_database.h"
#include "agent/instances/account_key.h"

#include "host/agent/instance_backend.h"

/** The tables of instances and accounts, a script for Agent_Database. */
extern char const INSTANCE_TABLES[];

/**
 * Instances and accounts in the agent's database. Passwords are kept as encrypt_string() gives
 * them under the agent's own key; the other keys of an account, and the options of an instance, as
 * JSON texts.
 */
class SQLite_Instances : public Instance_Backend {
public:
    /**
     * @param database    lives longer
     * @param has_server  this agent has a backup server above it, which is to be told of changes
     */
    SQLite_Instances(Agent_Database& database, Account_Key key, bool has_server)
        : database_(database), key_(std::move(key)), has_server_(has_server) {}

    std::shared_ptr<Instance> find(std::string const& type, std::string const& name) override;
    std::vector<std::shared_ptr<Instance>> list(std::string const& type) override;
    [[nodiscard]] bool put(Instance const& instance) override;
    [[nodiscard]] bool erase(std::string const& type, std::string const& name) override;
    [[nodiscard]] bool save_account(std::string const& type, std::string const& name,
                                    std::string const& uid,
                                    json_spirit::Object const& account) override;
    [[nodiscard]] bool get_account(std::string const& type, std::string const& name,
                                   std::string const& uid, json_spirit::Object& account) override;
    /**
     * Sends "backupd.instance.notify" through the Upstream_Backend of Host_Services: {"type",
     * "name", "uuid", "change": "added", "updated" or "removed", "options", "accounts":
     * [{"user_uuid", "name"}]}; without options and accounts for one that was removed.
     */
    [[nodiscard]] bool tell_server(Change change, Instance const& instance) override;

    /** Instances of every type, in ascending order of type and name. */
    std::vector<std::shared_ptr<Instance>> list_all();

private:
    using Instances = std::vector<std::shared_ptr<Instance>>;
    /** @param condition  of the columns type and name, with a ? for each of @a values */
    [[nodiscard]] bool read(std::string const& condition, std::vector<std::string> const& values,
                            Instances& instances);

    Agent_Database& database_;
    Account_Key const key_;
    bool const has_server_;
};

#endif
