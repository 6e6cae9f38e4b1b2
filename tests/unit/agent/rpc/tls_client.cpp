#include "tests/unit/agent/rpc/tls_client.h"

#include <arpa/inet.h>
#include <csignal>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

Tls_Client::Tls_Client(unsigned short port, std::string const& ca_file, bool handshake,
                       int newest_tls)
    : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      context_(SSL_CTX_new(TLS_client_method())),
      plain_(!handshake) {
    sigset_t broken_pipe; // OpenSSL writes in a way that raises it, on this thread
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
    timeval const patience{PATIENCE_S, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1)
        throw std::runtime_error("cannot connect to the port");
    if (!handshake)
        return;
    SSL_CTX_set_security_level(context_, 0);
    if (newest_tls)
        SSL_CTX_set_max_proto_version(context_, newest_tls);
    SSL_CTX_load_verify_locations(context_, ca_file.c_str(), nullptr);
    SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
    ssl_ = SSL_new(context_);
    SSL_set_fd(ssl_, fd_);
    secure_ = SSL_connect(ssl_) == 1;
}

Tls_Client::~Tls_Client() {
    SSL_free(ssl_);
    SSL_CTX_free(context_);
    if (fd_ != -1)
        ::close(fd_);
}

void Tls_Client::reset() {
    linger const at_once{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    ::close(fd_);
    fd_ = -1;
}

bool Tls_Client::send(std::string const& bytes) {
    if (!plain_)
        return SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size())) > 0;
    for (size_t sent = 0; sent < bytes.size();) {
        ssize_t const size = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (size <= 0)
            return false;
        sent += static_cast<size_t>(size);
    }
    return true;
}

std::string Tls_Client::receive() {
    char buffer[16 * 1024];
    long const size =
        plain_ ? ::recv(fd_, buffer, sizeof buffer, 0) : SSL_read(ssl_, buffer, sizeof buffer);
    return size > 0 ? std::string(buffer, static_cast<size_t>(size)) : "";
}

bool Tls_Client::closed() {
    while (!receive().empty()) {
    }
    return errno != EAGAIN;
}

bool Tls_Client::fill(size_t size) {
    while (inbox_.size() < size) {
        std::string const more = receive();
        if (more.empty())
            return false;
        inbox_ += more;
    }
    return true;
}

std::string Tls_Client::head() {
    size_t end = 0;
    while ((end = inbox_.find("\r\n\r\n")) == std::string::npos)
        if (!fill(inbox_.size() + 1))
            return "";
    std::string const result = inbox_.substr(0, end + 4);
    inbox_.erase(0, end + 4);
    return result;
}

std::string Tls_Client::http(std::string const& method, std::string const& target,
                             std::string const& key, std::string const& body) {
    std::string request = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n";
    if (!key.empty())
        request += "Authorization: Bearer " + key + "\r\n";
    send(request + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    std::string const result = head();
    size_t const field = result.find("Content-Length: ");
    size_t const size = field == std::string::npos
                            ? 0
                            : std::stoul(result.substr(field + sizeof "Content-Length:"));
    if (!fill(size))
        return "";
    std::string const content = inbox_.substr(0, size);
    inbox_.erase(0, size);
    return result + content;
}

int Tls_Client::upgrade(std::string const& key) {
    std::string request = "GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\n"
                          "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                          "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
    if (!key.empty())
        request += "Authorization: Bearer " + key + "\r\n";
    send(request + "\r\n");
    std::string const answer = head();
    return answer.size() > 12 ? std::stoi(answer.substr(9, 3)) : 0;
}

bool Tls_Client::frame(unsigned char first, std::string const& payload) {
    std::string bytes(1, static_cast<char>(first));
    size_t const size = payload.size();
    int const more = size < 126 ? 0 : size < 65536 ? 2 : 8;
    bytes += static_cast<char>(0x80 | (more == 0 ? size : more == 2 ? 126 : 127));
    for (int i = more - 1; i >= 0; --i)
        bytes += static_cast<char>(size >> (8 * i));
    bytes += std::string(4, '\0') + payload; // a mask of zeros leaves the payload as it is
    return send(bytes);
}

std::string Tls_Client::read_text() {
    while (fill(2)) {
        unsigned const first = static_cast<unsigned char>(inbox_[0]);
        size_t size = static_cast<unsigned char>(inbox_[1]) & 0x7f;
        size_t const more = size < 126 ? 0 : size == 126 ? 2 : 8;
        if (!fill(2 + more))
            break;
        if (more)
            size = 0;
        for (size_t i = 0; i < more; ++i)
            size = size << 8 | static_cast<unsigned char>(inbox_[2 + i]);
        if (!fill(2 + more + size))
            break;
        std::string const payload = inbox_.substr(2 + more, size);
        inbox_.erase(0, 2 + more + size);
        if ((first & 0x0f) == 1)
            return payload;
    }
    return "closed";
}
