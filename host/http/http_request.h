#ifndef HOST_HTTP_HTTP_REQUEST_H
#define HOST_HTTP_HTTP_REQUEST_H

#include "host/http/http_headers.h"
#include "host/http/http_method.h"

#include <string>

/**
 * What is asked of an HTTP server: method, path, query and header fields. The body goes to the
 * client beside it. One request may be sent again and again. One object is for one thread at a
 * time.
 */
class HTTP_Request {
public:
    /**
     * @param method   one of HTTP_METHOD
     * @param path     absolute, "/rds/v3/jobs". From a "?" on it is the beginning of the query, and
     *                 a "?" at its end only says that a query will follow. Null is as "".
     * @param encoded  true: the path is in the form in which it goes out, percent-encoded where it
     *                 has to be. False: it is plain text, "?" and "%" included, and is encoded
     * here.
     */
    HTTP_Request(int method, char const* path, bool encoded);

    int method() const { return method_; }
    char const* method_name() const { return http_method_name(method_); }

    /** The path in the form in which it goes out, without the query. */
    std::string const& path() const { return path_; }

    /** The query without its "?", to append to; a builder writes here. */
    std::string& query_string_buffer() { return query_; }
    std::string const& query_string() const { return query_; }

    /** Path and query as they go out: "/a", "/a?b=c". An empty query leaves its "?" out. */
    std::string target() const;

    /**
     * True when the target is one that may be sent (RFC 9112, 3.2.1): it begins with "/" and has
     * nothing in it but visible ASCII without "#". A blank or a line break from an unchecked name
     * is found here, before it can end the request's first line.
     */
    [[nodiscard]] bool well_formed() const;

    HTTP_Headers& headers() { return headers_; }
    HTTP_Headers const& headers() const { return headers_; }

private:
    int method_;
    std::string path_;
    std::string query_;
    HTTP_Headers headers_;
};

#endif
