#include "agent/rpc/ws_peer.h"

#include "agent/rpc/rpc_io.h"
#include "qmrt/log.h"

#include <boost/asio/post.hpp>

namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;

namespace {
constexpr size_t INBOX_SIZE = 64 * 1024;
constexpr int PINGS_UNANSWERED = 3;
} // namespace

Ws_Peer::Ws_Peer(std::shared_ptr<void> lease, std::unique_ptr<Ws_Stream> stream,
                 Method_Table& table, Rpc_Limits const& limits, Rpc_Caller caller)
    : Rpc_Peer(std::move(lease), table, limits, std::move(caller)), stream_(std::move(stream)) {
    websocket::stream_base::timeout none{};
    none.handshake_timeout = websocket::stream_base::none();
    none.idle_timeout = websocket::stream_base::none(); // tick() has its own, of messages
    stream_->set_option(none);
    stream_->read_message_max(limits.message_bytes);
    stream_->text(true);
}

void Ws_Peer::start() {
    begin();
    std::weak_ptr<Rpc_Peer> const weak = weak_from_this();
    stream_->control_callback([this](websocket::frame_type, beast::string_view) {
        heard_ = Clock::now(); // called within a read, which keeps this alive
    });
    read();
}

void Ws_Peer::read() {
    if (reading_)
        return;
    {
        std::lock_guard const guard(out_mutex_);
        if (closed_)
            return;
    }
    reading_ = true;
    stream_->async_read_some(inbox_, INBOX_SIZE, [self = self()](error_code const& error, size_t) {
        self->reading_ = false;
        self->on_read(error);
    });
}

void Ws_Peer::on_read(error_code const& error) {
    heard_ = Clock::now();
    if (error) {
        // what is wrong with a frame, its size too, may be hidden by how the connection ended then
        QMRT_LOG(LM_DEBUG, "Connection of %s has ended, %s\n", caller().text().c_str(),
                 error.message().c_str());
        return shut();
    }
    if (!charge_ && limits().budget)
        charge_ = limits().budget->begin();
    if (charge_ && !charge_->grow_to(inbox_.size()))
        return shut();
    if (!stream_->is_message_done()) {
        receiving(true);
        return read();
    }
    receiving(false);
    auto const data = inbox_.cdata();
    std::shared_ptr<void> const held = std::move(charge_);
    charge_.reset();
    if (stream_->got_text())
        take({static_cast<char const*>(data.data()), data.size()}, held);
    else
        take("binary"); // which is answered as no JSON
    inbox_.clear();
    if (inbox_.capacity() > INBOX_SIZE)
        inbox_.shrink_to_fit();
    go_on();
}

void Ws_Peer::go_on() {
    while (!wants_more()) {
        paused_ = true; // from here on whoever makes room calls resume() in earnest
        if (!wants_more())
            return;
        paused_ = false;
    }
    heard_ = Clock::now(); // it was we who did not listen
    read();
}

void Ws_Peer::resume() {
    if (!paused_.exchange(false))
        return;
    std::lock_guard const guard(out_mutex_);
    if (!closed_)
        boost::asio::post(stream_->get_executor(), [self = self()] { self->go_on(); });
}

bool Ws_Peer::write(std::string text) {
    std::lock_guard const guard(out_mutex_);
    if (closed_)
        return false;
    unsent_ += text.size();
    // one that fits alone may be as long as it is; what comes on top of it may not
    if (!outbox_.empty() && unsent_ > limits().unsent_bytes) {
        close();
        return false;
    }
    outbox_.push_back(std::move(text));
    if (writing_)
        return true;
    writing_ = true;
    boost::asio::post(stream_->get_executor(), [self = self()] { self->send_next(); });
    return true;
}

void Ws_Peer::send_next() {
    std::lock_guard const guard(out_mutex_);
    if (closed_)
        return;
    sending(true);
    stream_->async_write(
        boost::asio::buffer(outbox_.front()),
        [self = self()](error_code const& error, size_t) { self->on_sent(error); });
}

void Ws_Peer::on_sent(error_code const& error) {
    if (error)
        return shut();
    {
        std::lock_guard const guard(out_mutex_);
        unsent_ -= outbox_.front().size();
        outbox_.pop_front();
        if (outbox_.empty()) {
            writing_ = false;
            sending(false);
            return;
        }
    }
    send_next();
}

void Ws_Peer::tick_i(Clock::time_point now) {
    // while nothing is read, a closed connection is not seen either
    auto& socket = beast::get_lowest_layer(*stream_).socket();
    if (!reading_ && socket.is_open() && is_gone(socket.native_handle(), true))
        return shut();
    // while nothing is read, no pong can be seen
    if (reading_ && now - heard_ > limits().ping * PINGS_UNANSWERED) {
        QMRT_LOG(LM_INFO, "Closed a connection, its peer no longer answers\n");
        return shut();
    }
    if (pinging_ || now - std::max(heard_, pinged_) < limits().ping)
        return;
    {
        std::lock_guard const guard(out_mutex_);
        if (closed_)
            return;
    }
    pinging_ = true;
    pinged_ = now;
    stream_->async_ping({}, [self = self()](error_code const& error) {
        self->pinging_ = false;
        if (error)
            self->shut();
    });
}

void Ws_Peer::close() {
    boost::asio::post(stream_->get_executor(), [self = self()] { self->shut(); });
}

void Ws_Peer::shut() {
    {
        std::lock_guard const guard(out_mutex_);
        if (closed_)
            return;
        closed_ = true;
    }
    beast::get_lowest_layer(*stream_).close();
    end();
}
