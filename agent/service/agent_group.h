#ifndef AGENT_SERVICE_AGENT_GROUP_H
#define AGENT_SERVICE_AGENT_GROUP_H

#include "agent/rpc/group_link.h"
#include "agent/rpc/group_server.h"
#include "agent/rpc/local_upstream.h"
#include "agent/service/member_duties.h"
#include "agent/service/run_access.h"

#include <memory>
#include <string>

class SQLite_Instances;
struct Agent_Config;
struct Agent_Identity;

/**
 * The agent's place among agents, as its configuration has it: the way to the backup server of a
 * member, or the backup server itself; an agent that is alone is its own. Installs the
 * Upstream_Backend of Host_Services. For the main thread.
 */
class Agent_Group {
public:
    /** All live longer. */
    Agent_Group(Agent_Config const& config, Agent_Identity const& identity, Method_Table& methods,
                Rest_Routes const& routes, SQLite_Instances& instances, Group_Rules& rules,
                Run_Access const& runs);

    /**
     * Before the methods are served.
     * @param key  of a member, towards the backup server
     * @return false with what is wrong with the configuration
     */
    [[nodiscard]] bool prepare(secure_string const& key, std::string& error);
    /**
     * Once they are. @param port  at which this agent serves
     * @return false with what went wrong
     */
    [[nodiscard]] bool join(unsigned short port, std::string& error);
    void stop();
    /** Member_Duties::drop_set_of() of a member; no-op before join(). */
    void drop_set_of(std::string const& run_id);
    /** The group's middle; null in a member. */
    Group_Server* server() { return server_.get(); }

private:
    [[nodiscard]] bool publish_certificate(std::string& error) const;

    Agent_Config const& config_;
    Agent_Identity const& identity_;
    Method_Table& methods_;
    Rest_Routes const& routes_;
    SQLite_Instances& instances_;
    Group_Rules& rules_;
    Run_Access const& runs_;
    std::unique_ptr<Group_Server> server_;  ///< of who is no member
    std::shared_ptr<Local_Upstream> local_; ///< of who is no member
    std::shared_ptr<Group_Link> link_;      ///< of a member
    std::unique_ptr<Member_Duties> duties_; ///< of a member
};

#endif
