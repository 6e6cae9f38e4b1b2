#ifndef GAUSSDB_WEBSVCS_AGENT_TPOPS_LIST_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_TPOPS_LIST_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Lists the instances of a TPOPS platform. The params are an object with one of:
 *
 *   "name"                     an instance on record; only this instance is listed
 *   keys of TPOPS_Login::load()
 *
 * The result is an array of TPOPS_Instance_Info::dump(). Errors: -32602 if the instance is not on
 * record or the login is incomplete, -32603 if the login fails or the platform lists no instance.
 * Throws json_spirit::Error for an invalid answer of the platform; the caller catches it.
 *
 * Thread-safe. Blocks until the platform has answered.
 */
class JSON_RPC_TPOPS_List_Handler : public JSON_RPC_Handler {
public:
    /** @return 0; -1, logged, if the object is not a request or the caller has disconnected */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;
    /** @param channel  null when the caller has disconnected */
    virtual int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request);

private:
    int list_tpops_instances(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
};

#endif
