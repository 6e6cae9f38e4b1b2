#ifndef TESTS_SUPPORT_HTTPS_SERVER_H
#define TESTS_SUPPORT_HTTPS_SERVER_H

#include "json_spirit/value.h"
#include "tests/support/temporary_directory.h"

#include <string>
#include <utility>
#include <vector>

/**
 * Certificates that last as long as the test program: the authorities "ca" and "other_ca", and the
 * servers "good", "expired" and "wrong_host", which "ca" has signed. "good" and "expired" are for
 * localhost, 127.0.0.1 and ::1.
 */
class Test_Certificates {
public:
    static Test_Certificates& instance();
    /** Path of a certificate in PEM form. */
    std::string certificate(std::string const& name) const { return files_.path(name + ".pem"); }
    std::string key(std::string const& name) const { return files_.path(name + ".key"); }
    /** "sha256//..." of the public key of "good" or "expired". */
    std::string pin(std::string const& name) const { return files_.read(name + ".pin"); }
    /** For other files of a test. */
    Temporary_Directory const& files() const { return files_; }

private:
    Test_Certificates();
    Temporary_Directory files_;
};

/**
 * A server on a free port of the loopback that does what the test tells it, whatever that is:
 * tests/support/https_server_main says what there is. Ends with the object. All servers of a test
 * program live in one other process. One object is for one thread at a time.
 */
class Https_Server {
public:
    using Headers = std::vector<std::pair<std::string, std::string>>;

    struct Options {
        std::string certificate = "good"; ///< "" for no TLS
        std::string address = "127.0.0.1";
        bool hold_handshake = false; ///< until the gate "handshake" is opened
        std::string newest_tls = ""; ///< "TLSv1_1", "TLSv1_2" or "" for the newest there is
    };

    struct Request {
        std::string method;
        std::string target;
        json_spirit::Object headers; ///< names in lower case
        std::string body;
        int connection; ///< 1 for the first that was made
        std::string header(std::string const& name) const;
    };

    /** What to do, one step after the other. */
    class Steps {
    public:
        Steps& send(std::string const& text) { return add({"send", text}); }
        /** Bytes that are no UTF-8, as hexadecimal digits. */
        Steps& bytes(std::string const& digits) { return add({"bytes", digits}); }
        Steps& gate(std::string const& name) { return add({"gate", name}); }
        Steps& reset() { return add({"reset"}); }
        Steps& close() { return add({"close"}); }
        Steps& endless(std::string const& text) { return add({"endless", text}); }
        json_spirit::Array const& array() const { return steps_; }

    private:
        Steps& add(json_spirit::Array step) {
            steps_.push_back(std::move(step));
            return *this;
        }
        json_spirit::Array steps_;
    };

    Https_Server() : Https_Server(Options()) {}
    explicit Https_Server(Options const& options);
    ~Https_Server();
    Https_Server(Https_Server const&) = delete;
    Https_Server& operator=(Https_Server const&) = delete;

    unsigned short port() const { return port_; }

    /** What to do at the next "GET /path"; the last one given goes on for ever. */
    void on(std::string const& request, Steps const& steps);
    /** A whole answer with its Content-Length. */
    void on(std::string const& request, int status, std::string const& body,
            Headers const& headers = {});
    void open_gate(std::string const& name);
    /** Returns when that many requests have come. */
    void await_requests(int count);

    std::vector<Request> requests();
    /** How many connections were made. */
    int connections();

    /** A whole answer as text. */
    static std::string answer(int status, std::string const& body, Headers const& headers = {});

private:
    json_spirit::Value ask(json_spirit::Object const& command);

    int control_ = -1;
    std::string unread_;
    unsigned short port_ = 0;
};

#endif
