#ifndef AGENT_RPC_GROUP_SERVER_H
#define AGENT_RPC_GROUP_SERVER_H

#include "agent/rpc/method_table.h"
#include "json_spirit/secure_string.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/** What the group's middle asks of those who keep the members and the runs. On any thread. */
class Group_Rules {
public:
    virtual ~Group_Rules() = default;

    /** Whether a member may join as that host. @param why  when false */
    [[nodiscard]] virtual bool admit(Rpc_Caller const& member, std::string const& host_uuid,
                                     std::string& why) = 0;
    /** A host has joined, and says which of its runs are on, as Run_Keys::dump() has them. */
    virtual void joined(std::string const& host_uuid, json_spirit::Array const& runs) = 0;
    virtual void left(std::string const& host_uuid) = 0;

    /** A call of one agent to another, for a run. */
    struct Forward {
        Rpc_Caller const& from; ///< a member, or local for this agent itself
        std::string const& to;  ///< the host's uuid
        std::string const& method;
        json_spirit::Value const& params;
        secure_string const& key; ///< of the run
    };
    /** The run that a call may be forwarded for. @return null when it may not, and why */
    virtual std::shared_ptr<Run_Scope const> run_of(Forward const& forward, std::string& why) = 0;
};

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
 *     group.join     {"host_uuid", "name"?, "component"?, "version"?, "runs"?} -> {"name": own
 * uuid} group.forward  {"host_uuid", "method", "params"?, "key"} -> what the agent answers
 *     group.deliver  see serve_deliveries()
 *
 * Group_Rules say who may do so. group.join makes the WebSocket connection that it comes through
 * that agent's; an earlier one of the same host is closed. group.forward to a host that is not
 * connected, or goes before it has answered, is JSON_RPC_UNREACHABLE at once; to the own uuid it is
 * delivered here. Who calls is not held up by forwards of others: no thread waits for an answer.
 * For any thread.
 */
class Group_Server {
public:
    /** Members that are known at most; those that went first are forgotten for new ones. */
    static constexpr size_t MOST_MEMBERS = 1024;

    /**
     * @param methods   stays the caller's and lives longer; its server is stopped before this goes
     * @param rules     the same
     * @param own_uuid  of this host
     * @param answer    how long an agent may take over a call
     */
    Group_Server(Method_Table& methods, Group_Rules& rules, std::string own_uuid,
                 std::chrono::milliseconds answer = std::chrono::minutes(5));
    /** Serves the methods no longer. */
    ~Group_Server();
    Group_Server(Group_Server const&) = delete;
    Group_Server& operator=(Group_Server const&) = delete;

    /** All that have joined, in ascending order of their uuids. */
    std::vector<Group_Member> members() const;

    /**
     * Calls a method of an agent, or of this one, from within this process, for the run that the
     * calling thread works for, and waits.
     */
    [[nodiscard]] bool forward(std::string const& host_uuid, std::string const& method,
                               json_spirit::Value const& params, JSON_RPC_Reply& reply);

    /** Ends the connection of a host, if it has one. */
    void close(std::string const& host_uuid);

private:
    class State;
    Method_Table& methods_;
    std::shared_ptr<State> const state_;
};

#endif
