#include "agent/rpc/local_upstream.h"
#include "tests/contract/upstream_backend_contract.h"
#include "tests/unit/agent/rpc/group_world.h"

#include <condition_variable>

using json_spirit::Value;

namespace {

/** A method that answers as the suite says. */
Agent_Method method_of(RPC_Answer answer) {
    return
        [answer = std::move(answer)](Method_Call const& call, Value& result, Method_Fault& fault) {
            JSON_RPC_Reply reply;
            bool const done = answer(call.params, reply);
            result = reply.result;
            fault = {reply.code, reply.message, reply.data};
            return done;
        };
}

/** The world around either back end: a backup server and the members that the suite forwards to. */
class Agent_Upstream_World : public Upstream_World {
public:
    Agent_Upstream_World() {
        world_.methods.add("backupd.instance.notify",
                           [this](Method_Call const& call, Value&, Method_Fault&) {
                               std::lock_guard const guard(mutex_);
                               seen_.emplace_back(call.method, call.params);
                               changed_.notify_all();
                               return true;
                           });
    }
    void serve(int method, std::string const& path, Rest_Answer answer) override {
        world_.routes.add(
            method, path,
            [answer](Rest_Request const& request, Value& value) {
                return answer(request.query, request.body, value);
            },
            Rest_Routes::ADMINISTRATORS | Rpc_Caller::MEMBER);
    }
    void serve_call(std::string const& method, RPC_Answer answer) override {
        world_.methods.add(method, method_of(std::move(answer)));
    }
    void serve_forward(std::string const& host_uuid, std::string const& method,
                       RPC_Answer answer) override {
        world_.member(host_uuid).methods.add(method, method_of(std::move(answer)));
    }
    std::vector<std::pair<std::string, Value>> notifications(size_t count) override {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, Group_World::PATIENCE, [&] { return seen_.size() >= count; });
        return seen_;
    }

protected:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::pair<std::string, Value>> seen_;
    Group_World world_;
};

/** As a member sees the server. */
class Linked_World : public Agent_Upstream_World {
public:
    Upstream_Backend& backend() override { return *world_.member("tested").link; }
    void cut_off() override { world_.cut_off(); }
};

/** As the server's own agent sees it. */
class Local_World : public Agent_Upstream_World {
public:
    Upstream_Backend& backend() override { return backend_; }
    void cut_off() override { backend_.close(); }

private:
    Local_Upstream backend_{world_.methods, world_.routes, world_.group};
};

template <typename World>
std::unique_ptr<Upstream_World> make() {
    return std::make_unique<World>();
}

INSTANTIATE_TEST_SUITE_P(group_link, Upstream_Backend_Contract,
                         testing::Values(make<Linked_World>));
INSTANTIATE_TEST_SUITE_P(local, Upstream_Backend_Contract, testing::Values(make<Local_World>));

} // namespace
