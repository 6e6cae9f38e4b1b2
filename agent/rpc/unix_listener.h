#ifndef AGENT_RPC_UNIX_LISTENER_H
#define AGENT_RPC_UNIX_LISTENER_H

#include "agent/rpc/connection_slots.h"
#include "agent/rpc/rpc_io.h"
#include "agent/rpc/rpc_sessions.h"
#include "qmrt/file.h"

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>

/** The agent's own socket. All but open() on the thread of its Rpc_Io. */
class Unix_Listener {
public:
    Unix_Listener(Rpc_Io& io, Rpc_Sessions& sessions, std::shared_ptr<Connection_Slots> slots,
                  Method_Table& table, Rpc_Limits const& limits);

    /**
     * Makes the socket with mode 0600, or 0660 for @a readers, a group of the operating system
     * whose members may look. If the group does not exist or cannot get the socket, a line is
     * logged and nobody is a reader. A socket on which nobody listens is replaced; one that is in
     * use, or a file that is not a socket, is left alone. A file beside it with ".lock" behind its
     * name keeps two that begin at once apart.
     * @return false with what is wrong and what to do
     */
    [[nodiscard]] bool open(std::string const& path, std::string const& readers,
                            std::string& error);
    void start();
    /** Removes the socket, if it is still the one that was made. */
    void stop();

private:
    [[nodiscard]] bool lock(std::string& error);
    [[nodiscard]] bool clear_the_way(std::string& error) const;
    [[nodiscard]] bool bind(std::string& error);
    void let_in(std::string const& readers);
    void accept();
    void begin(boost::asio::local::stream_protocol::socket socket);

    Rpc_Io& io_;
    Rpc_Sessions& sessions_;
    std::shared_ptr<Connection_Slots> const slots_;
    Method_Table& table_;
    Rpc_Limits const limits_;
    std::string path_;
    File_Descriptor lock_;
    boost::asio::local::stream_protocol::acceptor acceptor_;
    boost::asio::steady_timer pause_;
    std::pair<dev_t, ino_t> made_{};
    std::optional<gid_t> readers_;
};

#endif
