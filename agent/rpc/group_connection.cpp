#include "agent/rpc/group_connection.h"

#include "agent/rpc/rpc_io.h"
#include "agent/rpc/rpc_sessions.h"
#include "agent/rpc/tls_context.h"
#include "agent/rpc/ws_peer.h"
#include "qmrt/log.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/http.hpp>
#include <condition_variable>

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using boost::asio::ip::tcp;
using boost::system::error_code;
using json_spirit::Object;

namespace {
constexpr char AGENT_ENDING[] = "this agent is ending";
constexpr char TRYING[] = "the connection to the backup server is being made";
} // namespace

struct Group_Connection::Impl {
    Impl(Method_Table& the_methods, Group_Link_Options const& the_options)
        : methods(the_methods),
          options(the_options),
          sessions(io.context, options.limits),
          resolver(io.context),
          timer(io.context),
          delay(options.reconnect) {}

    void connect();
    void on_resolved(tcp::resolver::results_type const& addresses);
    void tls_handshake();
    void ws_handshake();
    void on_upgraded(error_code const& error);
    void join(std::shared_ptr<Ws_Peer> const& joining);
    void on_joined(bool accepted, JSON_RPC_Reply const& reply, std::weak_ptr<Ws_Peer> const& weak);
    void on_gone();
    void fail(std::string const& why);
    bool go_on(char const* step, error_code const& error);
    void end();

    Method_Table& methods;
    Group_Link_Options const options;
    std::string host;
    std::string port;
    std::shared_ptr<boost::asio::ssl::context> tls;

    // on the io thread only
    Rpc_Io io;
    Rpc_Sessions sessions;
    tcp::resolver resolver;
    boost::asio::steady_timer timer;
    std::unique_ptr<Ws_Stream> stream; ///< while the connection is being made
    websocket::response_type response;
    std::string refusal; ///< of this agent by the server, to be told when the connection has ended
    std::string told;    ///< the failure that was logged last
    Group_Link_Options::Duration delay;
    bool stopping = false;

    mutable std::mutex mutex; ///< for the rest
    mutable std::condition_variable changed;
    std::shared_ptr<Ws_Peer> peer; ///< null unless the server has accepted this agent
    std::string reason = TRYING;   ///< why there is none
};

void Group_Connection::Impl::connect() {
    if (stopping)
        return;
    stream = std::make_unique<Ws_Stream>(io.context, *tls);
    resolver.async_resolve(host, port,
                           [this](error_code const& error, tcp::resolver::results_type addresses) {
                               if (go_on("cannot find its address", error))
                                   on_resolved(addresses);
                           });
}

void Group_Connection::Impl::on_resolved(tcp::resolver::results_type const& addresses) {
    auto& socket = beast::get_lowest_layer(*stream);
    socket.expires_after(options.limits.message);
    socket.async_connect(addresses, [this](error_code const& error, tcp::endpoint const&) {
        if (go_on("cannot connect", error))
            tls_handshake();
    });
}

void Group_Connection::Impl::tls_handshake() {
    auto& secure = stream->next_layer();
    error_code ignored;
    boost::asio::ip::make_address(host, ignored);
    if (ignored) // a name, and no address, which must not be sent
        SSL_set_tlsext_host_name(secure.native_handle(), host.c_str());
    secure.set_verify_callback(boost::asio::ssl::host_name_verification(host));
    beast::get_lowest_layer(*stream).expires_after(options.limits.message);
    secure.async_handshake(boost::asio::ssl::stream_base::client, [this](error_code const& error) {
        if (go_on("no TLS handshake", error))
            ws_handshake();
    });
}

void Group_Connection::Impl::ws_handshake() {
    error_code ignored;
    auto& socket = beast::get_lowest_layer(*stream);
    socket.socket().set_option(tcp::no_delay(true), ignored);
    socket.expires_never();
    websocket::stream_base::timeout limit{};
    limit.handshake_timeout = options.limits.message;
    limit.idle_timeout = websocket::stream_base::none();
    stream->set_option(limit);
    stream->set_option(websocket::stream_base::decorator([this](websocket::request_type& request) {
        request.set(http::field::authorization,
                    "Bearer " + std::string(options.access_key.data(), options.access_key.size()));
    }));
    bool const ipv6 = host.find(':') != std::string::npos;
    std::string const authority = (ipv6 ? "[" + host + "]" : host) + ":" + port;
    stream->async_handshake(response, authority, "/",
                            [this](error_code const& error) { on_upgraded(error); });
}

void Group_Connection::Impl::on_upgraded(error_code const& error) {
    if (error == websocket::error::upgrade_declined &&
        response.result() == http::status::unauthorized)
        return fail(
            "it refuses the access key: `zenbrak3 member add` there makes one for this agent");
    if (!go_on("no WebSocket handshake", error))
        return;
    stream->set_option(websocket::stream_base::decorator([](websocket::request_type&) {}));
    auto const joining = std::make_shared<Ws_Peer>(io.lease(), std::move(stream), methods,
                                                   options.limits, Rpc_Caller::backupd());
    sessions.add(joining);
    joining->start();
    joining->caller(Rpc_Caller::backupd()); // never closed for being idle
    joining->when_gone([this] { on_gone(); });
    join(joining);
}

void Group_Connection::Impl::join(std::shared_ptr<Ws_Peer> const& joining) {
    Object const params{{"host_uuid", options.host_uuid},
                        {"name", options.name},
                        {"component", options.component},
                        {"version", options.version},
                        {"runs", options.runs ? options.runs() : json_spirit::Array()}};
    std::weak_ptr<Ws_Peer> const weak = joining;
    joining->request("group.join", params, options.limits.message,
                     [this, weak](bool accepted, JSON_RPC_Reply const& reply) {
                         on_joined(accepted, reply, weak);
                     });
}

void Group_Connection::Impl::on_joined(bool accepted, JSON_RPC_Reply const& reply,
                                       std::weak_ptr<Ws_Peer> const& weak) {
    std::shared_ptr<Ws_Peer> const joining = weak.lock();
    if (!joining)
        return;
    std::lock_guard const guard(mutex);
    if (!accepted) {
        if (reply.code != JSON_RPC_UNREACHABLE)
            refusal = "it refuses this agent, " + qmrt::to_one_line(reply.message);
        return joining->close(); // on_gone() goes on from there
    }
    peer = joining;
    reason.clear();
    told.clear();
    delay = options.reconnect;
    changed.notify_all();
    QMRT_LOG(LM_INFO, "Connected to the backup server at %s\n", options.url.c_str());
}

void Group_Connection::Impl::on_gone() {
    fail(refusal.empty() ? "the connection broke" : std::exchange(refusal, ""));
}

/** @return true when the step has succeeded and the next one may begin */
bool Group_Connection::Impl::go_on(char const* step, error_code const& error) {
    if (!error && !stopping)
        return true;
    fail(std::string(step) + ", " + error.message());
    return false;
}

void Group_Connection::Impl::fail(std::string const& why) {
    if (!stopping && told != why)
        QMRT_LOG(LM_WARNING, "No connection to the backup server at %s, %s; trying again\n",
                 options.url.c_str(), why.c_str());
    told = why;
    std::shared_ptr<Ws_Peer> former; // goes after the lock is given back
    {
        std::lock_guard const guard(mutex);
        former.swap(peer);
        reason = stopping ? AGENT_ENDING : "the backup server at " + options.url + ": " + why;
        changed.notify_all();
    }
    stream.reset();
    if (stopping)
        return;
    timer.expires_after(delay);
    delay = std::min(delay * 2, options.reconnect_most);
    timer.async_wait([this](error_code const& error) {
        if (!error)
            connect();
    });
}

void Group_Connection::Impl::end() {
    stopping = true;
    timer.cancel();
    resolver.cancel();
    if (stream)
        beast::get_lowest_layer(*stream).close();
    sessions.stop();
    std::lock_guard const guard(mutex);
    reason = AGENT_ENDING;
    changed.notify_all();
}

Group_Connection::Group_Connection(Method_Table& methods, Group_Link_Options const& options)
    : impl_(std::make_unique<Impl>(methods, options)) {}

Group_Connection::~Group_Connection() {
    stop();
}

bool Group_Connection::start(std::string const& host, unsigned short port, std::string& error) {
    impl_->tls = make_client_context(impl_->options.ca_file, error);
    if (!impl_->tls)
        return false;
    impl_->host = host;
    impl_->port = std::to_string(port);
    boost::asio::post(impl_->io.context, [impl = impl_.get()] {
        impl->sessions.start();
        impl->connect();
    });
    impl_->io.start();
    return true;
}

void Group_Connection::stop() {
    boost::asio::post(impl_->io.context, [impl = impl_.get()] { impl->end(); });
    impl_->io.finish();
}

JSON_RPC_Channel_var Group_Connection::channel(std::chrono::milliseconds wait,
                                               std::string& reason) const {
    std::unique_lock lock(impl_->mutex);
    impl_->changed.wait_for(lock, wait,
                            [this] { return impl_->peer || impl_->reason == AGENT_ENDING; });
    reason = impl_->reason;
    return impl_->peer ? impl_->peer->channel() : JSON_RPC_Channel_var();
}

bool Group_Connection::await(bool connected, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(impl_->mutex);
    return impl_->changed.wait_for(lock, timeout,
                                   [&] { return (impl_->peer != nullptr) == connected; });
}
