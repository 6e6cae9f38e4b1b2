#ifndef AGENT_RPC_GROUP_CONNECTION_H
#define AGENT_RPC_GROUP_CONNECTION_H

#include "agent/rpc/group_link.h"
#include "host/rpc/json_rpc_channel.h"

/**
 * The WebSocket connection of a Group_Link, made again whenever it breaks. start() and stop() are
 * for one thread at a time, the others for any.
 */
class Group_Connection {
public:
    Group_Connection(Method_Table& methods, Group_Link_Options const& options);
    /** Calls stop(). */
    ~Group_Connection();

    /** @return false with what is wrong with the authorities' file */
    [[nodiscard]] bool start(std::string const& host, unsigned short port, std::string& error);
    void stop();

    /**
     * The way to the server.
     * @param wait  how long to wait for one
     * @return null when there is none; then @a reason says why
     */
    JSON_RPC_Channel_var channel(std::chrono::milliseconds wait, std::string& reason) const;
    [[nodiscard]] bool await(bool connected, std::chrono::milliseconds timeout) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

#endif
