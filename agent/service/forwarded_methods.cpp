#include "agent/service/agent_methods.h"
#include "host/agent/host_services.h"
#include "host/rpc/upstream_backend.h"

namespace {

bool ask_server(Method_Call const& call, json_spirit::Value& result, Method_Fault& fault) {
    std::shared_ptr<Upstream_Backend> const upstream = Host_Services::instance().upstream();
    JSON_RPC_Reply reply;
    if (upstream && upstream->call(call.method, call.params, {}, reply)) {
        result = std::move(reply.result);
        return true;
    }
    if (!upstream)
        fault = {JSON_RPC_UNREACHABLE, "there is no backup server", {}};
    else
        fault = {reply.code, reply.message, reply.data};
    return false;
}

} // namespace

void forward_catalog_methods(Method_Table& methods) {
    for (char const* const name :
         {"pool.list", "pool.create", "pool.update", "pool.remove", "pool.find", "backup.list",
          "backup.point", "backup.show", "backup.remove", "catalog.initialize", "catalog.complete",
          "catalog.commit", "catalog.abort", "catalog.add_piece", "catalog.get_view",
          "catalog.abort_open"})
        methods.add(name, ask_server);
}
