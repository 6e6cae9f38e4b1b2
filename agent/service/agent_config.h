#ifndef AGENT_SERVICE_AGENT_CONFIG_H
#define AGENT_SERVICE_AGENT_CONFIG_H

#include <cstdint>
#include <string>
#include <vector>

/**
 * The agent's configuration: one TOML file (toml.io, 1.0) of a few tables. Every key has a default,
 * so an empty file, and none at all, is a complete configuration. docs/man/zenbrak3-agent.toml.5
 * says for people what each key does; keys_and_values() lists them.
 */
struct Agent_Config {
    // [agent]
    std::string name;                           ///< "": the host's name
    std::string data_dir = "/var/lib/zenbrak3"; ///< database, keys, logs of runs
    std::string module;                         ///< "": the installed one
    std::string log = "stderr";                 ///< or "journal"
    std::string log_level = "info";             ///< "debug", "info", "warning" or "error"
    int64_t stop_timeout = 60;                  ///< seconds for the agent to end, and its jobs
    int64_t probe_interval = 600;               ///< seconds between discoveries; 0: only on request
    int64_t kept_runs = 100;                    ///< of each definition
    // [socket]
    std::string socket = "/run/zenbrak3/agent.sock";
    std::string readers = "zenbrak3-read"; ///< group whose members may look; "": none
    // [remote]
    bool remote = true;                ///< WebSocket and REST over TLS are served
    std::string address = "127.0.0.1"; ///< the XBSA library comes this way, too
    int64_t port = 60305;              ///< 0: any that is free
    std::string certificate;           ///< "": data_dir/tls/agent.crt, made when absent
    std::string private_key;           ///< "": data_dir/tls/agent.key, made when absent
    std::string access_key_file;       ///< "": data_dir/access.key, made when absent
    // [limits]
    int64_t message_size = 16 * 1024 * 1024; ///< bytes of one request
    int64_t connections = 256;
    int64_t message_timeout = 30;               ///< seconds for a whole request to come in
    int64_t unfinished_size = 64 * 1024 * 1024; ///< bytes of all requests that are not answered
    int64_t tool_timeout = 60; ///< seconds for a tool of the database to answer a question
    int64_t tool_output = 64 * 1024 * 1024; ///< bytes of such an answer
    // [platform]
    bool platform_verify = true;   ///< false: do not verify the certificates of platforms
    std::string platform_ca_file;  ///< PEM; "" for the system's authorities
    int64_t platform_timeout = 60; ///< seconds for a platform to answer a request
    // [group]
    std::string role = "alone";   ///< "alone", "backupd" or "member"
    std::string backupd_url;      ///< of a member: "wss://HOST:PORT"
    std::string backupd_ca;       ///< PEM file that vouches for backupd
    std::string backupd_key_file; ///< the key that backupd knows

    /** One key as people write it: "agent.data_dir". */
    struct Key {
        std::string name;
        std::string value; ///< as TOML
        bool at_start;     ///< a change counts only at the next start
    };
    /** Every key with the value that it has here, in the order of the tables. */
    std::vector<Key> keys_and_values() const;

    /**
     * Reads a file over the defaults.
     * @param must_exist  false: no such file is the same as an empty one
     * @param error       when false: file, line, key, what is wrong, and what is wanted
     * @return false, with this unchanged, for a file that cannot be read or is no TOML, a key that
     *         is not known or comes twice, a value of another kind or out of its range
     */
    [[nodiscard]] bool read(std::string const& path, bool must_exist, std::string& error);

    /** The names of the keys that count only at start and differ from @a other's. */
    std::vector<std::string> restart_needed(Agent_Config const& other) const;
};

#endif
