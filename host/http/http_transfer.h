#ifndef HOST_HTTP_HTTP_TRANSFER_H
#define HOST_HTTP_HTTP_TRANSFER_H

#include "host/http/http_request.h"
#include "host/http/http_response.h"

#include <chrono>
#include <functional>
#include <string>

/** A larger body ends a request with an error, unless its settings say otherwise: 64 MiB. */
constexpr size_t HTTP_MAX_BODY_SIZE = 64 * 1024 * 1024;

/**
 * Takes a piece of a response's body, on the thread that makes the request. Returns false to end
 * the request. Must not throw.
 */
using HTTP_Body_Sink = std::function<bool(char const* data, size_t size)>;

/** Where requests go, whom they trust, and what bounds them. */
struct HTTP_Transfer_Settings {
    std::string host; ///< ASCII name, IPv4 or IPv6 address, the last with or without brackets
    unsigned short port = 0; ///< 1 to 65535
    bool ssl = false;
    bool verify = true;             ///< of the certificate: its chain, its dates and its host
    std::string ca_file;            ///< PEM; "" for the system's certificate authorities
    std::string pinned_key;         ///< "sha256//..." of the public key; "" for any
    bool environment_proxy = false; ///< whether "https_proxy" and its like count
    std::chrono::milliseconds connect_timeout{10'000};
    std::chrono::milliseconds total_timeout{120'000};
    size_t max_body_size = HTTP_MAX_BODY_SIZE;
    bool cancellable = false; ///< the thread's Cancellation ends a request within about a second
    bool streaming = false;
    HTTP_Body_Sink sink;
};

/**
 * One HTTP exchange after another over libcurl, with its connections kept open between them. One
 * object is for one thread at a time; objects on different threads have nothing in common.
 */
class HTTP_Transfer {
public:
    enum Outcome {
        DONE,      ///< a whole answer, of whatever status
        NO_ANSWER, ///< the connection was not made or broke; once more may help
        FAILED,    ///< anything else, where once more would give the same, time-outs included
    };

    HTTP_Transfer() = default;
    ~HTTP_Transfer();
    HTTP_Transfer(HTTP_Transfer const&) = delete;
    HTTP_Transfer& operator=(HTTP_Transfer const&) = delete;

    /**
     * Sends the request and waits for the answer.
     * @param body      the request's body; null for none. With POST and PUT, none is an empty one.
     * @param response  the answer; but with any outcome other than DONE only its error() is set
     */
    Outcome perform(HTTP_Transfer_Settings const& settings, HTTP_Request const& request,
                    std::string const* body, HTTP_Response& response);

    /** Closes the connections that are kept. */
    void close();

private:
    void* easy_ = nullptr; ///< the CURL handle, made by the first request
};

/**
 * What is wrong with a request or where it goes, so that it cannot be sent; "" when nothing is.
 */
std::string http_transfer_fault(HTTP_Transfer_Settings const& settings,
                                HTTP_Request const& request);

#endif
