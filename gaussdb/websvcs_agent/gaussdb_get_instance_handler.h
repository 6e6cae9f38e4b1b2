#ifndef GAUSSDB_WEBSVCS_AGENT_GAUSSDB_GET_INSTANCE_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_GAUSSDB_GET_INSTANCE_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Gives the record of a cluster that was declared by hand. Params: {"instance"}, its name. The
 * result is the record; {} for a cluster that was found. Errors: -32602 for other params and for
 * an unknown name. Keeps nothing between requests: any thread.
 */
class JSON_RPC_GaussDB_Get_Instance_Handler : public JSON_RPC_Handler {
public:
    /** @return 0; -1, logged, if the object is not a request or the caller has disconnected */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;

private:
    int get_instance(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
};

#endif
