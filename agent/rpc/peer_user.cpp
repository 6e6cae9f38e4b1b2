#include "agent/rpc/peer_user.h"

#include "qmrt/file.h"

#include <arpa/inet.h>
#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using boost::asio::ip::address;
using boost::asio::ip::tcp;

namespace {

/** sock_diag(7): a request for one socket. */
struct Question {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

address plain(address const& given) {
    if (given.is_v6() && given.to_v6().is_v4_mapped())
        return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, given.to_v6());
    return given;
}

void copy(address const& from, __be32 (&to)[4]) {
    if (from.is_v4()) {
        auto const bytes = from.to_v4().to_bytes();
        std::memcpy(to, bytes.data(), bytes.size());
    } else {
        auto const bytes = from.to_v6().to_bytes();
        std::memcpy(to, bytes.data(), bytes.size());
    }
}

/** Asks for the socket whose own end is @a own. */
Question make_question(tcp::endpoint const& own, tcp::endpoint const& other) {
    Question question{};
    question.header.nlmsg_len = sizeof question;
    question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    question.header.nlmsg_flags = NLM_F_REQUEST;
    address const from = plain(own.address());
    question.body.sdiag_family = from.is_v4() ? AF_INET : AF_INET6;
    question.body.sdiag_protocol = IPPROTO_TCP;
    question.body.idiag_states = ~0U;
    question.body.id.idiag_sport = htons(own.port());
    question.body.id.idiag_dport = htons(other.port());
    copy(from, question.body.id.idiag_src);
    copy(plain(other.address()), question.body.id.idiag_dst);
    question.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    question.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return question;
}

} // namespace

std::optional<uid_t> user_of_peer(tcp::socket const& socket) {
    boost::system::error_code failure;
    tcp::endpoint const here = socket.local_endpoint(failure);
    tcp::endpoint const there = failure ? tcp::endpoint() : socket.remote_endpoint(failure);
    if (failure || !plain(there.address()).is_loopback())
        return std::nullopt;
    File_Descriptor const kernel(
        ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG));
    Question const question = make_question(there, here);
    if (!kernel || send(kernel.get(), &question, sizeof question, 0) != sizeof question)
        return std::nullopt;
    // answered within send()
    alignas(nlmsghdr) char buffer[4096];
    ssize_t const size = recv(kernel.get(), buffer, sizeof buffer, 0);
    auto const* const answer = reinterpret_cast<nlmsghdr const*>(buffer);
    if (size < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(inet_diag_msg))) ||
        answer->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        answer->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg)))
        return std::nullopt;
    inet_diag_msg message;
    std::memcpy(&message, NLMSG_DATA(answer), sizeof message);
    // a closed one that waits for its time belongs to nobody, and the kernel says 0 then
    if (message.idiag_inode == 0)
        return std::nullopt;
    return message.idiag_uid;
}
