#ifndef AGENT_RPC_RPC_SESSIONS_H
#define AGENT_RPC_RPC_SESSIONS_H

#include "agent/rpc/rpc_peer.h"

#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <vector>

/** The connections of one Rpc_Io, looked after from time to time. On its thread only. */
class Rpc_Sessions {
public:
    explicit Rpc_Sessions(boost::asio::io_context& context, Rpc_Limits const& limits);

    /** After stop() the peer is closed. */
    void add(std::shared_ptr<Rpc_Peer> const& peer);
    /** Begins to look after them. */
    void start();
    /** Closes all, and is done. */
    void stop();

private:
    void tick();

    boost::asio::steady_timer timer_;
    Rpc_Limits::Duration const interval_;
    std::vector<std::weak_ptr<Rpc_Peer>> peers_;
    bool stopped_ = false;
};

#endif
