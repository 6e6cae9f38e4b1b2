#ifndef AGENT_RPC_TLS_CONTEXT_H
#define AGENT_RPC_TLS_CONTEXT_H

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <string>

/**
 * The TLS settings of a server: TLS 1.2 and later, without renegotiation. A key that is protected
 * by a password is a failure.
 * @return null with what is wrong and which file it is about
 */
std::shared_ptr<boost::asio::ssl::context> make_server_context(std::string const& certificate,
                                                               std::string const& private_key,
                                                               std::string& error);

/**
 * The TLS settings of a client that verifies the server.
 * @param ca_file  the authorities to trust, PEM; "" for the system's
 */
std::shared_ptr<boost::asio::ssl::context> make_client_context(std::string const& ca_file,
                                                               std::string& error);

#endif
