#ifndef BENCHMARKS_SERVE_H
#define BENCHMARKS_SERVE_H

#include "agent/rpc/rpc_server.h"

#include <cstdio>
#include <unistd.h>

/**
 * Serves as the agent does, at a socket and at a free port of the loopback, which it prints, until
 * stdin ends. Whoever has the key may call everything.
 * @param paths  of the socket, the certificate and its private key
 * @return the exit status
 */
inline int serve(Method_Table& methods, Rest_Routes& routes, char const* const paths[3],
                 std::string_view access_key) {
    methods.gate([](Method_Call const&, Method_Fault&) { return true; });
    Rpc_Server_Options options;
    options.socket_path = paths[0];
    options.network = true;
    options.address = "127.0.0.1";
    options.certificate = paths[1];
    options.private_key = paths[2];
    options.access_key = secure_string(access_key);
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

#endif
