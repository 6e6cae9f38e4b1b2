#ifndef GAUSSDB_WEBSVCS_AGENT_TPOPS_ADD_INSTANCE_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_TPOPS_ADD_INSTANCE_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Puts instances of a TPOPS platform on record. The params are an object:
 *
 *   "uid"                    the user who gets the accounts
 *   "username", "password"   of the platform's user, the password in the form of encrypt_string()
 *   "instances"              array of objects, each with "name" and what else it has of the keys of
 *                            GaussDB_TPOPS_Instance_Info
 *   those keys               for all instances; one that an instance does not have is that of the
 *                            instance before it
 *
 * The result is an array with the uuid of each instance that was added. An instance whose name is
 * taken, or that cannot be recorded, is a line in the log, and the others go on. Errors: -32602 for
 * params without these keys and for texts that cannot be what they are to be (see
 * fault_of_tpops_record()), with nothing added; -32603 when a record cannot be used. Throws
 * json_spirit::Error for an element of "instances" without a "name" or with a key of the wrong
 * kind: the caller guards it. What was added before stays.
 *
 * The platform is not asked. Keeps nothing between requests: any thread.
 */
class JSON_RPC_TPOPS_Add_Instance_Handler : public JSON_RPC_Handler {
public:
    /** @return 0; -1, logged, if the object is not a request or the caller has disconnected */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;
    /** @param channel  null when the caller has disconnected */
    virtual int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request);

private:
    int add_instance(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
};

#endif
