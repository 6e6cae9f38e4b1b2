#include "agent/rpc/unix_session.h"

#include "agent/rpc/rpc_io.h"
#include "qmrt/log.h"

#include <boost/asio/post.hpp>
#include <cerrno>
#include <sys/socket.h>

using boost::system::error_code;

Unix_Session::Unix_Session(std::shared_ptr<void> lease, Socket socket, Method_Table& table,
                           Rpc_Limits const& limits, Rpc_Caller const& caller)
    : Rpc_Peer(std::move(lease), table, limits, caller), socket_(std::move(socket)) {}

void Unix_Session::start() {
    begin();
    read();
}

void Unix_Session::read() {
    if (reading_ || at_end_ || !socket_.is_open())
        return;
    reading_ = true;
    socket_.async_read_some(boost::asio::buffer(buffer_),
                            [self = self()](error_code const& error, size_t size) {
                                self->reading_ = false;
                                if (!error)
                                    return self->on_read(size);
                                self->at_end_ = true;
                                if (error == boost::asio::error::eof)
                                    return self->go_on();
                                self->shut();
                            });
}

void Unix_Session::on_read(size_t size) {
    inbox_.append(buffer_.data(), size);
    if (!charge_ && limits().budget)
        charge_ = limits().budget->begin();
    if (charge_ && !charge_->grow_to(inbox_.size()))
        return refuse_for_want_of_room();
    go_on();
}

/** Takes the lines that are there, then waits for more, as long as it may. */
void Unix_Session::go_on() {
    while (true) {
        bool const room = wants_more();
        if (room && take_line())
            continue;
        if (room && !at_end_)
            break;
        paused_ = true; // from here on whoever makes room calls resume() in earnest
        if (!wants_more())
            return;
        if (room)
            return end_when_done();
        paused_ = false;
    }
    shrink_inbox();
    if (inbox_.size() > limits().message_bytes)
        return refuse_size();
    receiving(!inbox_.empty());
    read();
}

/** @return false when there is no whole line */
bool Unix_Session::take_line() {
    size_t const end = inbox_.find('\n', searched_);
    if (end == std::string::npos || end - taken_ > limits().message_bytes) {
        searched_ = inbox_.size();
        return false;
    }
    std::string_view const line = std::string_view(inbox_).substr(taken_, end - taken_);
    searched_ = taken_ = end + 1;
    receiving(false);
    std::shared_ptr<void> held;
    if (line.size() > Message_Budget::FREE_BYTES)
        held = std::move(charge_); // what stands behind it in the inbox is less than one read
    if (line.find_first_not_of(" \t\r") != std::string_view::npos)
        take(line, held);
    return true;
}

/** Drops what has been handled, and the memory of a large message. */
void Unix_Session::shrink_inbox() {
    inbox_.erase(0, taken_);
    searched_ -= taken_;
    taken_ = 0;
    if (inbox_.empty() && inbox_.capacity() > buffer_.size())
        inbox_ = std::string();
    if (inbox_.size() <= Message_Budget::FREE_BYTES)
        charge_.reset();
}

void Unix_Session::refuse_for_want_of_room() {
    (void)write(
        JSON_RPC_Response_Error(JSON_RPC_BUSY, json_spirit::Value(),
                                "Server is busy: too many large messages are not answered yet",
                                json_spirit::Value())
            .text());
    shut();
}

void Unix_Session::refuse_size() {
    QMRT_LOG(LM_WARNING, "Closed a local connection, its message is larger than %Q bytes\n",
             static_cast<ACE_UINT64>(limits().message_bytes));
    (void)write(JSON_RPC_Response_Error(JSON_RPC_INVALID_REQUEST, json_spirit::Value(),
                                        "Invalid Request: the message is too large",
                                        json_spirit::Value())
                    .text());
    shut();
}

/** The client sends no more, but may wait for answers. */
void Unix_Session::end_when_done() {
    bool all_sent = false;
    {
        std::lock_guard const guard(out_mutex_);
        all_sent = outbox_.empty();
    }
    if (all_sent && quiet())
        shut();
}

void Unix_Session::resume() {
    if (!paused_.exchange(false))
        return;
    std::lock_guard const guard(out_mutex_);
    if (!closed_)
        boost::asio::post(socket_.get_executor(), [self = self()] { self->go_on(); });
}

/** Tries at once, on whatever thread this is: most answers fit into the socket's buffer. */
bool Unix_Session::write(std::string text) {
    std::lock_guard const guard(out_mutex_);
    if (closed_)
        return false;
    text += '\n';
    bool const first = outbox_.empty();
    if (first)
        outbox_ = std::move(text);
    else
        outbox_ += text;
    if (!first)
        return outbox_.size() - sent_ <= limits().unsent_bytes || (close(), false);
    if (send_some() && !outbox_.empty()) {
        sending(true);
        boost::asio::post(socket_.get_executor(), [self = self()] { self->await_writable(); });
    }
    return true;
}

/** Sends what the socket takes. Under the lock. @return false when the connection broke */
bool Unix_Session::send_some() {
    while (sent_ < outbox_.size()) {
        ssize_t const size = ::send(socket_.native_handle(), outbox_.data() + sent_,
                                    outbox_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (size > 0)
            sent_ += static_cast<size_t>(size);
        else if (errno == EAGAIN || errno == EWOULDBLOCK)
            return true;
        else if (errno != EINTR)
            return close(), false;
    }
    outbox_ = std::string(); // and its memory: a large answer is the exception
    sent_ = 0;
    return true;
}

void Unix_Session::await_writable() {
    std::lock_guard const guard(out_mutex_);
    if (closed_ || waiting_ || outbox_.empty())
        return;
    waiting_ = true;
    socket_.async_wait(Socket::wait_write, [self = self()](error_code const& error) {
        if (!error)
            self->flush();
    });
}

void Unix_Session::flush() {
    {
        std::lock_guard const guard(out_mutex_);
        waiting_ = false;
        size_t const before = sent_;
        if (closed_ || !send_some())
            return;
        if (outbox_.empty())
            sending(false);
        else if (sent_ != before)
            sending(true);
    }
    await_writable();
    resume();
}

/** A read cannot tell a client that disconnected from one that only stopped sending. */
void Unix_Session::tick_i(Clock::time_point) {
    if (!reading_ && socket_.is_open() && is_gone(socket_.native_handle(), false))
        shut();
}

void Unix_Session::close() {
    boost::asio::post(socket_.get_executor(), [self = self()] { self->shut(); });
}

void Unix_Session::shut() {
    {
        std::lock_guard const guard(out_mutex_);
        if (closed_)
            return;
        closed_ = true;
        error_code ignored;
        socket_.close(ignored);
    }
    end();
}
