#ifndef AGENT_RPC_RPC_LIMITS_H
#define AGENT_RPC_RPC_LIMITS_H

#include <chrono>
#include <cstddef>
#include <memory>

class Message_Budget;

/** What a server allows its clients, and a client its server. */
struct Rpc_Limits {
    using Duration = std::chrono::milliseconds;

    size_t message_bytes = 16 * 1024 * 1024; ///< of one message; a longer one ends the connection
    size_t batch_messages = 1000;            ///< in one batch; a larger one is an invalid request
    size_t in_flight = 32;    ///< requests of one connection; while so many wait, no more is read
    size_t connections = 256; ///< at the agent's own socket; as many at the port, with the key
    size_t readers = 32;      ///< connections at the agent's own socket of users who may look only
    size_t connections_of_reader = 8;    ///< of those, of one user
    size_t connections_per_address = 64; ///< of those with the key, from one origin
    /** At the port without the key: from this host, and as many from the network. */
    size_t strangers = 64;
    size_t strangers_of_origin = 16; ///< of one user of this host, or of one network address
    /** For a new connection to show the key, with its handshakes. */
    Duration key{5'000};
    size_t unfinished_bytes = 64 * 1024 * 1024; ///< of all messages that are not answered
    /** Of a server, which makes it; null counts nothing. */
    std::shared_ptr<Message_Budget> budget;
    size_t unsent_bytes =
        64 * 1024 * 1024; ///< for one that does not read; more ends its connection
    /** For a handshake, for the rest of a message once it has begun, and to take what is sent. */
    Duration message{30'000};
    /** Without a message, a request in flight or anything to send, unless a member is connected. */
    Duration idle{300'000};
    /** Between the pings of a WebSocket connection; it ends when three have gone unanswered. */
    Duration ping{20'000};
    /** Before a wrong key is told so, the first time; twice as long with each time after that. */
    Duration denied{1'000};
    Duration denied_most{8'000}; ///< but not beyond the time for the key
};

#endif
