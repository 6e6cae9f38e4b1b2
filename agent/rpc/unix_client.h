#ifndef AGENT_RPC_UNIX_CLIENT_H
#define AGENT_RPC_UNIX_CLIENT_H

#include "host/rpc/json_rpc_channel.h"
#include "json_spirit/value.h"
#include "qmrt/file.h"

#include <chrono>
#include <string>

/**
 * A client of the agent on this host, by the agent's own socket: one request after the other. One
 * object is for one thread at a time. Logs nothing.
 */
class Unix_Client {
public:
    /** A larger reply ends the connection: 64 MiB. */
    static constexpr size_t MAX_REPLY = 64 * 1024 * 1024;

    /**
     * Connects, in place of an earlier connection.
     * @return false with what is wrong and what to do
     */
    [[nodiscard]] bool connect(std::string const& path, std::string& error);
    [[nodiscard]] bool connected() const { return static_cast<bool>(socket_); }
    void close();

    /**
     * Sends a request and waits for its reply.
     * @param params   an object, an array or null
     * @param timeout  for all of it
     * @param reply    the result; when false the agent's error, or JSON_RPC_UNREACHABLE, which
     *                 closes the connection, or JSON_RPC_TIMEOUT, after which a reply that comes
     *                 late is dropped; the last two with a message that says what to do
     * @return true for a result
     */
    [[nodiscard]] bool call(std::string const& method, json_spirit::Value const& params,
                            std::chrono::milliseconds timeout, JSON_RPC_Reply& reply);

private:
    using Time = std::chrono::steady_clock::time_point;
    enum class Wait { READY, LATE, BROKEN };

    Wait wait_for(short events, Time deadline) const;
    Wait send_all(std::string const& text, Time deadline);
    Wait read_line(std::string& line, Time deadline);
    [[nodiscard]] bool take(std::string const& line, int64_t id, JSON_RPC_Reply& reply,
                            bool& succeeded) const;
    [[nodiscard]] bool broken(Wait wait, bool half_sent, JSON_RPC_Reply& reply);

    File_Descriptor socket_;
    std::string path_;
    std::string inbox_;
    size_t searched_ = 0;
    int64_t last_id_ = 0;
};

#endif
