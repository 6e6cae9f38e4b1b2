// The agent's JSON-RPC server with the agent's catalog, as far as the XBSA library asks it, for
// xbsa_query_bench.cpp. Arguments: DATABASE POOL SETS SOCKET CERTIFICATE KEY. The catalog has that
// many sets, KEY0000 and on. Prints its port; ends when stdin does.
#include "agent/catalog/catalog_calls.h"
#include "agent/catalog/catalog_tables.h"
#include "agent/catalog/recorded_set.h"
#include "agent/catalog/sqlite_catalog.h"
#include "agent/service/rpc_route.h"
#include "benchmarks/serve.h"
#include "qmrt/format.h"

#include <cstdio>
#include <cstdlib>

using json_spirit::Object;
using json_spirit::Value;

namespace {

int fail(std::string const& error) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
}

bool fill(SQLite_Catalog& catalog, int sets) {
    for (int number = 0; number < sets; ++number) {
        Recorded_Set const set("gaussdb", {{"uuid", string_sprintf("KEY%04d", number)},
                                           {"resource_uuid", "cluster"},
                                           {"host_uuid", "host"}});
        if (!catalog.initialize({-1, -1}, set) || !catalog.complete({-1, -1}, set))
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 7)
        return 2;
    std::string error;
    auto const database = Agent_Database::open(argv[1], {CATALOG_TABLES}, error);
    if (!database)
        return fail(error);
    SQLite_Catalog catalog(*database);
    if (!fill(catalog, std::atoi(argv[3])))
        return fail("the catalog cannot be filled");
    Method_Table methods;
    Rest_Routes routes;
    Value const pool = Object{{"uuid", "pool"}, {"url", std::string("file://") + argv[2]}};
    methods.add("pool.find", [&](Method_Call const&, Value& result, Method_Fault&) {
        result = pool;
        return true;
    });
    // the sets are complete, and nobody asks for their pieces
    methods.add("catalog.add_piece", [](Method_Call const&, Value& result, Method_Fault&) {
        result = Object();
        return true;
    });
    methods.add("catalog.get_view",
                [&](Method_Call const& call, Value& result, Method_Fault& fault) {
                    return serve_catalog_call(catalog, "get_view", call.params.get_obj(), result,
                                              fault.message);
                });
    add_rpc_route(routes, methods);
    return serve(methods, routes, argv + 4, "key");
}
