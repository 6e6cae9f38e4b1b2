#ifndef AGENT_RPC_RPC_SERVER_H
#define AGENT_RPC_RPC_SERVER_H

#include "agent/rpc/access_key.h"
#include "agent/rpc/method_table.h"
#include "agent/rpc/rest_routes.h"
#include "agent/rpc/rpc_limits.h"
#include "json_spirit/secure_string.h"

#include <memory>
#include <string>

/** Where a server is reached. */
struct Rpc_Server_Options {
    /** The agent's own socket; "" for none. Root and the agent's user may do everything there. */
    std::string socket_path;
    /** The group of the operating system whose members may look, at the socket; "" for none. */
    std::string readers;

    /** Whether to serve WebSocket and REST over TLS as well. */
    bool network = false;
    std::string address = "::"; ///< IPv4 or IPv6; "::" is every one of the host's
    unsigned short port = 0;    ///< 0 for any that is free
    std::string certificate;    ///< path, PEM, with the chain behind it
    std::string private_key;    ///< path, PEM
    /** The administrator's; must not be empty. */
    secure_string access_key;
    /**
     * Knows the other keys by their hashes. On the thread of all input: must not block. Asked with
     * each request, and once for a WebSocket connection.
     * @return a caller of kind NOBODY for a key that is not known
     */
    std::function<Rpc_Caller(Key_Digest const& key)> known_keys;

    Rpc_Limits limits;
};

/**
 * Serves the methods of a table and the resources of a route table.
 *
 * At the socket a message is one JSON text a line. At the port it is one text message of a
 * WebSocket connection (RFC 6455), or one HTTP/1.1 request to a resource, over TLS 1.2 or later;
 * either needs the header field "Authorization: Bearer KEY". Without a key that is known it is
 * status 401 after a delay. A run's key opens no WebSocket connection, which would outlive the run:
 * status 403. Who shows none within Rpc_Limits::key is closed. A request for which there is no room
 * gets status 503.
 *
 * All input and output is on one thread, which waits for nobody; requests are handled on the
 * table's threads. start() and stop() are for one thread at a time.
 */
class Rpc_Server {
public:
    /** Both tables stay the caller's and live longer. */
    Rpc_Server(Method_Table& methods, Rest_Routes const& routes, Rpc_Server_Options options);
    /** Calls stop(). */
    ~Rpc_Server();
    Rpc_Server(Rpc_Server const&) = delete;
    Rpc_Server& operator=(Rpc_Server const&) = delete;

    /**
     * Begins to serve. A server is started once.
     * @return false, with nothing left behind, and what is wrong and what to do. Logs nothing.
     */
    [[nodiscard]] bool start(std::string& error);

    /**
     * Ends all connections, removes the socket, and returns when none of the server's work is left;
     * a request that is being handled goes on and its answer is dropped. More than once does no
     * harm.
     */
    void stop();

    /** The port that is served; 0 when none is. */
    unsigned short port() const;

    /** How many connections there are. */
    size_t connections() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

#endif
