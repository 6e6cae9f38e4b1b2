#ifndef AGENT_RPC_RPC_IO_H
#define AGENT_RPC_RPC_IO_H

#include <boost/asio/detail/socket_types.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <memory>
#include <optional>
#include <thread>

/**
 * True when the peer has closed the connection, or the connection is broken. A peer that has only
 * shut down its own sending still waits for answers.
 * @param ends_with_its_sending  true for a protocol without half-closed connections: a peer that
 * has shut down its sending counts as disconnected
 */
[[nodiscard]] bool is_gone(boost::asio::detail::socket_type socket, bool ends_with_its_sending);

/** An io_context with its one thread: what runs on it needs no lock. */
class Rpc_Io {
public:
    Rpc_Io() : context(1), guard_(context.get_executor()) {}
    ~Rpc_Io() { finish(); }
    Rpc_Io(Rpc_Io const&) = delete;
    Rpc_Io& operator=(Rpc_Io const&) = delete;

    void start();

    /**
     * Returns when all that was begun has ended: whoever began it has to end it before. Not to be
     * called on the thread itself.
     */
    void finish();

    /**
     * What is destroyed on another thread and has parts in the context keeps one of these, to be
     * given back after those parts: finish() waits for it.
     */
    std::shared_ptr<void> lease() const { return lease_; }

    boost::asio::io_context context;

private:
    std::shared_ptr<void> const lease_ = std::make_shared<int>();
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> guard_;
    std::thread thread_;
};

#endif
