#ifndef HOST_RPC_WEBSOCKET_OPTIONS_H
#define HOST_RPC_WEBSOCKET_OPTIONS_H

#include "qmrt/constants.h"

#include <mutex>
#include <string>

/** Where the agent's connection to the backup server goes. May be used on any thread. */
class WebSocket_Options {
public:
    /** Never null, never destroyed. */
    static WebSocket_Options* instance();

    std::string host() const;
    unsigned short port() const;
    [[nodiscard]] bool ssl() const;

    /** The agent sets them at start, all in one step. */
    void set(std::string const& host, unsigned short port, bool ssl);

private:
    WebSocket_Options() = default;

    mutable std::mutex mutex_;
    std::string host_ = "localhost";
    unsigned short port_ = DEFAULT_BACKUPD_PORT_HTTPS;
    bool ssl_ = true;
};

#endif
