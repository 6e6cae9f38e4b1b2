#ifndef AGENT_RPC_LOCAL_UPSTREAM_H
#define AGENT_RPC_LOCAL_UPSTREAM_H

#include "agent/rpc/group_server.h"
#include "agent/rpc/rest_routes.h"
#include "host/rpc/upstream_backend.h"

#include <atomic>

/**
 * The backup server as its own agent sees it: calls go to the own method table, REST requests to
 * the own routes, forwards to the group. Also for an agent that is in no group, whose forwards
 * reach itself only.
 */
class Local_Upstream : public Upstream_Backend {
public:
    /** How long a call waits for a handler's answer when the caller does not say. */
    static constexpr std::chrono::seconds ANSWER{120};

    /** All stay the caller's and live longer. */
    Local_Upstream(Method_Table& methods, Rest_Routes const& routes, Group_Server& group)
        : methods_(methods), routes_(routes), group_(group) {}

    /** From now on the server cannot be reached: it is ending. */
    void close() { closed_ = true; }

    [[nodiscard]] bool rest(HTTP_Request const& request, json_spirit::Value const* body,
                            HTTP_Response& response, json_spirit::Value* result) override;
    [[nodiscard]] bool call(std::string const& method, json_spirit::Value const& params,
                            Limits const& limits, JSON_RPC_Reply& reply) override;
    [[nodiscard]] bool forward(std::string const& host_uuid, std::string const& method,
                               json_spirit::Value const& params, JSON_RPC_Reply& reply) override;
    [[nodiscard]] bool notify(std::string const& method, json_spirit::Value const& params,
                              std::string& error) override;

private:
    Method_Table& methods_;
    Rest_Routes const& routes_;
    Group_Server& group_;
    std::atomic<bool> closed_ = false;
};

#endif
