#include "host/rpc/json_rpc_channel.h"

#include "json_spirit/text.h"
#include "qmrt/check.h"
#include "qmrt/scoped_deleter.h"

using json_spirit::Value;

namespace {

bool fail(JSON_RPC_Reply& reply, int code, char const* message) {
    reply = JSON_RPC_Reply();
    reply.code = code;
    reply.message = message;
    return false;
}

} // namespace

int JSON_RPC_Channel::send(JSON_RPC_Object const& object) {
    return send_i(object);
}

int JSON_RPC_Channel::send(JSON_RPC_Object_var const& object) {
    if (QMRT_IS_NULL(object.get()))
        return -1;
    return send_i(*object);
}

int JSON_RPC_Channel::send_error(int code, Value const& id, char const* message,
                                 Value const& data) {
    return send_i(JSON_RPC_Response_Error(code, id, message ? message : "", data));
}

bool JSON_RPC_Channel::request(JSON_RPC_Request const& request, std::chrono::milliseconds timeout,
                               JSON_RPC_Reply& reply) {
    return request_i(request, timeout, reply);
}

bool JSON_RPC_Channel::request_i(JSON_RPC_Request const& request, std::chrono::milliseconds timeout,
                                 JSON_RPC_Reply& reply) {
    std::string const id = json_spirit::to_text(request.id());
    Waiter waiter;
    std::unique_lock lock(mutex_);
    if (!gone_ && !waiters_.emplace(id, &waiter).second)
        return fail(reply, JSON_RPC_INTERNAL_ERROR, "a request with this id waits already");
    if (gone_)
        return fail(reply, JSON_RPC_UNREACHABLE, "the peer has gone");
    Scoped_Deleter const leave([&] { waiters_.erase(id); }); // under the lock, which goes later

    lock.unlock(); // the reply may come before send_i returns
    int const sent = send_i(request);
    lock.lock();
    if (sent == -1)
        return fail(reply, JSON_RPC_UNREACHABLE, "the request could not be sent");
    changed_.wait_for(lock, timeout, [&] { return waiter.answered || gone_; });
    if (!waiter.answered)
        return gone_ ? fail(reply, JSON_RPC_UNREACHABLE, "the peer has gone")
                     : fail(reply, JSON_RPC_TIMEOUT, "there was no reply in time");
    reply = std::move(waiter.reply);
    return waiter.succeeded;
}

bool JSON_RPC_Channel::handle_reply(JSON_RPC_Object const& object) {
    JSON_RPC_Response const* response = nullptr;
    JSON_RPC_Response_Error const* error = nullptr;
    if (object.type() == JSON_RPC_Object::TYPE_RESPONSE)
        response = static_cast<JSON_RPC_Response const*>(&object);
    else if (object.type() == JSON_RPC_Object::TYPE_RESPONSE_ERROR)
        error = static_cast<JSON_RPC_Response_Error const*>(&object);
    else
        return false;
    std::string const id = json_spirit::to_text(response ? response->id() : error->id());

    std::lock_guard const guard(mutex_);
    auto const found = waiters_.find(id);
    if (found == waiters_.end() || found->second->answered)
        return false;
    Waiter& waiter = *found->second;
    if (response)
        waiter.reply.result = response->result();
    else
        waiter.reply = {Value(), error->code(), error->message(), error->data()};
    waiter.succeeded = response != nullptr;
    waiter.answered = true;
    changed_.notify_all();
    return true;
}

void JSON_RPC_Channel::peer_gone() {
    std::lock_guard const guard(mutex_);
    gone_ = true;
    changed_.notify_all();
}
