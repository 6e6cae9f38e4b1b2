#ifndef AGENT_RPC_CONNECTION_SLOTS_H
#define AGENT_RPC_CONNECTION_SLOTS_H

#include "agent/rpc/rpc_limits.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

/** How many connections there are, in all and from each address. For any thread. */
class Connection_Slots : public std::enable_shared_from_this<Connection_Slots> {
public:
    explicit Connection_Slots(Rpc_Limits const& limits) : limits_(limits) {}

    /**
     * Takes one, to be kept as long as the connection lasts.
     * @param address  "" for one that only counts towards all
     * @return null when there are too many; the first refusal after a success is logged at
     *         LM_WARNING
     */
    std::shared_ptr<void> take(std::string const& address);

    size_t taken() const;

private:
    void give_back(std::string const& address);

    Rpc_Limits const limits_;
    mutable std::mutex mutex_;
    size_t all_ = 0;
    std::map<std::string, size_t> of_address_;
    bool refusing_ = false;
};

#endif
