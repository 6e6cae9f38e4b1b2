#ifndef AGENT_RPC_PEER_USER_H
#define AGENT_RPC_PEER_USER_H

#include <boost/asio/ip/tcp.hpp>
#include <optional>
#include <sys/types.h>

/**
 * The user of the process at the other end of a connection within this host, from the kernel's
 * socket table. No value when the other end is on another host or closed, or when the kernel has no
 * entry for it. Does not block.
 */
std::optional<uid_t> user_of_peer(boost::asio::ip::tcp::socket const& socket);

#endif
