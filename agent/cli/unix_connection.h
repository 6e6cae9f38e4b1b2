#ifndef AGENT_CLI_UNIX_CONNECTION_H
#define AGENT_CLI_UNIX_CONNECTION_H

#include "agent/cli/agent_connection.h"
#include "qmrt/file.h"

#include <chrono>
#include <optional>

/** Where the agent listens unless it was told otherwise. */
constexpr char DEFAULT_AGENT_SOCKET[] = "/run/zenbrak3/agent.sock";

/** What a user may do whom the agent does not serve. */
constexpr char WHO_MAY_ASK[] =
    "Run the command as root, such as by sudo. To look only (info, instances, backups, jobs, "
    "pools, "
    "check), join the group zenbrak3-read: `usermod -aG zenbrak3-read USER`, and log in again.";

/**
 * JSON-RPC 2.0 over the agent's Unix stream socket: each message is one compact JSON text and "\n".
 * Connects at the first call. Messages that answer nothing are passed over. After a failure of the
 * connection every call fails.
 */
class Unix_Connection : public Agent_Connection {
public:
    /** A longer answer is an error. */
    static constexpr size_t MAX_ANSWER = 256 * 1024 * 1024;

    explicit Unix_Connection(std::string path) : path_(std::move(path)) {}

    [[nodiscard]] bool call(std::string const& method, json_spirit::Value const& params,
                            json_spirit::Value& result, Rpc_Error& error) override;
    void time_limit(std::chrono::seconds limit) override {
        limit_ = limit;
        end_ = std::chrono::steady_clock::now() + limit;
    }

private:
    [[nodiscard]] bool open(Rpc_Error& error);
    [[nodiscard]] bool send(json_spirit::Value const& request, Rpc_Error& error);
    [[nodiscard]] bool receive_line(std::string& line, Rpc_Error& error);
    int milliseconds_left() const;
    [[nodiscard]] bool wait(short events, Rpc_Error& error);
    [[nodiscard]] bool lost(Rpc_Error& error, std::string const& why);

    std::string const path_;
    File_Descriptor socket_;
    std::string received_; ///< what came behind the last line
    int64_t last_id_ = 0;
    std::chrono::seconds limit_{0};
    std::optional<std::chrono::steady_clock::time_point> end_; ///< of the time for all calls
    bool broken_ = false;
};

#endif
