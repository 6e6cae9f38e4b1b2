#include "agent/rpc/unix_listener.h"

#include "agent/rpc/socket_user.h"
#include "agent/rpc/unix_session.h"
#include "qmrt/log.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using boost::asio::local::stream_protocol;
using boost::system::error_code;
using namespace std::chrono_literals;

namespace {

constexpr size_t READER_IN_FLIGHT = 4;
constexpr size_t READER_UNSENT = 16 * 1024 * 1024;

/** A reader's questions are small, and take nothing of the budget for large messages. */
Rpc_Limits limits_of(Rpc_Caller const& caller, Rpc_Limits limits) {
    if (!caller.is(Rpc_Caller::READER))
        return limits;
    limits.in_flight = std::min(limits.in_flight, READER_IN_FLIGHT);
    limits.message_bytes = std::min(limits.message_bytes, Message_Budget::FREE_BYTES);
    limits.unsent_bytes = std::min(limits.unsent_bytes, READER_UNSENT);
    return limits;
}

bool fail(std::string& error, std::string const& what) {
    error = what + ", " + std::strerror(errno);
    return false;
}

/** True when somebody accepts connections there, or might: only a refusal says that nobody does. */
bool answers(std::string const& path) {
    File_Descriptor const socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ||
           errno != ECONNREFUSED;
}

} // namespace

Unix_Listener::Unix_Listener(Rpc_Io& io, Rpc_Sessions& sessions,
                             std::shared_ptr<Connection_Slots> slots, Method_Table& table,
                             Rpc_Limits const& limits)
    : io_(io),
      sessions_(sessions),
      slots_(std::move(slots)),
      table_(table),
      limits_(limits),
      acceptor_(io.context),
      pause_(io.context) {}

bool Unix_Listener::open(std::string const& path, std::string const& readers, std::string& error) {
    path_ = path;
    if (path.empty() || path.size() >= sizeof sockaddr_un().sun_path) {
        error = "the path of the socket is empty or too long (107 bytes at most): " + path;
        return false;
    }
    if (!lock(error) || !clear_the_way(error) || !bind(error))
        return false;
    let_in(readers);
    return true;
}

bool Unix_Listener::lock(std::string& error) {
    std::string const name = path_ + ".lock";
    lock_.reset(::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_)
        return fail(error, "cannot make " + name);
    if (::flock(lock_.get(), LOCK_EX | LOCK_NB) == 0)
        return true;
    error = "another agent serves " + path_ + ": stop it, or give this one a socket of its own";
    return false;
}

bool Unix_Listener::clear_the_way(std::string& error) const {
    struct stat status {};
    if (::lstat(path_.c_str(), &status) == -1)
        return errno == ENOENT || fail(error, "cannot look at " + path_);
    if (!S_ISSOCK(status.st_mode)) {
        error = path_ + " is there and is no socket: remove it, or name another path";
        return false;
    }
    if (answers(path_)) {
        error = "somebody answers at " + path_ +
                ": stop that agent, or give this one a socket of its own";
        return false;
    }
    return ::unlink(path_.c_str()) == 0 || fail(error, "cannot remove the old socket " + path_);
}

bool Unix_Listener::bind(std::string& error) {
    error_code failure;
    acceptor_.open(stream_protocol(), failure);
    if (!failure)
        acceptor_.bind(stream_protocol::endpoint(path_), failure);
    if (failure) {
        error = "cannot make the socket " + path_ + ", " + failure.message();
        return false;
    }
    // nobody can connect before listen(), so nobody gets in with the mode that it has until here
    struct stat status {};
    if (::chmod(path_.c_str(), 0600) == -1 || ::lstat(path_.c_str(), &status) == -1)
        return fail(error, "cannot set the mode of " + path_);
    made_ = {status.st_dev, status.st_ino};
    acceptor_.listen(stream_protocol::acceptor::max_listen_connections, failure);
    error = failure ? "cannot listen at " + path_ + ", " + failure.message() : "";
    return !failure;
}

/** Who belongs to the group is asked for each connection: modes can be changed by accident. */
void Unix_Listener::let_in(std::string const& readers) {
    if (readers.empty())
        return;
    struct stat status {};
    bool const given = chown_r(path_.c_str(), nullptr, readers.c_str(), false) == 0;
    if (!given && errno == ENOENT)
        QMRT_LOG(LM_INFO, "Only root can look: the group %s does not exist\n",
                 qmrt::to_one_line(readers).c_str());
    else if (!given || ::chmod(path_.c_str(), 0660) == -1 || ::lstat(path_.c_str(), &status) == -1)
        QMRT_LOG(LM_WARNING, "Only root can look: failed to give %s to the group %s, %m\n",
                 path_.c_str(), qmrt::to_one_line(readers).c_str());
    else
        readers_ = status.st_gid;
}

void Unix_Listener::start() {
    accept();
}

void Unix_Listener::accept() {
    acceptor_.async_accept([this](error_code const& failure, stream_protocol::socket socket) {
        if (!acceptor_.is_open())
            return;
        if (!failure) {
            begin(std::move(socket));
            return accept();
        }
        QMRT_LOG(LM_ERROR, "Failed to accept a local connection, %s\n", failure.message().c_str());
        pause_.expires_after(200ms); // until descriptors are free again
        pause_.async_wait([this](error_code const& ended) {
            if (!ended)
                accept();
        });
    });
}

void Unix_Listener::begin(stream_protocol::socket socket) {
    Rpc_Caller const caller = caller_at(socket.native_handle(), readers_);
    std::shared_ptr<void> slot;
    if (caller.is(Rpc_Caller::LOCAL))
        slot = slots_->take_local();
    else if (caller.is(Rpc_Caller::READER))
        slot = slots_->take_reader(*caller.uid);
    if (!slot)
        return; // which closes it
    auto lease = std::make_shared<std::pair<std::shared_ptr<void>, std::shared_ptr<void>>>(
        io_.lease(), std::move(slot));
    auto const session = std::make_shared<Unix_Session>(std::move(lease), std::move(socket), table_,
                                                        limits_of(caller, limits_), caller);
    sessions_.add(session);
    session->start();
}

void Unix_Listener::stop() {
    error_code ignored;
    pause_.cancel();
    acceptor_.close(ignored);
    struct stat status {};
    if (made_ != std::pair<dev_t, ino_t>() && ::lstat(path_.c_str(), &status) == 0 &&
        made_ == std::pair<dev_t, ino_t>(status.st_dev, status.st_ino))
        ::unlink(path_.c_str());
}
