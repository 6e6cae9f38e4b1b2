#include "host/rpc/websocket_options.h"

WebSocket_Options* WebSocket_Options::instance() {
    static WebSocket_Options options;
    return &options;
}

std::string WebSocket_Options::host() const {
    std::lock_guard const guard(mutex_);
    return host_;
}

unsigned short WebSocket_Options::port() const {
    std::lock_guard const guard(mutex_);
    return port_;
}

bool WebSocket_Options::ssl() const {
    std::lock_guard const guard(mutex_);
    return ssl_;
}

void WebSocket_Options::set(std::string const& host, unsigned short port, bool ssl) {
    std::lock_guard const guard(mutex_);
    host_ = host;
    port_ = port;
    ssl_ = ssl;
}
