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
 *   those keys               defaults; an instance that lacks a key has the value of the instance
 *                            before it
 *
 * The result is an array with the uuid of each added instance. An instance whose name is taken, or
 * that cannot be recorded, is logged and skipped. Errors: -32602 if a key is missing or a text is
 * invalid (see fault_of_tpops_record()), with nothing added; -32603 if a record cannot be used.
 * Throws json_spirit::Error if an element of "instances" lacks "name" or has a key of the wrong
 * kind; the caller catches it, and instances added before stay.
 *
 * Sends nothing to the platform. Thread-safe.
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
