#ifndef AGENT_RPC_SOCKET_USER_H
#define AGENT_RPC_SOCKET_USER_H

#include "agent/rpc/rpc_caller.h"

/**
 * Who has connected to a socket of this host, by the kernel's record of the connection (SO_PEERCRED
 * and SO_PEERGROUPS of unix(7)): LOCAL for root and for the agent's own user, READER for a process
 * with the group @a readers, and otherwise NOBODY. Does not block.
 */
Rpc_Caller caller_at(int socket, std::optional<gid_t> const& readers);

#endif
