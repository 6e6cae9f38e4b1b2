#ifndef AGENT_RPC_RPC_LIMITS_H
#define AGENT_RPC_RPC_LIMITS_H

#include <chrono>
#include <cstddef>

/** What a server allows its clients, and a client its server. */
struct Rpc_Limits {
    using Duration = std::chrono::milliseconds;

    size_t message_bytes = 16 * 1024 * 1024; ///< of one message; a longer one ends the connection
    size_t batch_messages = 1000;            ///< in one batch; a larger one is an invalid request
    size_t in_flight = 32; ///< requests of one connection; while so many wait, no more is read
    size_t connections = 256;
    size_t connections_per_address = 64; ///< of one network address
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
    Duration denied_most{8'000};
};

#endif
