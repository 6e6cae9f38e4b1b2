#include "agent/rpc/rpc_server.h"

#include "agent/rpc/message_budget.h"
#include "agent/rpc/rpc_io.h"
#include "agent/rpc/rpc_sessions.h"
#include "agent/rpc/tls_listener.h"
#include "agent/rpc/unix_listener.h"

#include <boost/asio/post.hpp>

namespace {

/** With a budget that all connections share, and in which one message always has room. */
Rpc_Server_Options with_budget(Rpc_Server_Options options) {
    Rpc_Limits& limits = options.limits;
    limits.budget = std::make_shared<Message_Budget>(
        std::max(limits.unfinished_bytes, limits.message_bytes + 2 * Message_Budget::FREE_BYTES));
    return options;
}

} // namespace

struct Rpc_Server::Impl {
    Impl(Method_Table& methods, Rest_Routes const& routes, Rpc_Server_Options the_options)
        : options(with_budget(std::move(the_options))),
          slots(std::make_shared<Connection_Slots>(options.limits)),
          sessions(io.context, options.limits),
          local(io, sessions, slots, methods, options.limits),
          network(io, sessions, slots, methods, routes, options) {}

    Rpc_Server_Options const options;
    std::shared_ptr<Connection_Slots> const slots;
    Rpc_Io io;
    Rpc_Sessions sessions;
    Unix_Listener local;
    Tls_Listener network;
    bool started = false;
};

Rpc_Server::Rpc_Server(Method_Table& methods, Rest_Routes const& routes, Rpc_Server_Options options)
    : impl_(std::make_unique<Impl>(methods, routes, std::move(options))) {}

Rpc_Server::~Rpc_Server() {
    stop();
}

bool Rpc_Server::start(std::string& error) {
    Rpc_Server_Options const& options = impl_->options;
    if (!options.socket_path.empty() &&
        !impl_->local.open(options.socket_path, options.readers, error)) {
        impl_->local.stop();
        return false;
    }
    if (options.network && !impl_->network.open(error)) {
        impl_->local.stop();
        return false;
    }
    impl_->started = true;
    boost::asio::post(impl_->io.context, [impl = impl_.get()] {
        if (!impl->options.socket_path.empty())
            impl->local.start();
        if (impl->options.network)
            impl->network.start();
        impl->sessions.start();
    });
    impl_->io.start();
    return true;
}

void Rpc_Server::stop() {
    if (!impl_->started)
        return;
    impl_->started = false;
    boost::asio::post(impl_->io.context, [impl = impl_.get()] {
        impl->local.stop();
        impl->network.stop();
        impl->sessions.stop();
    });
    impl_->network.join();
    impl_->io.finish();
}

unsigned short Rpc_Server::port() const {
    return impl_->network.port();
}

size_t Rpc_Server::connections() const {
    return impl_->slots->taken();
}
