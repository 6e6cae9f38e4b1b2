#ifndef HOST_RPC_JSON_RPC_CHANNEL_H
#define HOST_RPC_JSON_RPC_CHANNEL_H

#include "host/process/cancellation.h"
#include "host/rpc/json_rpc_object.h"

#include <ace/Bound_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>

/** What came back for a request: the result, or the error's code, message and data. */
struct JSON_RPC_Reply {
    json_spirit::Value result;
    int code = 0;
    std::string message;
    json_spirit::Value data;
};

/**
 * A way to one peer, for messages in both directions. All operations may be called on any thread.
 *
 * Who reads the peer's messages hands responses to handle_reply(), which gives them to the thread
 * that waits in request(), and calls peer_gone() when there is no more to read.
 */
class JSON_RPC_Channel {
public:
    JSON_RPC_Channel() = default;
    virtual ~JSON_RPC_Channel() = default;
    JSON_RPC_Channel(JSON_RPC_Channel const&) = delete;
    JSON_RPC_Channel& operator=(JSON_RPC_Channel const&) = delete;

    /** Sends a message. @return 0, or -1 when it could not be sent, which has been logged */
    int send(JSON_RPC_Object const& object);
    /** The same; a null object is logged as a broken precondition. */
    int send(JSON_RPC_Object_var const& object);

    /** Sends an error as the reply to the request with that id; a null message is as "". */
    int send_error(int code, json_spirit::Value const& id, char const* message,
                   json_spirit::Value const& data = json_spirit::Value::null);

    /**
     * Sends a request and waits for the reply.
     * @param timeout  how long to wait; JSON_RPC_TIMEOUT afterwards
     * @param reply    the result; when false, the error of the peer or of the way to it
     * @return true when the peer replied with a result. Logs nothing about the reply.
     */
    [[nodiscard]] bool request(JSON_RPC_Request const& request, std::chrono::milliseconds timeout,
                               JSON_RPC_Reply& reply);

    /** Hands in a response that came. @return false when nobody waits for it */
    [[nodiscard]] bool handle_reply(JSON_RPC_Object const& object);

    /** Ends every wait in request(), now and from now on, with JSON_RPC_UNREACHABLE. */
    void peer_gone();

    /** Cancelled when the peer no longer waits for the answer; null when that is not told. */
    virtual std::shared_ptr<Cancellation> cancellation() const { return nullptr; }

protected:
    /** Sends. Logs a failure. May be called on several threads at once. */
    virtual int send_i(JSON_RPC_Object const& object) = 0;

    /** What request() does; a channel whose transport has replies of its own overrides it. */
    [[nodiscard]] virtual bool request_i(JSON_RPC_Request const& request,
                                         std::chrono::milliseconds timeout, JSON_RPC_Reply& reply);

private:
    struct Waiter {
        bool answered = false;
        bool succeeded = false;
        JSON_RPC_Reply reply{};
    };

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Waiter*> waiters_; ///< by the text of the id
    bool gone_ = false;
};

/** Holders of a channel. A handler gets the weak one: the peer may have gone when it answers. */
using JSON_RPC_Channel_var = ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex>;
using JSON_RPC_Channel_ptr = ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex>;

#endif
