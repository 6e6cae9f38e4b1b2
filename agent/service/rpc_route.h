#ifndef AGENT_SERVICE_RPC_ROUTE_H
#define AGENT_SERVICE_RPC_ROUTE_H

class Method_Table;
class Rest_Routes;

/**
 * Serves "POST /d2/r/v2/rpc": one JSON-RPC request as the body, answered with its response. It is
 * for callers that keep no connection, such as the XBSA library. What is no request is answered
 * with an error response; the status is 200 either way.
 * @param methods  lives longer than the routes
 */
void add_rpc_route(Rest_Routes& routes, Method_Table& methods);

#endif
