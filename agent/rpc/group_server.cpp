#include "agent/rpc/group_server.h"

#include "agent/rpc/group_delivery.h"
#include "agent/rpc/rpc_peer.h"
#include "host/agent/host_manager.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/utf8.h"

#include <ctime>
#include <future>
#include <map>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char JOIN[] = "group.join";
constexpr char FORWARD[] = "group.forward";

int64_t now() {
    return static_cast<int64_t>(std::time(nullptr));
}

/** Throws for a text that may not be such a name. */
void require(char const* key, std::string const& text, names::Rule rule) {
    if (std::string const fault = rule(text); !fault.empty())
        throw json_spirit::Error(std::string("'") + key + "' " + fault);
}

Object delivery(Run_Scope const& run, secure_string const& key, std::string const& method,
                Value const& params) {
    return {{"method", method}, {"params", params}, {"key", key}, {"run", run.dump()}};
}

JSON_RPC_Reply not_connected(std::string const& host_uuid) {
    return {Value(), JSON_RPC_UNREACHABLE,
            "the agent '" + host_uuid + "' is not connected: see whether it runs", Value()};
}

} // namespace

class Group_Server::State : public JSON_RPC_Handler, public std::enable_shared_from_this<State> {
public:
    State(Method_Table& methods, Group_Rules& rules, std::string own_uuid,
          std::chrono::milliseconds answer)
        : methods_(methods), rules_(rules), own_uuid_(std::move(own_uuid)), answer_(answer) {}

    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;
    std::vector<Group_Member> members() const;
    bool forward(std::string const& host_uuid, std::string const& method, Value const& params,
                 JSON_RPC_Reply& reply);
    void close(std::string const& host_uuid);

private:
    struct Member {
        Group_Member known;
        std::weak_ptr<Rpc_Peer> peer;
    };

    int join(JSON_RPC_Channel& channel, JSON_RPC_Request const& request);
    bool admit(Group_Member const& member, std::shared_ptr<Rpc_Peer> const& peer);
    bool have_room_for(std::string const& host_uuid);
    void leave(std::string const& host_uuid, Rpc_Peer const* peer);
    int forward(JSON_RPC_Channel_ptr const& channel, JSON_RPC_Request const& request);
    std::shared_ptr<Rpc_Peer> find(std::string const& host_uuid) const;

    Method_Table& methods_;
    Group_Rules& rules_;
    std::string const own_uuid_;
    std::chrono::milliseconds const answer_;
    mutable std::mutex mutex_;
    std::map<std::string, Member> members_;
};

int Group_Server::State::handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var const asker(channel);
    if (asker.null() || object->type() != JSON_RPC_Object::TYPE_REQUEST)
        return -1;
    auto const& request = static_cast<JSON_RPC_Request const&>(*object);
    try {
        if (request.params().type() != json_spirit::obj_type)
            throw json_spirit::Error("one object is expected");
        return request.method() == JOIN ? join(*asker, request) : forward(channel, request);
    } catch (json_spirit::Error const& error) {
        std::string const message = std::string("Invalid params: ") + error.what();
        return asker->send_error(JSON_RPC_INVALID_PARAMS, request.id(), message.c_str());
    }
}

int Group_Server::State::join(JSON_RPC_Channel& channel, JSON_RPC_Request const& request) {
    Group_Member member;
    json_spirit::Array runs;
    extract_or_throw(request.params().get_obj())("host_uuid", member.host_uuid)(
        "name", member.name, false)("component", member.component,
                                    false)("version", member.version, false)("runs", runs, false);
    require("host_uuid", member.host_uuid, names::fault_of_id);
    for (auto const& [key, text] : {std::pair{"name", &member.name},
                                    {"component", &member.component},
                                    {"version", &member.version}})
        if (!text->empty())
            require(key, *text, names::fault_of_label);
    if (member.host_uuid == own_uuid_)
        return channel.send_error(AGENT_RPC_REFUSED, request.id(),
                                  "this is the backup server's own host_uuid: an agent needs one "
                                  "of its own");
    std::shared_ptr<Rpc_Peer> const peer = Rpc_Peer::of(&channel);
    Rpc_Caller caller = peer ? peer->caller() : Rpc_Caller();
    std::string why = "a member joins through a network connection, with its own key";
    if (!caller.is(Rpc_Caller::MEMBER) || !rules_.admit(caller, member.host_uuid, why)) {
        QMRT_LOG(LM_WARNING, "Refused %s as host %s, %s\n", caller.text().c_str(),
                 member.host_uuid.c_str(), why.c_str());
        return channel.send_error(AGENT_RPC_REFUSED, request.id(), why.c_str());
    }
    if (!admit(member, peer))
        return channel.send_error(AGENT_RPC_REFUSED, request.id(), "the group is full");
    rules_.joined(member.host_uuid, runs);
    caller.host_uuid = member.host_uuid;
    peer->caller(std::move(caller));
    peer->when_gone([self = shared_from_this(), uuid = member.host_uuid, raw = peer.get()] {
        self->leave(uuid, raw);
    });
    QMRT_LOG(LM_INFO, "Agent %s (%s) has joined\n", member.host_uuid.c_str(),
             qmrt::to_one_line(member.name).c_str());
    return channel.send(JSON_RPC_Response(request.id(), Object{{"name", own_uuid_}}));
}

bool Group_Server::State::admit(Group_Member const& member, std::shared_ptr<Rpc_Peer> const& peer) {
    std::shared_ptr<Rpc_Peer> earlier;
    {
        std::lock_guard const guard(mutex_);
        if (!have_room_for(member.host_uuid))
            return false;
        Member& known = members_[member.host_uuid];
        earlier = known.peer.lock();
        known = {member, peer};
        known.known.connected = true;
    }
    if (earlier && earlier != peer)
        earlier->close(); // most likely dead, and its end not noticed yet
    return true;
}

/** Forgets the one that went first, if need be. Under the lock. */
bool Group_Server::State::have_room_for(std::string const& host_uuid) {
    if (members_.size() < MOST_MEMBERS || members_.contains(host_uuid))
        return true;
    auto oldest = members_.end();
    for (auto one = members_.begin(); one != members_.end(); ++one)
        if (!one->second.known.connected &&
            (oldest == members_.end() ||
             one->second.known.last_seen < oldest->second.known.last_seen))
            oldest = one;
    if (oldest == members_.end())
        return false;
    members_.erase(oldest);
    return true;
}

void Group_Server::State::leave(std::string const& host_uuid, Rpc_Peer const* peer) {
    std::lock_guard const guard(mutex_);
    auto const found = members_.find(host_uuid);
    if (found == members_.end())
        return;
    Member& member = found->second;
    std::shared_ptr<Rpc_Peer> const present = member.peer.lock();
    if (present && present.get() != peer)
        return; // it has come back meanwhile
    member.known.connected = false;
    member.known.last_seen = now();
    member.peer.reset();
    QMRT_LOG(LM_INFO, "Agent %s has gone\n", host_uuid.c_str());
    rules_.left(host_uuid);
}

std::shared_ptr<Rpc_Peer> Group_Server::State::find(std::string const& host_uuid) const {
    std::lock_guard const guard(mutex_);
    auto const found = members_.find(host_uuid);
    return found == members_.end() ? nullptr : found->second.peer.lock();
}

int Group_Server::State::forward(JSON_RPC_Channel_ptr const& channel,
                                 JSON_RPC_Request const& request) {
    std::string host_uuid, method, why;
    secure_string key;
    extract_or_throw(request.params().get_obj())("host_uuid", host_uuid)("method", method)("key",
                                                                                           key);
    require("host_uuid", host_uuid, names::fault_of_id);
    require("method", method, names::fault_of_id);
    Value const& params = object_get_any(request.params().get_obj(), "params");
    JSON_RPC_Channel_var const asker(channel);
    std::shared_ptr<Rpc_Peer> const from = Rpc_Peer::of(asker.get());
    Rpc_Caller const caller = from ? from->caller() : Rpc_Caller();
    std::shared_ptr<Run_Scope const> const run =
        rules_.run_of({caller, host_uuid, method, params, key}, why);
    if (!run) {
        QMRT_LOG(LM_WARNING, "Forwarded no call of '%s' from %s to host %s, %s\n",
                 qmrt::to_one_line(method).c_str(), caller.text().c_str(),
                 qmrt::to_one_line(host_uuid).c_str(), why.c_str());
        return asker->send_error(AGENT_RPC_REFUSED, request.id(), why.c_str());
    }
    Value delivered = delivery(*run, key, method, params);
    if (host_uuid == own_uuid_)
        return methods_.handle(
            channel,
            JSON_RPC_Object_var(new JSON_RPC_Request(request.id(), DELIVER, std::move(delivered))),
            Rpc_Caller::backupd());
    std::shared_ptr<Rpc_Peer> const peer = find(host_uuid);
    if (!peer)
        return asker->send_error(JSON_RPC_UNREACHABLE, request.id(),
                                 not_connected(host_uuid).message.c_str());
    peer->request(DELIVER, delivered, answer_,
                  [channel, id = request.id()](bool succeeded, JSON_RPC_Reply const& reply) {
                      JSON_RPC_Channel_var const back(channel);
                      if (back.null())
                          return; // who asked has gone
                      if (succeeded)
                          back->send(JSON_RPC_Response(id, reply.result));
                      else
                          back->send_error(reply.code, id, reply.message.c_str(), reply.data);
                  });
    return 0;
}

bool Group_Server::State::forward(std::string const& host_uuid, std::string const& method,
                                  Value const& params, JSON_RPC_Reply& reply) {
    secure_string const key = Host_Manager::instance()->access_key();
    std::string why;
    std::shared_ptr<Run_Scope const> const run =
        rules_.run_of({Rpc_Caller::local(), host_uuid, method, params, key}, why);
    if (!run) {
        reply = {Value(), AGENT_RPC_REFUSED, why, Value()};
        return false;
    }
    Value const delivered = delivery(*run, key, method, params);
    if (host_uuid == own_uuid_)
        return methods_.call(DELIVER, delivered, Rpc_Caller::backupd(), answer_, reply);
    std::shared_ptr<Rpc_Peer> const peer = find(host_uuid);
    if (!peer) {
        reply = not_connected(host_uuid);
        return false;
    }
    std::promise<bool> answered;
    peer->request(DELIVER, delivered, answer_, [&](bool succeeded, JSON_RPC_Reply const& answer) {
        reply = answer;
        answered.set_value(succeeded);
    });
    return answered.get_future().get();
}

void Group_Server::State::close(std::string const& host_uuid) {
    if (std::shared_ptr<Rpc_Peer> const peer = find(host_uuid))
        peer->close();
}

std::vector<Group_Member> Group_Server::State::members() const {
    std::lock_guard const guard(mutex_);
    std::vector<Group_Member> result;
    for (auto const& [uuid, member] : members_) {
        result.push_back(member.known);
        if (member.known.connected)
            result.back().last_seen = now();
    }
    return result;
}

Group_Server::Group_Server(Method_Table& methods, Group_Rules& rules, std::string own_uuid,
                           std::chrono::milliseconds answer)
    : methods_(methods),
      state_(std::make_shared<State>(methods, rules, std::move(own_uuid), answer)) {
    methods_.bind(JOIN, state_);
    methods_.bind(FORWARD, state_);
    serve_deliveries(methods_);
}

Group_Server::~Group_Server() {
    methods_.remove(JOIN);
    methods_.remove(FORWARD);
    methods_.remove(DELIVER);
}

void Group_Server::close(std::string const& host_uuid) {
    state_->close(host_uuid);
}

std::vector<Group_Member> Group_Server::members() const {
    return state_->members();
}

bool Group_Server::forward(std::string const& host_uuid, std::string const& method,
                           Value const& params, JSON_RPC_Reply& reply) {
    return state_->forward(host_uuid, method, params, reply);
}
