#ifndef HOST_HTTP_HTTP_RESPONSE_H
#define HOST_HTTP_HTTP_RESPONSE_H

#include "host/http/http_headers.h"

#include <string>

/**
 * What an HTTP server answered. One object is for one thread at a time.
 */
class HTTP_Response {
public:
    /** The status, 100 to 599; 0 when there was no whole answer, and then error() says why. */
    int status() const { return status_; }
    void status(int value) { status_ = value; }
    [[nodiscard]] bool ok() const { return status_ >= 200 && status_ < 300; }

    HTTP_Headers& headers() { return headers_; }
    HTTP_Headers const& headers() const { return headers_; }

    std::string const& body() const { return body_; }
    void body(std::string value) { body_ = std::move(value); }

    /** What went wrong, for messages; "" when a whole answer came that could be read. */
    std::string const& error() const { return error_; }
    void error(std::string value) { error_ = std::move(value); }

    /** As newly made. */
    void clear() { *this = HTTP_Response(); }

private:
    int status_ = 0;
    HTTP_Headers headers_;
    std::string body_;
    std::string error_;
};

#endif
