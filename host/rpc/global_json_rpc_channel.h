#ifndef HOST_RPC_GLOBAL_JSON_RPC_CHANNEL_H
#define HOST_RPC_GLOBAL_JSON_RPC_CHANNEL_H

#include "host/rpc/json_rpc_channel.h"

/**
 * The agent's shared channel to the backup server, over the back end that is installed. It carries
 * notifications and, by request(), calls; what the server asks of the agent comes another way, so
 * responses are refused.
 */
class Global_JSON_RPC_Channel : public JSON_RPC_Channel {
public:
    /** Never null, never destroyed. */
    static JSON_RPC_Channel* instance();

protected:
    int send_i(JSON_RPC_Object const& object) override;
    [[nodiscard]] bool request_i(JSON_RPC_Request const& request, std::chrono::milliseconds timeout,
                                 JSON_RPC_Reply& reply) override;

private:
    Global_JSON_RPC_Channel() = default;
};

#endif
