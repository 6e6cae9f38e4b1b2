#ifndef GAUSSDB_WEBSVCS_AGENT_GAUSSDB_MODIFY_INSTANCE_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_GAUSSDB_MODIFY_INSTANCE_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Changes the record of a cluster. Params: "name", and the members to change: "meta_path",
 * "address", "source_commands", "ssh_options", "backup_port", "tpops_host", "tpops_port",
 * "tpops_ssl", "xbsa_host", "xbsa_port", "xbsa_ssl", "node_count"; others are ignored. The result
 * is true.
 *
 * Values that fault_of_non_intrusive_record() finds fault with change nothing. When the changed
 * cluster cannot be reached or recorded, the registry has the new values and the record the old
 * ones, until the next search. Errors: -32602 and -32603. Keeps nothing between requests: any
 * thread. Blocks while the node is asked.
 */
class JSON_RPC_GaussDB_Modify_Instance_Handler : public JSON_RPC_Handler {
public:
    /** @return 0; -1, logged, if the object is not a request or the caller has disconnected */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;

private:
    int modify_instance(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
};

#endif
