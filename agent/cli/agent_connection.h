#ifndef AGENT_CLI_AGENT_CONNECTION_H
#define AGENT_CLI_AGENT_CONNECTION_H

#include "json_spirit/value.h"

#include <chrono>
#include <string>

/** Why a call gave no result. */
struct Rpc_Error {
    enum Kind {
        ANSWERED,    ///< the agent said so
        DENIED,      ///< the agent does not serve this user
        UNREACHABLE, ///< there is no agent, or it has gone, or what it says is no answer
        INTERRUPTED  ///< the user does not want to wait any longer
    };
    enum Code {
        NOT_FOUND = -32004, ///< what was named does not exist
        REFUSED = -32005    ///< it exists, and the agent does not do it; the message says why
    };

    Kind kind = ANSWERED;
    int code = 0; ///< the JSON-RPC code of an agent that answered
    std::string message;
    json_spirit::Value data;
};

/** The way to the agent. Used by one thread. */
class Agent_Connection {
public:
    virtual ~Agent_Connection() = default;

    /**
     * Calls a method and waits for the answer, however long that takes.
     * @param params  an object, or null for none
     * @param result  gets the result; unchanged on failure
     * @param error   on failure, why
     * @return true when there is a result. Logs and prints nothing.
     */
    [[nodiscard]] virtual bool call(std::string const& method, json_spirit::Value const& params,
                                    json_spirit::Value& result, Rpc_Error& error) = 0;

    /** Limits the time of all later calls together, from now on; then the agent is unreachable. */
    virtual void time_limit(std::chrono::seconds) {}
};

#endif
