#ifndef TESTS_UNIT_AGENT_RPC_TLS_CLIENT_H
#define TESTS_UNIT_AGENT_RPC_TLS_CLIENT_H

#include <memory>
#include <openssl/ssl.h>
#include <string>

/**
 * A TLS client on the loopback that sends whatever bytes a test likes, with what is needed to speak
 * HTTP and WebSocket (RFC 6455) by hand.
 */
class Tls_Client {
public:
    static constexpr int PATIENCE_S = 30;

    /** Connects. @param handshake  false: only TCP, and bytes go in plain */
    explicit Tls_Client(unsigned short port, std::string const& ca_file, bool handshake = true,
                        int newest_tls = 0);
    ~Tls_Client();
    Tls_Client(Tls_Client const&) = delete;
    Tls_Client& operator=(Tls_Client const&) = delete;

    /** False when the handshake failed. */
    bool secure() const { return secure_; }

    /** @return false when the other side has closed */
    bool send(std::string const& bytes);
    /** @return what came, at least one byte; "" at the end */
    std::string receive();
    /** @return true when the other side closes, whatever it sends before */
    bool closed();

    /** A request with the key, and the answer: head and body. */
    std::string http(std::string const& method, std::string const& target, std::string const& key,
                     std::string const& body = "");
    /** Sends the upgrade. @return the status of the answer, 101 for a WebSocket; 0 for none */
    int upgrade(std::string const& key);

    /** Sends a frame with its mask. @param first  opcode and flags: 0x81 is a whole text */
    bool frame(unsigned char first, std::string const& payload);
    bool text(std::string const& payload) { return frame(0x81, payload); }
    /** The next text; control frames are passed over. "closed" at the end. */
    std::string read_text();

    int fd() const { return fd_; }
    void reset(); ///< vanishes, with a TCP reset

private:
    std::string head();
    bool fill(size_t size);

    int fd_ = -1;
    SSL_CTX* context_;
    SSL* ssl_ = nullptr;
    bool plain_;
    bool secure_ = false;
    std::string inbox_;
};

#endif
