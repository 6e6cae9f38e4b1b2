#ifndef TESTS_SUPPORT_FAKE_UPSTREAM_BACKEND_H
#define TESTS_SUPPORT_FAKE_UPSTREAM_BACKEND_H

#include "host/agent/host_services.h"
#include "host/http/http_encode.h"
#include "host/rpc/upstream_backend.h"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

/** How a far side answers a call: fills the reply, and returns true for a result. */
using RPC_Answer = std::function<bool(json_spirit::Value const& params, JSON_RPC_Reply& reply)>;

/** How a far side answers a REST request: sets the body, null for an empty one; gives the status.
 */
using Rest_Answer = std::function<int(HTTP_Query const& query, json_spirit::Value const& body,
                                      json_spirit::Value& answer)>;

/** An answer that is always this status and body. */
inline Rest_Answer rest_answer(int status, json_spirit::Value const& body) {
    return
        [status, body](HTTP_Query const&, json_spirit::Value const&, json_spirit::Value& answer) {
            answer = body;
            return status;
        };
}

/** An answer that is always this result. */
inline RPC_Answer rpc_result(json_spirit::Value const& result) {
    return [result](json_spirit::Value const&, JSON_RPC_Reply& reply) {
        reply.result = result;
        return true;
    };
}

/** An answer that is always this error. */
inline RPC_Answer rpc_error(int code, std::string const& message) {
    return [code, message](json_spirit::Value const&, JSON_RPC_Reply& reply) {
        reply = {{}, code, message, {}};
        return false;
    };
}

/** A backup server and other agents in memory, which note what they are asked. For any thread. */
class Fake_Upstream_Backend : public Upstream_Backend {
public:
    struct Rest_Call {
        int method;
        std::string path;
        std::string query; ///< as it was sent, encoded
        json_spirit::Value body;
    };
    struct RPC_Call {
        std::string host_uuid; ///< "" for the server itself
        std::string method;
        json_spirit::Value params;
        Limits limits;
    };

    /** Answers that method and path from now on. */
    void serve(int method, std::string const& path, Rest_Answer answer);
    /** Answers that method of the server, or of the agent with that uuid, from now on. */
    void serve_call(std::string const& method, RPC_Answer answer);
    void serve_forward(std::string const& host_uuid, std::string const& method, RPC_Answer answer);
    /** The server can no longer be reached, or can again. */
    void reachable(bool yes);

    std::vector<Rest_Call> rest_calls() const;
    /** Calls and forwards, in their order. */
    std::vector<RPC_Call> rpc_calls() const;
    /** Method and params. */
    std::vector<std::pair<std::string, json_spirit::Value>> notifications() const;

    bool rest(HTTP_Request const& request, json_spirit::Value const* body, HTTP_Response& response,
              json_spirit::Value* result) override;
    bool call(std::string const& method, json_spirit::Value const& params, Limits const& limits,
              JSON_RPC_Reply& reply) override;
    bool forward(std::string const& host_uuid, std::string const& method,
                 json_spirit::Value const& params, JSON_RPC_Reply& reply) override;
    bool notify(std::string const& method, json_spirit::Value const& params,
                std::string& error) override;

private:
    using Methods = std::map<std::string, RPC_Answer>;

    bool answer(RPC_Call const& call, JSON_RPC_Reply& reply);

    mutable std::mutex mutex_;
    bool reachable_ = true;
    std::map<std::pair<int, std::string>, Rest_Answer> resources_;
    std::map<std::string, Methods> hosts_; ///< "" is the server
    std::vector<Rest_Call> rest_calls_;
    std::vector<RPC_Call> rpc_calls_;
    std::vector<std::pair<std::string, json_spirit::Value>> notifications_;
};

/** Installs a fake for the length of a test. */
class Scoped_Fake_Upstream {
public:
    Scoped_Fake_Upstream() { Host_Services::instance().upstream(fake_); }
    ~Scoped_Fake_Upstream() { Host_Services::instance().upstream(nullptr); }
    Scoped_Fake_Upstream(Scoped_Fake_Upstream const&) = delete;
    Scoped_Fake_Upstream& operator=(Scoped_Fake_Upstream const&) = delete;

    Fake_Upstream_Backend* operator->() const { return fake_.get(); }

private:
    std::shared_ptr<Fake_Upstream_Backend> fake_ = std::make_shared<Fake_Upstream_Backend>();
};

#endif
