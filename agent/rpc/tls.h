#ifndef AGENT_RPC_TLS_H
#define AGENT_RPC_TLS_H

#include <string>

/**
 * Makes a certificate that vouches for itself, for ten years, with a new EC P-256 key. Clients
 * trust it by having it as their file of authorities. It is for @a host_name, a name or an address,
 * and for localhost, 127.0.0.1 and ::1.
 * @param certificate_path  PEM, mode 0644
 * @param key_path          PEM, mode 0600
 * @return false, with what went wrong; each file is then as it was or whole and new
 */
[[nodiscard]] bool make_self_signed(std::string const& certificate_path,
                                    std::string const& key_path, std::string const& host_name,
                                    std::string& error);

#endif
