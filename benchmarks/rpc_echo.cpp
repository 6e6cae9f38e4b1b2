// The agent's JSON-RPC server with one method, for rpc_bench.cpp. Arguments: SOCKET CERTIFICATE
// KEY. Prints its port; ends when stdin does.
#include "benchmarks/serve.h"

using json_spirit::Value;

int main(int argc, char** argv) {
    if (argc != 4)
        return 2;
    Method_Table methods;
    Rest_Routes routes;
    methods.add("echo", [](Method_Call const& call, Value& result, Method_Fault&) {
        result = call.params;
        return true;
    });
    return serve(methods, routes, argv + 1, "bench");
}
