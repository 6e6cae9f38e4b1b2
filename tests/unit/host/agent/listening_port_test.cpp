#include "host/agent/listening_port.h"

#include "qmrt/file.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

/** A TCP socket bound to a port that the kernel picked. */
class Bound_Socket {
public:
    explicit Bound_Socket(int family = AF_INET, bool loopback = true)
        : socket_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_storage address{};
        address.ss_family = static_cast<sa_family_t>(family);
        if (family == AF_INET && loopback)
            reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (family == AF_INET6 && loopback)
            reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
        socklen_t length = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        valid_ = bind(get(), reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                 getsockname(get(), reinterpret_cast<sockaddr*>(&address), &length) == 0;
        // the port stands at the same place in both
        port_ = ntohs(reinterpret_cast<sockaddr_in&>(address).sin_port);
    }
    int get() const { return socket_.get(); }
    bool valid() const { return valid_; }
    unsigned short port() const { return port_; }
    void start_listening() { ASSERT_EQ(0, listen(get(), 5)); }

private:
    File_Descriptor socket_;
    bool valid_ = false;
    unsigned short port_ = 0;
};

TEST(Listening_Port, a_listener_on_the_loopback_address_is_seen_while_it_listens) {
    unsigned short port = 0;
    {
        Bound_Socket socket;
        ASSERT_TRUE(socket.valid());
        port = socket.port();
        socket.start_listening();
        EXPECT_TRUE(check_port_listening(port));
    }
    EXPECT_FALSE(check_port_listening(port));
}

TEST(Listening_Port, a_listener_on_all_addresses_is_seen) {
    Bound_Socket socket(AF_INET, false);
    ASSERT_TRUE(socket.valid());
    socket.start_listening();
    EXPECT_TRUE(check_port_listening(socket.port()));
}

TEST(Listening_Port, a_listener_on_an_IPv6_address_only_is_seen) {
    Bound_Socket socket(AF_INET6);
    if (!socket.valid())
        GTEST_SKIP() << "this machine has no IPv6";
    socket.start_listening();
    EXPECT_TRUE(check_port_listening(socket.port()));
}

TEST(Listening_Port, a_bound_port_that_does_not_listen_is_not_one) {
    Bound_Socket const socket;
    ASSERT_TRUE(socket.valid());
    EXPECT_FALSE(check_port_listening(socket.port()));
}

TEST(Listening_Port, the_port_of_a_connection_is_not_one) {
    Bound_Socket server;
    Bound_Socket client;
    ASSERT_TRUE(server.valid() && client.valid());
    server.start_listening();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(server.port());
    ASSERT_EQ(0, connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    EXPECT_FALSE(check_port_listening(client.port()));
    EXPECT_TRUE(check_port_listening(server.port()));
}

TEST(Listening_Port, port_0_is_never_one) {
    EXPECT_FALSE(check_port_listening(0));
}

TEST(Listening_Port, a_listener_is_found_among_many) {
    std::vector<Bound_Socket> sockets(50);
    for (Bound_Socket& socket : sockets) {
        ASSERT_TRUE(socket.valid());
        socket.start_listening();
    }
    for (Bound_Socket const& socket : sockets)
        EXPECT_TRUE(check_port_listening(socket.port()));
}

} // namespace
