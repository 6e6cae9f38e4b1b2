#ifndef HOST_RPC_UPSTREAM_BACKEND_H
#define HOST_RPC_UPSTREAM_BACKEND_H

#include "host/http/http_request.h"
#include "host/http/http_response.h"
#include "host/rpc/json_rpc_channel.h"
#include "json_spirit/value.h"

#include <string>

/**
 * The backup server above this agent, and through it the other agents.
 *
 * All operations may be called on any thread, several at once. None throws or logs: what went wrong
 * is in the response or the reply, and whoever called logs it.
 */
class Upstream_Backend {
public:
    /** How long to take over a call, in seconds; -1 leaves it to the back end. */
    struct Limits {
        int answer = -1; ///< to wait for the reply
        int retry = -1;  ///< to go on trying while the server cannot be reached
    };

    virtual ~Upstream_Backend() = default;

    /**
     * Sends a REST request to the server.
     * @param body      JSON to send; may be null
     * @param response  status, headers and body; status 0 and an error() when there was no answer
     * @param result    the body's value, also that of an error status; null for an empty body. May
     *                  be null.
     * @return true for a status of 200 to 299
     */
    [[nodiscard]] virtual bool rest(HTTP_Request const& request, json_spirit::Value const* body,
                                    HTTP_Response& response, json_spirit::Value* result) = 0;

    /**
     * Calls a JSON-RPC method of the server.
     * @param reply  the result; when false the server's error, or JSON_RPC_UNREACHABLE or
     *               JSON_RPC_TIMEOUT with a message that says why
     */
    [[nodiscard]] virtual bool call(std::string const& method, json_spirit::Value const& params,
                                    Limits const& limits, JSON_RPC_Reply& reply) = 0;

    /**
     * Calls a JSON-RPC method of another agent. An agent that is not known or does not answer is
     * JSON_RPC_UNREACHABLE.
     */
    [[nodiscard]] virtual bool forward(std::string const& host_uuid, std::string const& method,
                                       json_spirit::Value const& params, JSON_RPC_Reply& reply) = 0;

    /**
     * Notifies the server and waits for no reply.
     * @param error  when false, why it could not be sent
     * @return true when it is on its way
     */
    [[nodiscard]] virtual bool notify(std::string const& method, json_spirit::Value const& params,
                                      std::string& error) = 0;
};

#endif
