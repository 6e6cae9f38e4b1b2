#ifndef GAUSSDB_WEBSVCS_AGENT_GAUSSDB_CREATE_INSTANCE_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_GAUSSDB_CREATE_INSTANCE_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Declares a cluster of the DWS or the openGauss flavour that is reached by ssh. The params are an
 * object:
 *
 *   "name", "uid"      of the instance; of the user who gets its account
 *   "address"          where ssh logs in: HOST or ACCOUNT@HOST
 *   "meta_path"        the backup tool's metadata directory on the node
 *   "backup_port"      port of the backup tool's master, 0 to 65535
 *   "source_commands"  optional: shell text put before each remote command
 *   "ssh_options"      optional: options for ssh and scp
 *
 * fault_of_non_intrusive_record() says what they may be. The node is asked for its version, and the
 * instance is recorded with an account without credentials, since ssh authenticates. The ssh of
 * this host must know the node's host key already: a key is never accepted here.
 *
 * The result is the instance's uuid. Errors: -32602 for what the caller can mend, -32603 for what
 * failed inside; nothing is left behind then. Keeps nothing between requests: any thread. Blocks
 * while the node is asked.
 */
class JSON_RPC_GaussDB_Create_Instance_Handler : public JSON_RPC_Handler {
public:
    /** @return 0; -1, logged, if the object is not a request or the caller has disconnected */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;

private:
    int create_instance(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
};

#endif
