#ifndef GAUSSDB_WEBSVCS_AGENT_TPOPS_LIST_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_TPOPS_LIST_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Lists the instances of a TPOPS platform. The params are an object, with either "name", an
 * instance on record whose platform is asked for that instance alone, or the keys of
 * TPOPS_Login::load().
 *
 * The result is an array of TPOPS_Instance_Info::dump(). Errors: -32602 for params that name no
 * instance on record or are no login, and -32603 when the platform cannot be logged in to or gives
 * no instance. Throws json_spirit::Error for an answer of the platform that is not what it should
 * be: the caller guards it.
 *
 * Keeps nothing between requests: any thread. Blocks while the platform is asked.
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
