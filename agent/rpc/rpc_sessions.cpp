#include "agent/rpc/rpc_sessions.h"

#include <algorithm>

using namespace std::chrono_literals;

namespace {

/** Short enough that no limit is exceeded by much. */
Rpc_Limits::Duration interval_of(Rpc_Limits const& limits) {
    return std::clamp(std::min({limits.message, limits.idle, limits.ping}) / 4,
                      Rpc_Limits::Duration(5), Rpc_Limits::Duration(1s));
}

} // namespace

Rpc_Sessions::Rpc_Sessions(boost::asio::io_context& context, Rpc_Limits const& limits)
    : timer_(context), interval_(interval_of(limits)) {}

void Rpc_Sessions::add(std::shared_ptr<Rpc_Peer> const& peer) {
    if (stopped_)
        peer->close();
    else
        peers_.push_back(peer);
}

void Rpc_Sessions::start() {
    timer_.expires_after(interval_);
    timer_.async_wait([this](boost::system::error_code const& error) {
        if (error || stopped_)
            return;
        tick();
        start();
    });
}

void Rpc_Sessions::tick() {
    auto const now = Rpc_Peer::Clock::now();
    std::erase_if(peers_, [](auto const& peer) { return peer.expired(); });
    auto const peers = peers_; // one that ends may lead to another
    for (auto const& weak : peers)
        if (auto const peer = weak.lock())
            peer->tick(now);
}

void Rpc_Sessions::stop() {
    stopped_ = true;
    timer_.cancel();
    for (auto const& weak : peers_)
        if (auto const peer = weak.lock())
            peer->close();
}
