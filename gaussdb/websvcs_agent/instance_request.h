#ifndef GAUSSDB_WEBSVCS_AGENT_INSTANCE_REQUEST_H
#define GAUSSDB_WEBSVCS_AGENT_INSTANCE_REQUEST_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "host/rpc/json_rpc_handler.h"

#include <string>

/** What the handlers of JSON-RPC share. Thread-safe. */

/**
 * Checks what a handler was given.
 * @param peer     receives the channel
 * @return the request; null, logged, if the object is not a request or the caller has disconnected
 */
JSON_RPC_Request* open_request(JSON_RPC_Channel_ptr const& channel,
                               JSON_RPC_Object_var const& object, JSON_RPC_Channel_var& peer);

/** Sends the result of a request, or an error if memory is exhausted, with ENOMEM. */
int send_result(JSON_RPC_Channel* channel, JSON_RPC_Request* request,
                json_spirit::Value const& result);

/**
 * Notifies the backup server of an instance that was added for a user. Does not wait.
 * @return false, logged, if the notification could not be sent
 */
bool notify_backupd_instance(char const* name, char const* uid);

/** GaussDB_Cluster_Handler::init(), which throws for a record with values of another kind. */
[[nodiscard]] bool init_handler(GaussDB_Cluster_Handler& handler);

#endif
