#include "agent/rpc/socket_user.h"

#include <algorithm>
#include <fstream>
#include <limits.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uid_t NOT_SET = static_cast<uid_t>(-1);

std::vector<gid_t> groups_at(int socket) {
    std::vector<gid_t> groups(NGROUPS_MAX);
    socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == -1)
        size = 0;
    groups.resize(size / sizeof(gid_t));
    return groups;
}

/** The process may have ended, and its number may be another's by now: good for a record only. */
std::optional<uid_t> login_of(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/loginuid");
    uid_t uid = NOT_SET;
    return file >> uid && uid != NOT_SET ? std::optional(uid) : std::nullopt;
}

} // namespace

Rpc_Caller caller_at(int socket, std::optional<gid_t> const& readers) {
    ucred peer{};
    socklen_t size = sizeof peer;
    Rpc_Caller caller;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == -1)
        return caller;
    if (peer.uid == 0 || peer.uid == geteuid())
        caller.kind = Rpc_Caller::LOCAL;
    else if (readers &&
             (peer.gid == *readers || std::ranges::count(groups_at(socket), *readers) > 0))
        caller.kind = Rpc_Caller::READER;
    caller.uid = peer.uid;
    caller.login = login_of(peer.pid);
    return caller;
}
