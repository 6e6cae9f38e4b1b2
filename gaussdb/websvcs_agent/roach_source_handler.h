#ifndef GAUSSDB_WEBSVCS_AGENT_ROACH_SOURCE_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_ROACH_SOURCE_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Serves the method gaussdb.roach_source on every agent of a cluster: the receiving end of
 * Roach_Source::notify() and Roach_Source::remove(), which see for the request. The reply is true,
 * or an error: -32602 for params that are not as they should be, after which nothing has been
 * changed, and -32603 for what could not be done.
 *
 * Keeps nothing between requests: any thread.
 */
class JSON_RPC_Roach_Source_Handler : public JSON_RPC_Handler {
public:
    /** @return 0; -1, logged, for what is no request, or when the one who asked has gone */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var obj) override;

private:
    int handle_roach_source(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
};

#endif
