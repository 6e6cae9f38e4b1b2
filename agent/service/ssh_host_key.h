#ifndef AGENT_SERVICE_SSH_HOST_KEY_H
#define AGENT_SERVICE_SSH_HOST_KEY_H

#include "json_spirit/value.h"

#include <string>

/**
 * The host key of a machine that this host logs in to by ssh. Address and options are as
 * names::fault_of_ssh_address() and fault_of_ssh_options() accept them. No login is tried.
 * Thread-safe; the functions block while ssh runs.
 */
struct Ssh_Host_Key {
    enum State {
        KNOWN,      ///< ssh accepts it
        UNKNOWN,    ///< no known_hosts has one of that host
        CHANGED,    ///< known_hosts has another one of that host
        UNREACHABLE ///< no key came
    };
    State state = UNREACHABLE;
    // of an UNKNOWN one
    std::string type;        ///< "ED25519"
    std::string fingerprint; ///< "SHA256:..."
    std::string line;        ///< for known_hosts, with its line break

    /** {"state", "type", "fingerprint"} */
    json_spirit::Object dump() const;
};

Ssh_Host_Key find_ssh_host_key(std::string const& address, std::string const& options);

/**
 * Adds an UNKNOWN key to the known_hosts file that ssh uses for the address.
 * @param fingerprint  which key an administrator has accepted
 * @return false, with nothing changed, for another key or a file that cannot be written
 */
[[nodiscard]] bool trust_ssh_host_key(std::string const& address, std::string const& options,
                                      Ssh_Host_Key const& key, std::string const& fingerprint,
                                      std::string& error);

#endif
