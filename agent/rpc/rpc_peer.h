#ifndef AGENT_RPC_RPC_PEER_H
#define AGENT_RPC_RPC_PEER_H

#include "agent/rpc/method_table.h"
#include "agent/rpc/rpc_limits.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

/**
 * One connection's JSON-RPC, whatever carries it: serves the peer's requests by a method table and
 * sends requests of our own. The transport derives from it, hands in the texts that come and sends
 * those that go.
 *
 * The peer's requests and batches are taken apart, handed to the table, at most
 * Rpc_Limits::in_flight of them at once, and answered by one text for each text that came.
 */
class Rpc_Peer : public std::enable_shared_from_this<Rpc_Peer> {
public:
    using Clock = std::chrono::steady_clock;
    /** Called once: with the peer's reply, or with JSON_RPC_UNREACHABLE or JSON_RPC_TIMEOUT. */
    using On_Reply = std::function<void(bool succeeded, JSON_RPC_Reply const& reply)>;

    /**
     * @param lease  kept until the transport has been destroyed: Rpc_Io::lease()
     * @param caller  who the peer is to the methods: Method_Call::caller
     */
    Rpc_Peer(std::shared_ptr<void> lease, Method_Table& table, Rpc_Limits const& limits,
             Rpc_Caller caller);
    virtual ~Rpc_Peer() = default;
    Rpc_Peer(Rpc_Peer const&) = delete;
    Rpc_Peer& operator=(Rpc_Peer const&) = delete;

    /** The peer that a handler's channel belongs to; null for another kind of channel or when it
     * has gone. */
    static std::shared_ptr<Rpc_Peer> of(JSON_RPC_Channel* channel);

    /** May be called on any thread, as all up to close(). */
    Rpc_Caller caller() const;
    /** Exchanges the caller for one that has proven more; the connection may be idle for ever. */
    void caller(Rpc_Caller caller);
    /** The way to the peer; null when it has gone. */
    JSON_RPC_Channel_var channel() const;

    /**
     * Sends a request and does not wait.
     * @param on_reply  called on any thread, maybe before this returns
     */
    void request(std::string const& method, json_spirit::Value const& params,
                 std::chrono::milliseconds timeout, On_Reply on_reply);

    /** Called once when the peer has gone, on the transport's thread; at once if it has. */
    void when_gone(std::function<void()> function);

    /** Ends the connection soon. */
    virtual void close() = 0;

    /** Called by the owner from time to time on the transport's thread: ends what took too long. */
    void tick(Clock::time_point now);

protected:
    /** The peer is there, and stays until end(). Once, on the transport's thread, before all else.
     */
    void begin();
    /** The connection has ended. The same; more than once does no harm. */
    void end();

    /** A message has come. On the transport's thread. @param held  kept until it is answered */
    void take(std::string_view text, std::shared_ptr<void> const& held = nullptr);
    /** False while so many requests are in flight that no more should be read. */
    [[nodiscard]] bool wants_more() const;
    /** True when nothing is in flight. */
    [[nodiscard]] bool quiet() const;
    /** Notes that a message has begun, or, with false, that it is whole. */
    void receiving(bool begun);
    /** Notes that there is something to send, or that some of it went, or, with false, all. */
    void sending(bool begun);
    Rpc_Limits const& limits() const { return limits_; }

    /** Sends a text. On any thread, several at once. @return false when it cannot be sent */
    [[nodiscard]] virtual bool write(std::string text) = 0;
    /** wants_more() or quiet() may have become true. On any thread. */
    virtual void resume() = 0;
    /** What else there is to do from time to time. */
    virtual void tick_i(Clock::time_point) {}

private:
    class Main_Channel;
    class Reply_Channel;
    /** What one text asked for; its answers are collected. */
    struct Batch {
        bool array = false;
        size_t missing = 0;
        std::string answers;
    };
    struct Waiting {
        JSON_RPC_Object_var object;
        std::shared_ptr<Batch> batch;
    };
    struct Pending {
        On_Reply on_reply;
        Clock::time_point deadline;
    };

    void answer_faults(JSON_RPC_Message const& message, std::shared_ptr<Batch> const& batch);
    bool take_reply(JSON_RPC_Object const& object);
    void pump();
    [[nodiscard]] bool next(Waiting& waiting, JSON_RPC_Channel_var& channel);
    [[nodiscard]] bool settle(uint64_t key, Batch& batch, std::string const& text);
    [[nodiscard]] bool add_answer(Batch& batch, std::string const& text);
    void expire(Clock::time_point now);
    [[nodiscard]] bool too_slow(Clock::time_point now) const;

    std::shared_ptr<void> const lease_;
    Method_Table& table_;
    Rpc_Limits const limits_;
    mutable std::mutex mutex_;
    Rpc_Caller caller_;
    bool member_ = false; ///< may be idle for ever
    bool gone_ = false;
    std::shared_ptr<Rpc_Peer> self_; ///< from begin() to end(), also while nothing is read
    JSON_RPC_Channel_var channel_;
    std::deque<Waiting> backlog_;
    bool pumping_ = false;
    uint64_t last_key_ = 0;
    std::map<uint64_t, JSON_RPC_Channel_var> open_; ///< requests that have not been answered
    std::map<std::string, Pending> pending_;        ///< requests of ours, by the text of the id
    std::vector<std::function<void()>> when_gone_;
    Clock::time_point active_ = Clock::now();
    Clock::time_point receiving_since_{}; ///< the epoch for "not"
    Clock::time_point sending_since_{};
};

#endif
