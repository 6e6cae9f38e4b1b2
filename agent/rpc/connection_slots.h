#ifndef AGENT_RPC_CONNECTION_SLOTS_H
#define AGENT_RPC_CONNECTION_SLOTS_H

#include "agent/rpc/rpc_limits.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

/**
 * The room for connections. There are four rooms, and one that is full takes nothing from the
 * others: for administrators at the agent's own socket, for readers there, for those at the port
 * whose client has shown the key, and a small one for those whose client has not, in which each
 * origin has a share. An origin is a user of this host or a network address. Thread-safe.
 */
class Connection_Slots : public std::enable_shared_from_this<Connection_Slots> {
public:
    explicit Connection_Slots(Rpc_Limits const& limits) : limits_(limits) {}

    /** A connection's place in a room, given back when this is destroyed. */
    class Slot {
    public:
        ~Slot() { slots_->give_back(*this); }
        Slot(Slot const&) = delete;
        Slot& operator=(Slot const&) = delete;

        /** The client has shown the key. @return false when its room is full */
        [[nodiscard]] bool show_key() { return slots_->move(*this); }

    private:
        friend class Connection_Slots;
        enum Room { LOCAL, READER, STRANGER, KEYED };
        Slot(std::shared_ptr<Connection_Slots> slots, Room room, std::string origin)
            : slots_(std::move(slots)), room_(room), origin_(std::move(origin)) {}

        std::shared_ptr<Connection_Slots> const slots_;
        Room room_;
        std::string const origin_;
    };

    /**
     * For a connection of an administrator at the agent's own socket.
     * @return null when there are too many; one line a minute at LM_WARNING tells of refusals
     */
    std::shared_ptr<Slot> take_local();
    /** For one of a reader, each of whom has a share. The same. */
    std::shared_ptr<Slot> take_reader(uid_t uid);
    /**
     * For a new connection at the port, whose client has shown no key yet. The same.
     * @param is_here  it comes from this host; then its users share another room than the network
     */
    std::shared_ptr<Slot> take_stranger(std::string const& origin, bool is_here);

    /** Of all rooms. */
    size_t taken() const;

private:
    using Time = std::chrono::steady_clock::time_point;
    struct Room {
        size_t all = 0;
        std::map<std::string, size_t> of_origin;
    };

    [[nodiscard]] bool enter(Room& room, std::string const& origin, size_t most,
                             size_t most_of_origin);
    static void leave(Room& room, std::string const& origin);
    Room& room_of(Slot const& slot);
    Room& strangers_of(std::string const& origin);
    [[nodiscard]] bool move(Slot& slot);
    void give_back(Slot const& slot);
    void tell(std::string const& origin, Room const& room, char const* of_what);

    Rpc_Limits const limits_;
    mutable std::mutex mutex_;
    Room local_;
    Room readers_;
    Room strangers_here_;
    Room strangers_of_network_;
    Room keyed_;
    Time told_at_{};
};

#endif
