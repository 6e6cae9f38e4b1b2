#ifndef HOST_RPC_JSON_RPC_SESSION_H
#define HOST_RPC_JSON_RPC_SESSION_H

#include "host/rpc/json_rpc_channel.h"

/** Requests to the peer of a channel. May be used on any thread. */
class JSON_RPC_Session {
public:
    /** @param channel  stays the caller's, and lives longer than the session */
    explicit JSON_RPC_Session(JSON_RPC_Channel* channel) : channel_(channel) {}

    /**
     * Makes a JSON_RPC_Request with an id that no other request of this process has.
     * @param params  an object, an array or null
     * @param object  receives the request; untouched when false
     * @return false, with an error line, for no method, for params of another kind, or when memory
     * is out
     */
    [[nodiscard]] static bool make_rpc_request(char const* method, json_spirit::Value const& params,
                                               JSON_RPC_Object_var& object);

    /**
     * Sends the method and the params of a request, or a notification as it is, as a notification:
     * without an id, so the peer does not answer, and nobody waits.
     * @return 0; -1, with an error line, when it could not be sent or is neither of the two
     */
    int notify(JSON_RPC_Object_var const& object);

    /**
     * Sends a request and waits for its reply: see JSON_RPC_Channel::request().
     * @return true for a result; false, with the reply's code and message, for anything else. An
     *         object that is no request, or no channel, is logged as well.
     */
    [[nodiscard]] bool request(JSON_RPC_Object_var const& object, std::chrono::milliseconds timeout,
                               JSON_RPC_Reply& reply);

private:
    JSON_RPC_Channel* channel_;
};

#endif
