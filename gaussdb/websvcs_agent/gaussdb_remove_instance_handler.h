#ifndef GAUSSDB_WEBSVCS_AGENT_GAUSSDB_REMOVE_INSTANCE_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_GAUSSDB_REMOVE_INSTANCE_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Forgets a cluster that was declared by hand, with its accounts. Params: {"instance"}, its name.
 * The result is true. Refused with -32602 for a cluster that was found and for one that two or more
 * hosts serve. A job that runs keeps the cluster until its end. Keeps nothing between requests: any
 * thread.
 */
class JSON_RPC_GaussDB_Remove_Instance_Handler : public JSON_RPC_Handler {
public:
    /** @return 0; -1, logged, if the object is not a request or the caller has disconnected */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;

private:
    int remove_instance(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
};

#endif
