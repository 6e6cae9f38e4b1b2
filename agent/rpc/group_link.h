#ifndef AGENT_RPC_GROUP_LINK_H
#define AGENT_RPC_GROUP_LINK_H

#include "agent/rpc/method_table.h"
#include "agent/rpc/rpc_limits.h"
#include "host/rpc/upstream_backend.h"
#include "json_spirit/secure_string.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

/** How a member reaches the backup server of its group, and who it is there. */
struct Group_Link_Options {
    using Duration = std::chrono::milliseconds;

    std::string url;          ///< "wss://host:port"; without a port DEFAULT_BACKUPD_PORT_HTTPS
    secure_string access_key; ///< this member's own
    std::string ca_file;      ///< PEM, whom to trust; "" for the system's authorities

    std::string host_uuid;
    std::string name;
    std::string component;
    std::string version;

    /** The runs that are on, as group.join wants them; may be null. */
    std::function<json_spirit::Array()> runs;

    Rpc_Limits limits;
    Duration reconnect{1'000};       ///< after the first failure; twice as long each time
    Duration reconnect_most{60'000}; ///< at most
    Duration wait{10'000};           ///< of a call for the connection, when its caller does not say
    Duration answer{120'000};        ///< to a call, when its caller does not say
    Duration forward{310'000};       ///< to a forward: somewhat more than the server itself waits
};

/**
 * A member's connection to the backup server: a WebSocket over TLS that is made again whenever it
 * breaks. Calls, forwards and notifications go up through it, and the server's requests come down
 * and are served by the method table, from a caller of kind BACKUPD. REST requests go beside it.
 *
 * Connection and loss are logged, a loss and the first of several failures of one kind at
 * LM_WARNING. start() and stop() are for one thread at a time, the others for any.
 */
class Group_Link : public Upstream_Backend {
public:
    /** @param methods  not owned, must outlive this object; gets group.deliver */
    Group_Link(Method_Table& methods, Group_Link_Options options);
    /** Calls stop(). */
    ~Group_Link() override;

    /**
     * Begins to connect, in the background. Once.
     * @return false with what is wrong with the options, logged nowhere
     */
    [[nodiscard]] bool start(std::string& error);
    /** Ends the connection and all that wait for an answer. More than once does no harm. */
    void stop();

    /** True when the connection is there and the server has accepted this agent. */
    [[nodiscard]] bool connected() const;
    /** Waits until connected() is that. @return false when it is not in time */
    [[nodiscard]] bool await(bool connected, std::chrono::milliseconds timeout) const;

    [[nodiscard]] bool rest(HTTP_Request const& request, json_spirit::Value const* body,
                            HTTP_Response& response, json_spirit::Value* result) override;
    [[nodiscard]] bool call(std::string const& method, json_spirit::Value const& params,
                            Limits const& limits, JSON_RPC_Reply& reply) override;
    [[nodiscard]] bool forward(std::string const& host_uuid, std::string const& method,
                               json_spirit::Value const& params, JSON_RPC_Reply& reply) override;
    [[nodiscard]] bool notify(std::string const& method, json_spirit::Value const& params,
                              std::string& error) override;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

#endif
