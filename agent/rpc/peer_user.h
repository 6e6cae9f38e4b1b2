#ifndef AGENT_RPC_PEER_USER_H
#define AGENT_RPC_PEER_USER_H

#include <boost/asio/ip/tcp.hpp>
#include <optional>
#include <sys/types.h>

/**
 * The user of the process at the other end of a connection on this host, as the kernel knows it;
 * nothing when the other end is elsewhere, has gone, or the kernel does not tell. Does not block.
 */
std::optional<uid_t> user_of_peer(boost::asio::ip::tcp::socket const& socket);

#endif
