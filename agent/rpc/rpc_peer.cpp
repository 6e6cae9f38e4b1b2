#include "agent/rpc/rpc_peer.h"

#include "agent/rpc/answer_source.h"
#include "json_spirit/text.h"
#include "qmrt/log.h"

#include <atomic>

using json_spirit::Value;

namespace {

/** The elements of a batch, without making values of them: a few bytes may stand for one each. */
size_t count_elements(std::string_view text) {
    size_t const first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos || text[first] != '[')
        return 1;
    size_t commas = 0;
    int depth = 0;
    bool quoted = false;
    for (size_t i = first; i < text.size(); ++i) {
        char const c = text[i];
        if (quoted) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                quoted = false;
        } else if (c == '"')
            quoted = true;
        else if (c == '[' || c == '{')
            ++depth;
        else if (c == ']' || c == '}')
            --depth;
        else if (c == ',' && depth == 1)
            ++commas;
    }
    return commas + 1;
}

std::string id_text(JSON_RPC_Object const& object) {
    return json_spirit::to_text(object.type() == JSON_RPC_Object::TYPE_RESPONSE
                                    ? static_cast<JSON_RPC_Response const&>(object).id()
                                    : static_cast<JSON_RPC_Response_Error const&>(object).id());
}

bool is_reply(JSON_RPC_Object const& object) {
    return object.type() == JSON_RPC_Object::TYPE_RESPONSE ||
           object.type() == JSON_RPC_Object::TYPE_RESPONSE_ERROR;
}

JSON_RPC_Reply unreachable() {
    return {Value(), JSON_RPC_UNREACHABLE, "the connection broke before the reply came", Value()};
}

} // namespace

/** The way to the peer for what is no reply to one of its requests. */
class Rpc_Peer::Main_Channel : public JSON_RPC_Channel {
public:
    explicit Main_Channel(std::weak_ptr<Rpc_Peer> peer) : peer_(std::move(peer)) {}
    std::shared_ptr<Rpc_Peer> peer() const { return peer_.lock(); }

protected:
    int send_i(JSON_RPC_Object const& object) override {
        std::string text = object.text();
        std::shared_ptr<Rpc_Peer> const peer = peer_.lock();
        if (!text.empty() && peer && peer->write(std::move(text)))
            return 0;
        QMRT_LOG(LM_INFO, "Failed to send a JSON-RPC message, the peer has gone\n");
        return -1;
    }

private:
    std::weak_ptr<Rpc_Peer> const peer_;
};

/** Where the answer to one request of the peer goes: the first one counts. */
class Rpc_Peer::Reply_Channel : public JSON_RPC_Channel, public Answer_Source {
public:
    Reply_Channel(std::weak_ptr<Rpc_Peer> peer, uint64_t key, std::shared_ptr<Batch> batch)
        : peer_(std::move(peer)), key_(key), batch_(std::move(batch)) {}
    std::shared_ptr<Rpc_Peer> peer() const { return peer_.lock(); }
    std::shared_ptr<Cancellation> cancellation() const override { return cancellation_; }
    void when_answered(std::function<void(JSON_RPC_Object const&)> function) override {
        on_answer_ = std::move(function);
    }

protected:
    int send_i(JSON_RPC_Object const& object) override {
        std::shared_ptr<Rpc_Peer> const peer = peer_.lock();
        if (!is_reply(object)) {
            JSON_RPC_Channel_var const channel = peer ? peer->channel() : JSON_RPC_Channel_var();
            return channel.null() ? -1 : channel->send(object);
        }
        if (answered_.exchange(true))
            return -1;
        if (on_answer_) // also if the peer has disconnected: the work is done
            on_answer_(object);
        return peer && peer->settle(key_, *batch_, object.text()) ? 0 : -1;
    }

    bool request_i(JSON_RPC_Request const& request, std::chrono::milliseconds timeout,
                   JSON_RPC_Reply& reply) override {
        std::shared_ptr<Rpc_Peer> const peer = peer_.lock();
        JSON_RPC_Channel_var const channel = peer ? peer->channel() : JSON_RPC_Channel_var();
        if (!channel.null())
            return channel->request(request, timeout, reply);
        reply = unreachable();
        return false;
    }

private:
    std::weak_ptr<Rpc_Peer> const peer_;
    uint64_t const key_;
    std::shared_ptr<Batch> const batch_;
    std::shared_ptr<Cancellation> const cancellation_ = std::make_shared<Cancellation>();
    std::atomic<bool> answered_ = false;
    std::function<void(JSON_RPC_Object const&)> on_answer_;
};

Rpc_Peer::Rpc_Peer(std::shared_ptr<void> lease, Method_Table& table, Rpc_Limits const& limits,
                   Rpc_Caller caller)
    : lease_(std::move(lease)), table_(table), limits_(limits), caller_(std::move(caller)) {}

std::shared_ptr<Rpc_Peer> Rpc_Peer::of(JSON_RPC_Channel* channel) {
    if (auto const* const reply = dynamic_cast<Reply_Channel const*>(channel))
        return reply->peer();
    if (auto const* const main = dynamic_cast<Main_Channel const*>(channel))
        return main->peer();
    return nullptr;
}

Rpc_Caller Rpc_Peer::caller() const {
    std::lock_guard const guard(mutex_);
    return caller_;
}

void Rpc_Peer::caller(Rpc_Caller caller) {
    std::lock_guard const guard(mutex_);
    caller_ = std::move(caller);
    member_ = true;
}

JSON_RPC_Channel_var Rpc_Peer::channel() const {
    std::lock_guard const guard(mutex_);
    return channel_;
}

void Rpc_Peer::begin() {
    std::lock_guard const guard(mutex_);
    channel_ = JSON_RPC_Channel_var(new Main_Channel(weak_from_this()));
    self_ = shared_from_this();
}

void Rpc_Peer::end() {
    std::shared_ptr<Rpc_Peer> self; // goes last
    JSON_RPC_Channel_var channel;
    std::map<uint64_t, JSON_RPC_Channel_var> open;
    std::map<std::string, Pending> pending;
    std::vector<std::function<void()>> functions;
    std::deque<Waiting> backlog;
    {
        std::lock_guard const guard(mutex_);
        if (gone_)
            return;
        gone_ = true;
        self.swap(self_);
        channel = channel_;
        channel_ = JSON_RPC_Channel_var();
        open.swap(open_);
        pending.swap(pending_);
        functions.swap(when_gone_);
        backlog.swap(backlog_);
    }
    if (!channel.null())
        channel->peer_gone();
    for (auto const& [key, one] : open)
        one->cancellation()->cancel();
    for (auto const& [id, one] : pending)
        one.on_reply(false, unreachable());
    for (auto const& function : functions)
        function();
}

void Rpc_Peer::when_gone(std::function<void()> function) {
    {
        std::lock_guard const guard(mutex_);
        if (!gone_) {
            when_gone_.push_back(std::move(function));
            return;
        }
    }
    function();
}

void Rpc_Peer::request(std::string const& method, Value const& params,
                       std::chrono::milliseconds timeout, On_Reply on_reply) {
    Value id;
    bool registered = false;
    {
        std::lock_guard const guard(mutex_);
        id = "f" + std::to_string(++last_key_);
        registered = !gone_;
        if (registered)
            pending_[json_spirit::to_text(id)] = {on_reply, Clock::now() + timeout};
    }
    std::string text = JSON_RPC_Request(id, method, params).text();
    if (!text.empty() && write(std::move(text)))
        return;
    {
        // whoever takes it out of the map calls the function, so that it is called once
        std::lock_guard const guard(mutex_);
        if (registered && pending_.erase(json_spirit::to_text(id)) == 0)
            return;
    }
    on_reply(false, unreachable());
}

bool Rpc_Peer::take_reply(JSON_RPC_Object const& object) {
    On_Reply on_reply;
    JSON_RPC_Channel_var channel;
    {
        std::lock_guard const guard(mutex_);
        channel = channel_;
        auto const found = pending_.find(id_text(object));
        if (found != pending_.end()) {
            on_reply = std::move(found->second.on_reply);
            pending_.erase(found);
        }
    }
    if (!on_reply)
        return !channel.null() && channel->handle_reply(object);
    if (object.type() == JSON_RPC_Object::TYPE_RESPONSE) {
        on_reply(true, {static_cast<JSON_RPC_Response const&>(object).result(), 0, "", Value()});
    } else {
        auto const& error = static_cast<JSON_RPC_Response_Error const&>(object);
        on_reply(false, {Value(), error.code(), error.message(), error.data()});
    }
    return true;
}

void Rpc_Peer::take(std::string_view text, std::shared_ptr<void> const& held) {
    {
        std::lock_guard const guard(mutex_);
        active_ = Clock::now();
    }
    JSON_RPC_Message message;
    if (count_elements(text) > limits_.batch_messages)
        message.faults.push_back(JSON_RPC_Object_var(
            new JSON_RPC_Response_Error(JSON_RPC_INVALID_REQUEST, Value(),
                                        "Invalid Request: the batch is too large", Value())));
    else
        parse_json_rpc(text, message);
    auto const batch = std::make_shared<Batch>();
    batch->array = message.batch;
    for (JSON_RPC_Object_var const& object : message.objects)
        batch->missing += object->type() == JSON_RPC_Object::TYPE_REQUEST;
    batch->missing += message.faults.size();
    for (JSON_RPC_Object_var const& object : message.objects) {
        if (is_reply(*object)) {
            take_reply(*object);
            continue;
        }
        object->hold(held);
        std::lock_guard const guard(mutex_);
        backlog_.push_back({object, batch});
    }
    answer_faults(message, batch);
    pump();
}

void Rpc_Peer::answer_faults(JSON_RPC_Message const& message, std::shared_ptr<Batch> const& batch) {
    for (JSON_RPC_Object_var const& fault : message.faults)
        (void)add_answer(*batch, fault->text());
}

/** Hands over what waits as long as there is room; one thread at a time does it. */
void Rpc_Peer::pump() {
    {
        std::lock_guard const guard(mutex_);
        if (pumping_)
            return; // that one goes on as long as there is something to do
        pumping_ = true;
    }
    Waiting waiting;
    JSON_RPC_Channel_var channel;
    Rpc_Caller const known = caller();
    while (next(waiting, channel))
        table_.handle(channel, waiting.object, known);
}

bool Rpc_Peer::next(Waiting& waiting, JSON_RPC_Channel_var& channel) {
    std::lock_guard const guard(mutex_);
    if (backlog_.empty() || open_.size() >= limits_.in_flight) {
        pumping_ = false;
        return false;
    }
    waiting = std::move(backlog_.front());
    backlog_.pop_front();
    if (waiting.object->type() != JSON_RPC_Object::TYPE_REQUEST) {
        channel = channel_;
        return true;
    }
    uint64_t const key = ++last_key_;
    channel =
        JSON_RPC_Channel_var(new Reply_Channel(weak_from_this(), key, std::move(waiting.batch)));
    open_.emplace(key, channel);
    return true;
}

bool Rpc_Peer::settle(uint64_t key, Batch& batch, std::string const& text) {
    bool waits = false;
    {
        std::lock_guard const guard(mutex_);
        waits = !backlog_.empty() || open_.size() >= limits_.in_flight;
        open_.erase(key);
        active_ = Clock::now();
    }
    bool const sent = add_answer(batch, text);
    if (waits)
        pump();
    resume();
    return sent;
}

/** Adds one answer, and sends them all when it was the last one. */
bool Rpc_Peer::add_answer(Batch& batch, std::string const& text) {
    if (!batch.array)
        return write(text);
    std::string whole;
    {
        std::lock_guard const guard(mutex_);
        batch.answers += (batch.answers.empty() ? "[" : ",") + text;
        if (--batch.missing > 0)
            return !gone_;
        whole = std::move(batch.answers) + "]";
    }
    return write(std::move(whole));
}

bool Rpc_Peer::wants_more() const {
    std::lock_guard const guard(mutex_);
    return backlog_.empty() && open_.size() < limits_.in_flight;
}

bool Rpc_Peer::quiet() const {
    std::lock_guard const guard(mutex_);
    return backlog_.empty() && open_.empty();
}

void Rpc_Peer::receiving(bool begun) {
    std::lock_guard const guard(mutex_);
    if (!begun)
        receiving_since_ = {};
    else if (receiving_since_ == Clock::time_point())
        receiving_since_ = Clock::now();
}

void Rpc_Peer::sending(bool begun) {
    std::lock_guard const guard(mutex_);
    sending_since_ = begun ? Clock::now() : Clock::time_point();
}

void Rpc_Peer::tick(Clock::time_point now) {
    expire(now);
    if (too_slow(now))
        close();
    else
        tick_i(now);
}

void Rpc_Peer::expire(Clock::time_point now) {
    std::vector<On_Reply> late;
    {
        std::lock_guard const guard(mutex_);
        for (auto one = pending_.begin(); one != pending_.end();) {
            if (one->second.deadline > now) {
                ++one;
                continue;
            }
            late.push_back(std::move(one->second.on_reply));
            one = pending_.erase(one);
        }
    }
    for (On_Reply const& on_reply : late)
        on_reply(false, {Value(), JSON_RPC_TIMEOUT, "there was no reply in time", Value()});
}

bool Rpc_Peer::too_slow(Clock::time_point now) const {
    std::lock_guard const guard(mutex_);
    constexpr Clock::time_point NOT{};
    if (receiving_since_ != NOT && now - receiving_since_ > limits_.message)
        return true;
    if (sending_since_ != NOT)
        return now - sending_since_ > limits_.message;
    return !member_ && open_.empty() && backlog_.empty() && pending_.empty() &&
           now - active_ > limits_.idle;
}
