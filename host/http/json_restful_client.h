#ifndef HOST_HTTP_JSON_RESTFUL_CLIENT_H
#define HOST_HTTP_JSON_RESTFUL_CLIENT_H

#include "host/http/http_request.h"
#include "host/http/http_response.h"
#include "host/http/http_transfer.h"
#include "json_spirit/value.h"

#include <chrono>
#include <string>

/**
 * A client of one REST server that speaks JSON over HTTP/1.1, in plain or over TLS 1.2 and later.
 * The connection is kept open between requests.
 *
 * What the four request functions have in common:
 *
 * - True for a status of 200 to 299 with a body that is JSON, or empty. False for all else.
 * - @a response gets status, headers and body. When no whole answer came, its status is 0, its
 *   error() says why, and one LM_ERROR line has been logged; it names method, path and endpoint,
 * and neither the query nor the headers nor a body. An answer of any status is not logged: what a
 *   status means, the caller knows.
 * - @a result, which may be null, gets the body's value, also that of an error status, which
 * servers use to tell more; null for an empty body; and a body that is no JSON as a string value,
 * cut at 4096 bytes, for the caller's message.
 * - @a body, which may be null for none, is sent as JSON, secure strings in plain.
 * - Redirects are not followed: status 302 is an answer like any other, and false.
 * - No proxy is used, whatever the environment says, unless environment_proxy() asks for it.
 *
 * One client is for one thread at a time; clients on different threads have nothing in common.
 */
class JSON_RESTful_Client {
public:
    /**
     * @param verify  whether a TLS server has to prove who it is: by a certificate that is in date,
     *                made out to the host, and signed by a trusted authority. False trusts anyone,
     *                unless a key is pinned.
     */
    explicit JSON_RESTful_Client(bool verify);
    virtual ~JSON_RESTful_Client();
    JSON_RESTful_Client(JSON_RESTful_Client const&) = delete;
    JSON_RESTful_Client& operator=(JSON_RESTful_Client const&) = delete;

    /**
     * Says where requests go. A connection to another endpoint is closed.
     * @param host  ASCII name, IPv4 or IPv6 address, the last with or without brackets
     * @param ssl   whether to speak TLS
     */
    void reset(char const* host, unsigned short port, bool ssl);

    /**
     * How often a request is sent again after its connection could not be made or broke; 2 unless
     * set, 0 for never. Only GET, PUT and DELETE are; a POST may have been acted upon. A time-out,
     * an error of TLS and an answer of any status are not tried again. Before each repetition there
     * is a pause of 200 ms, 400 ms and so on up to 5 s.
     *
     * Apart from that, a kept connection that proves closed by the server is replaced once, in
     * silence. A POST always gets a new connection, so it never goes out twice.
     */
    void retries(int count) { retries_ = count; }

    /**
     * False, the default: the body is collected, bounded by max_body_size(), and read as JSON.
     * True: the body of a 2xx answer goes to body_sink() piece by piece as it comes, however long
     * it is; nothing is collected or read, and @a result is null. The total time-out then counts
     * the silence since the last byte, in whole seconds. Bodies of other statuses are collected.
     */
    void streaming(bool on) { settings_.streaming = on; }
    void body_sink(HTTP_Body_Sink sink) { settings_.sink = std::move(sink); }

    /** Until connected, the TLS handshake included; 10 s unless set. */
    void connect_timeout(std::chrono::milliseconds limit) { settings_.connect_timeout = limit; }
    /** Of a whole request, each repetition on its own; 120 s unless set, 0 for no limit. */
    void total_timeout(std::chrono::milliseconds limit) { settings_.total_timeout = limit; }
    /** Of a body that is collected; HTTP_MAX_BODY_SIZE unless set. */
    void max_body_size(size_t limit) { settings_.max_body_size = limit; }
    /** Whether the calling thread's Cancellation ends a request; false unless set. */
    void cancellable(bool on) { settings_.cancellable = on; }
    void environment_proxy(bool on) { settings_.environment_proxy = on; }

    /** See the constructor's parameter; takes effect with the next connection. */
    void verify(bool on) { settings_.verify = on; }
    /** The authorities to trust, a PEM file, in place of the system's and of the default. */
    void ca_file(std::string path) { settings_.ca_file = std::move(path); }

    /**
     * The public key that the server must have, as well as a certificate that can be verified:
     * "sha256//" and the Base64 form of the SHA-256 of the key's DER form (RFC 7469). "" for any.
     * Nothing is sent in plain while a key is pinned.
     * @return false, with nothing changed, for a text of another form
     */
    [[nodiscard]] bool pinned_key(std::string const& pin);

    /** The authorities that all clients without a ca_file() of their own trust from now on. */
    static void default_ca_file(std::string const& path);
    /** The key that @a host must have for all clients without a pinned_key() of their own. */
    [[nodiscard]] static bool default_pinned_key(std::string const& host, std::string const& pin);

    [[nodiscard]] bool get(HTTP_Request const& request, HTTP_Response& response,
                           json_spirit::Value* result);
    [[nodiscard]] bool post(HTTP_Request const& request, json_spirit::Value const* body,
                            HTTP_Response& response, json_spirit::Value* result);
    [[nodiscard]] bool put(HTTP_Request const& request, json_spirit::Value const* body,
                           HTTP_Response& response, json_spirit::Value* result);
    [[nodiscard]] bool del(HTTP_Request const& request, HTTP_Response& response,
                           json_spirit::Value* result);

protected:
    /** Waits before a repetition. */
    virtual void pause_i(std::chrono::milliseconds duration);

private:
    [[nodiscard]] bool send(int method, HTTP_Request const& request, json_spirit::Value const* body,
                            HTTP_Response& response, json_spirit::Value* result);
    [[nodiscard]] bool exchange(HTTP_Request const& request, std::string const* body,
                                HTTP_Response& response);
    HTTP_Transfer_Settings with_defaults() const;

    HTTP_Transfer_Settings settings_;
    HTTP_Transfer transfer_;
    int retries_ = 2;
};

#endif
