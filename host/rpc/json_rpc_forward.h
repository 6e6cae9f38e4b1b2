#ifndef HOST_RPC_JSON_RPC_FORWARD_H
#define HOST_RPC_JSON_RPC_FORWARD_H

#include "json_spirit/value.h"

#include <string>

/**
 * Calls a JSON-RPC method of another agent, by way of the backup server, and waits for the reply.
 * May be used on any thread.
 * @param result  the reply's result; untouched when false. May be null.
 * @param type    of the result that is wanted; null_type for any
 * @return true for a result of that type; otherwise false, with one LM_ERROR line
 */
[[nodiscard]] bool json_rpc_forward(char const* method, json_spirit::Value const& params,
                                    std::string const& host_uuid, json_spirit::Value* result,
                                    json_spirit::Value_type type);

/**
 * Calls a JSON-RPC method of the backup server itself and waits for the reply.
 * @param retry_seconds   how long to go on trying while the server cannot be reached; -1 leaves it
 * to the back end
 * @param result          the reply's result; untouched when false
 * @param type            of the result that is wanted; null_type for any
 * @param answer_seconds  how long to wait for the reply; -1 leaves it to the back end
 * @return true for a result of that type; otherwise false, with one LM_ERROR line
 */
[[nodiscard]] bool global_json_rpc(char const* method, json_spirit::Value const& params,
                                   int retry_seconds, json_spirit::Value& result,
                                   json_spirit::Value_type type, int answer_seconds);

#endif
