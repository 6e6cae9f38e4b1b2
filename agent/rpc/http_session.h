#ifndef AGENT_RPC_HTTP_SESSION_H
#define AGENT_RPC_HTTP_SESSION_H

#include "agent/rpc/access_key.h"
#include "agent/rpc/connection_slots.h"
#include "agent/rpc/message_budget.h"
#include "agent/rpc/rest_routes.h"
#include "agent/rpc/rpc_io.h"
#include "agent/rpc/rpc_sessions.h"
#include "agent/rpc/ws_peer.h"
#include "host/process/cancellation.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/http.hpp>

/** What the connections at the port have in common; lives longer than they do. */
struct Http_Service {
    Method_Table& methods;
    Rest_Routes const& routes;
    Rpc_Sessions& sessions;
    Rpc_Limits const limits;
    Access_Key const key;
    std::function<Rpc_Caller(Key_Digest const& key)> const known_keys; ///< may be null
    Denials denials;                                                   ///< on the io thread only
    std::optional<boost::asio::thread_pool> rest_threads; ///< set when the port is open
};

/**
 * One connection at the port, from its TLS handshake on: it answers REST requests, until it becomes
 * a WebSocket connection and is a Ws_Peer's. On the io thread only.
 */
class Http_Session : public std::enable_shared_from_this<Http_Session> {
public:
    Http_Session(std::shared_ptr<void> lease, std::shared_ptr<Connection_Slots::Slot> slot,
                 std::unique_ptr<Tls_Stream> stream, std::string address, Http_Service& service);

    void start();
    void close();

private:
    using Request = boost::beast::http::request<boost::beast::http::string_body>;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;

    Rpc_Caller find_caller() const;
    void read_header();
    void on_header(boost::system::error_code const& error);
    void read_body();
    [[nodiscard]] bool has_room_for_body();
    void refuse_for_want_of_room();
    void deny();
    void forbid();
    void upgrade();
    void answer(Request request);
    void watch_caller();
    void send(Response response);

    std::shared_ptr<void> const lease_;
    std::shared_ptr<Connection_Slots::Slot> const slot_;
    Rpc_Peer::Clock::time_point const key_by_; ///< when the key has to have been shown
    bool keyed_ = false;
    std::shared_ptr<Message_Budget::Charge> charge_; ///< of the request that is not answered
    std::unique_ptr<Tls_Stream> stream_;             ///< null when it has become another's
    std::unique_ptr<Ws_Stream> upgrading_;
    std::string const address_;
    Http_Service& service_;
    boost::asio::steady_timer delay_;    ///< also the watch over the caller while it waits
    std::shared_ptr<Cancellation> call_; ///< of the request that is being answered
    boost::beast::flat_buffer buffer_;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> parser_;
    Response response_;
    Rpc_Caller caller_; ///< of the request that is being served
    bool closed_ = false;
};

#endif
