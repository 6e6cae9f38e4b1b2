#include "agent/rpc/tls_listener.h"

#include "agent/rpc/http_session.h"
#include "agent/rpc/peer_user.h"
#include "agent/rpc/tls_context.h"
#include "qmrt/log.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>

using boost::asio::ip::tcp;
using boost::system::error_code;
using namespace std::chrono_literals;

namespace {

/** More than may wait for tools, so that these never keep the others out. */
constexpr size_t REST_THREADS = Method_Table::TOOL_CALLS + 4;

/** The address as a text; an IPv4 address stays one when it came in through an IPv6 socket. */
std::string address_of(tcp::socket const& socket) {
    error_code failure;
    boost::asio::ip::address const address = socket.remote_endpoint(failure).address();
    if (failure)
        return "unknown";
    if (address.is_v6() && address.to_v6().is_v4_mapped())
        return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6())
            .to_string();
    return address.to_string();
}

} // namespace

struct Tls_Listener::Impl {
    Impl(Rpc_Io& the_io, Rpc_Sessions& sessions, std::shared_ptr<Connection_Slots> the_slots,
         Method_Table& methods, Rest_Routes const& routes, Rpc_Server_Options const& the_options)
        : io(the_io),
          slots(std::move(the_slots)),
          options(the_options),
          service{methods,
                  routes,
                  sessions,
                  options.limits,
                  Access_Key(options.access_key),
                  options.known_keys,
                  Denials(options.limits),
                  std::nullopt},
          acceptor(io.context),
          pause(io.context) {}

    bool listen(std::string& error);
    void accept();
    void begin(tcp::socket socket);

    Rpc_Io& io;
    std::shared_ptr<Connection_Slots> const slots;
    Rpc_Server_Options const options;
    Http_Service service;
    tcp::acceptor acceptor;
    boost::asio::steady_timer pause;
    std::shared_ptr<boost::asio::ssl::context> context;
    std::vector<std::weak_ptr<Http_Session>> sessions_begun;
    unsigned short port = 0;
};

Tls_Listener::Tls_Listener(Rpc_Io& io, Rpc_Sessions& sessions,
                           std::shared_ptr<Connection_Slots> slots, Method_Table& methods,
                           Rest_Routes const& routes, Rpc_Server_Options const& options)
    : impl_(std::make_unique<Impl>(io, sessions, std::move(slots), methods, routes, options)) {}

Tls_Listener::~Tls_Listener() = default;

bool Tls_Listener::open(std::string& error) {
    if (impl_->options.access_key.empty()) {
        error = "the port cannot be served without an access key";
        return false;
    }
    impl_->context =
        make_server_context(impl_->options.certificate, impl_->options.private_key, error);
    return impl_->context && impl_->listen(error);
}

bool Tls_Listener::Impl::listen(std::string& error) {
    error_code failure;
    auto const address = boost::asio::ip::make_address(options.address, failure);
    if (failure) {
        error = "'" + options.address + "' is no address to listen at";
        return false;
    }
    tcp::endpoint const endpoint(address, options.port);
    acceptor.open(endpoint.protocol(), failure);
    if (!failure)
        acceptor.set_option(tcp::acceptor::reuse_address(true), failure);
    if (!failure && address.is_v6() && address.is_unspecified())
        acceptor.set_option(boost::asio::ip::v6_only(false), failure);
    if (!failure)
        acceptor.bind(endpoint, failure);
    if (!failure)
        acceptor.listen(tcp::acceptor::max_listen_connections, failure);
    if (failure) {
        error = "cannot listen at " + options.address + " port " + std::to_string(options.port) +
                ", " + failure.message();
        if (failure == boost::asio::error::address_in_use)
            error += "; `ss -ltnp` shows the program that has the port: end it, or set remote.port";
        return false;
    }
    port = acceptor.local_endpoint().port();
    service.rest_threads.emplace(REST_THREADS);
    return true;
}

unsigned short Tls_Listener::port() const {
    return impl_->port;
}

void Tls_Listener::start() {
    impl_->accept();
}

void Tls_Listener::Impl::accept() {
    acceptor.async_accept([this](error_code const& failure, tcp::socket socket) {
        if (!acceptor.is_open())
            return;
        if (!failure) {
            begin(std::move(socket));
            return accept();
        }
        QMRT_LOG(LM_ERROR, "Failed to accept a connection, %s\n", failure.message().c_str());
        pause.expires_after(200ms); // until descriptors are free again
        pause.async_wait([this](error_code const& ended) {
            if (!ended)
                accept();
        });
    });
}

void Tls_Listener::Impl::begin(tcp::socket socket) {
    std::string const address = address_of(socket);
    std::optional<uid_t> const user = user_of_peer(socket);
    auto slot = slots->take_stranger(user ? std::to_string(*user) : address, user.has_value());
    if (!slot)
        return; // which closes it
    error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    auto const session = std::make_shared<Http_Session>(
        io.lease(), std::move(slot), std::make_unique<Tls_Stream>(std::move(socket), *context),
        address, service);
    std::erase_if(sessions_begun, [](auto const& one) { return one.expired(); });
    sessions_begun.push_back(session);
    session->start();
}

void Tls_Listener::stop() {
    error_code ignored;
    impl_->pause.cancel();
    impl_->acceptor.close(ignored);
    for (auto const& weak : impl_->sessions_begun)
        if (auto const session = weak.lock())
            session->close();
}

void Tls_Listener::join() {
    if (impl_->service.rest_threads)
        impl_->service.rest_threads->join();
}
