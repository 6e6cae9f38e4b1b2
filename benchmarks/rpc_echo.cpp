// The agent's JSON-RPC server with one method, for rpc_bench.cpp. Arguments: SOCKET CERTIFICATE
// KEY. Prints its port; ends when stdin does.
#include "agent/rpc/rpc_server.h"

#include <cstdio>
#include <unistd.h>

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
    methods.gate([](Method_Call const&, Method_Fault&) { return true; });
    Rpc_Server_Options options;
    options.socket_path = argv[1];
    options.network = true;
    options.address = "127.0.0.1";
    options.certificate = argv[2];
    options.private_key = argv[3];
    options.access_key = secure_string(std::string_view("bench"));
    options.limits.connections = 1000;
    options.limits.connections_per_address = 1000;
    Rpc_Server server(methods, routes, options);
    std::string error;
    if (!server.start(error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    std::printf("%u\n", server.port());
    std::fflush(stdout);
    for (char byte = 0; ::read(STDIN_FILENO, &byte, 1) > 0;) {
    }
    return 0;
}
