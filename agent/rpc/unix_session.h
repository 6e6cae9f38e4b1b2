#ifndef AGENT_RPC_UNIX_SESSION_H
#define AGENT_RPC_UNIX_SESSION_H

#include "agent/rpc/message_budget.h"
#include "agent/rpc/rpc_peer.h"

#include <array>
#include <atomic>
#include <boost/asio/local/stream_protocol.hpp>

/**
 * A client at the agent's own socket: one JSON text a line. An empty line means nothing, and a last
 * line without its end is dropped. A client that has closed its side still gets its answers.
 */
class Unix_Session : public Rpc_Peer {
public:
    using Socket = boost::asio::local::stream_protocol::socket;

    Unix_Session(std::shared_ptr<void> lease, Socket socket, Method_Table& table,
                 Rpc_Limits const& limits, Rpc_Caller const& caller);

    /** Begins to read. On the socket's thread. */
    void start();
    void close() override;

protected:
    [[nodiscard]] bool write(std::string text) override;
    void resume() override;
    void tick_i(Clock::time_point now) override;

private:
    std::shared_ptr<Unix_Session> self() {
        return std::static_pointer_cast<Unix_Session>(shared_from_this());
    }
    void read();
    void on_read(size_t size);
    [[nodiscard]] bool take_line();
    void go_on();
    void refuse_size();
    void refuse_for_want_of_room();
    void shrink_inbox();
    void end_when_done();
    void await_writable();
    void flush();
    [[nodiscard]] bool send_some();
    void shut();

    // on the socket's thread only
    std::string inbox_;
    std::shared_ptr<Message_Budget::Charge> charge_; ///< of the message that is coming in
    size_t taken_ = 0;                               ///< bytes of the inbox that have been handled
    size_t searched_ = 0; ///< up to where there is no line's end behind them
    bool reading_ = false;
    bool at_end_ = false; ///< the client sends no more

    std::atomic<bool> paused_ = false; ///< go_on() has to be called when an answer has gone

    std::mutex out_mutex_; ///< for the rest
    Socket socket_;
    std::string outbox_;
    size_t sent_ = 0; ///< bytes of the outbox that have gone
    bool waiting_ = false;
    bool closed_ = false;
    std::array<char, 64 * 1024> buffer_;
};

#endif
