#ifndef AGENT_RPC_GROUP_SERVER_H
#define AGENT_RPC_GROUP_SERVER_H

#include "agent/rpc/method_table.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/** An agent of the group, as it announced itself. */
struct Group_Member {
    std::string host_uuid;
    std::string name;
    std::string component;
    std::string version;
    bool connected = false;
    int64_t last_seen = 0; ///< seconds since the epoch; now, while it is connected
};

/**
 * The group's middle, in the backup server: knows the agents that are connected and takes calls
 * from one to another. It serves, in the method table that it is given,
 *
 *     group.join     {"host_uuid", "name"?, "component"?, "version"?} -> {"name": own uuid}
 *     group.forward  {"host_uuid", "method", "params"?} -> what the agent answers
 *
 * group.join makes the WebSocket connection that it comes through that agent's; an earlier one of
 * the same host is closed. group.forward to a host that is not connected, or goes before it has
 * answered, is JSON_RPC_UNREACHABLE at once; to the own uuid it is served here. Who calls is not
 * held up by forwards of others: no thread waits for an answer. For any thread.
 */
class Group_Server {
public:
    /** Members that are known at most; those that went first are forgotten for new ones. */
    static constexpr size_t MOST_MEMBERS = 1024;

    /**
     * @param methods   stays the caller's and lives longer; its server is stopped before this goes
     * @param own_uuid  of this host
     * @param answer    how long an agent may take over a call
     */
    Group_Server(Method_Table& methods, std::string own_uuid,
                 std::chrono::milliseconds answer = std::chrono::minutes(5));
    /** Serves the two methods no longer. */
    ~Group_Server();
    Group_Server(Group_Server const&) = delete;
    Group_Server& operator=(Group_Server const&) = delete;

    /** All that have joined, in ascending order of their uuids. */
    std::vector<Group_Member> members() const;

    /** Calls a method of an agent, or of this one, from within this process, and waits. */
    bool forward(std::string const& host_uuid, std::string const& method,
                 json_spirit::Value const& params, JSON_RPC_Reply& reply);

private:
    class State;
    Method_Table& methods_;
    std::shared_ptr<State> const state_;
};

#endif
