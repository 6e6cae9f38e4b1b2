#ifndef GAUSSDB_WEBSVCS_AGENT_GAUSSDB_LIST_HANDLER_H
#define GAUSSDB_WEBSVCS_AGENT_GAUSSDB_LIST_HANDLER_H

#include "host/rpc/json_rpc_handler.h"

/**
 * Lists what there is to protect, by what its params are:
 *
 *     null                              all instances of this host, an array of the records of
 *                                       GaussDB_Cluster_Manager::get_instances(): runs discovery
 *     {"uid", "instance"}               {"databases": [{"name"}...]} of a known instance, without
 *                                       the templates; "database" may be there and ""
 *     {"uid", "instance", "database"}   {"schemas": [name...]} of a database, without the system's
 *
 * The uid is of the user whose stored account is used; schemas are listed without an account, and
 * of the database of the flavour's choice where its client always logs on to one.
 *
 * Errors: -32602 "Invalid params", also for a database's name that a shell would not leave as it
 * is, for some flavours hand it to a remote one; -32603 "Internal error: ..." for what could not be
 * done, which is in the log too.
 *
 * Keeps nothing between requests: any thread. Blocks while the database's tools run.
 */
class JSON_RPC_GaussDB_List_Handler : public JSON_RPC_Handler {
public:
    /** @return 0; -1, logged, for what is no request, or when the one who asked has gone */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;

private:
    int list_gaussdb_instances(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
    int list_gaussdb_databases(JSON_RPC_Channel* channel, JSON_RPC_Request* request);
};

#endif
