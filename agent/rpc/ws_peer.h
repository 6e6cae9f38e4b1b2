#ifndef AGENT_RPC_WS_PEER_H
#define AGENT_RPC_WS_PEER_H

#include "agent/rpc/message_budget.h"
#include "agent/rpc/rpc_peer.h"

#include <atomic>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <deque>

using Tls_Stream = boost::beast::ssl_stream<boost::beast::tcp_stream>;
using Ws_Stream = boost::beast::websocket::stream<Tls_Stream>;

/** One end of a WebSocket connection over TLS after its handshakes: one JSON text a message. */
class Ws_Peer : public Rpc_Peer {
public:
    Ws_Peer(std::shared_ptr<void> lease, std::unique_ptr<Ws_Stream> stream, Method_Table& table,
            Rpc_Limits const& limits, Rpc_Caller caller);

    /** Begins to read. On the stream's thread. */
    void start();
    /** Ends the connection without the closing handshake, which a dead peer would hold up. */
    void close() override;

protected:
    [[nodiscard]] bool write(std::string text) override;
    void resume() override;
    void tick_i(Clock::time_point now) override;

private:
    std::shared_ptr<Ws_Peer> self() {
        return std::static_pointer_cast<Ws_Peer>(shared_from_this());
    }
    void read();
    void on_read(boost::system::error_code const& error);
    void go_on();
    void send_next();
    void on_sent(boost::system::error_code const& error);
    void shut();

    std::atomic<bool> paused_ = false; ///< go_on() has to be called when an answer has gone

    // on the stream's thread only
    std::unique_ptr<Ws_Stream> const stream_;
    boost::beast::flat_buffer inbox_;
    std::shared_ptr<Message_Budget::Charge> charge_; ///< of the message that is coming in
    bool reading_ = false;
    bool pinging_ = false;
    Clock::time_point heard_ = Clock::now();
    Clock::time_point pinged_ = Clock::now();

    std::mutex out_mutex_; ///< for the rest
    std::deque<std::string> outbox_;
    size_t unsent_ = 0; ///< bytes of the outbox
    bool writing_ = false;
    bool closed_ = false;
};

#endif
