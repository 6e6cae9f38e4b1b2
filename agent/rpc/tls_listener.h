#ifndef AGENT_RPC_TLS_LISTENER_H
#define AGENT_RPC_TLS_LISTENER_H

#include "agent/rpc/connection_slots.h"
#include "agent/rpc/rpc_server.h"

#include <memory>
#include <string>

class Rpc_Io;
class Rpc_Sessions;

/** The agent's port. All but open() and join() on the thread of its Rpc_Io. */
class Tls_Listener {
public:
    Tls_Listener(Rpc_Io& io, Rpc_Sessions& sessions, std::shared_ptr<Connection_Slots> slots,
                 Method_Table& methods, Rest_Routes const& routes,
                 Rpc_Server_Options const& options);
    ~Tls_Listener();

    [[nodiscard]] bool open(std::string& error);
    unsigned short port() const;
    void start();
    void stop();
    /** After stop(), on any other thread: returns when no REST request is being handled. */
    void join();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

#endif
