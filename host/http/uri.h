#ifndef HOST_HTTP_URI_H
#define HOST_HTTP_URI_H

#include <string>
#include <vector>

/**
 * A URI (RFC 3986): a URL such as "file:///pool" or "wss://server:60305/rpc", or only a path such
 * as "gaussdb/instance/schema/db/s".
 *
 * Paths and segments. "/" divides a path into segments. One "/" at the beginning makes a path
 * absolute and no segment, so "gaussdb/a" and "/gaussdb/a" both have segment 0 "gaussdb". All
 * others count: "a//b" has an empty segment in the middle and "a/" one at its end, so that an empty
 * name never moves the names behind it.
 *
 * Percent-encoding. A path is kept encoded, and segments are divided before they are decoded, so an
 * encoded "/" belongs to a name. A "%" without two hexadecimal digits behind it, and %00, are kept
 * as the text that they are.
 *
 * One object is for one thread at a time.
 */
class URI {
public:
    /**
     * Reads a URL with a scheme, by libcurl's rules: a port is at most 65535, a host has nothing in
     * it that a host may not have, "file" has no host but localhost, and any other scheme has one.
     * A user name or password in it is an error, since URLs are logged. Blanks in the path are
     * kept.
     * @param error  on failure, what is wrong; may be null
     * @return false, with this object as it was, for any other text. Logs nothing.
     */
    [[nodiscard]] bool parse(std::string const& url, std::string* error);

    /** In lower case; "" for only a path. */
    std::string const& scheme() const { return scheme_; }
    /** Without the brackets of an IPv6 address; "" when there is none. */
    std::string const& host() const { return host_; }
    /** 0 when none was given. */
    unsigned short port() const { return port_; }
    /** Without "?" or "#", as given. */
    std::string const& query() const { return query_; }
    std::string const& fragment() const { return fragment_; }

    /** The path as it is kept, encoded. */
    std::string const& path() const { return path_; }
    /** The path decoded as a whole, for a file system. */
    std::string decoded_path() const;
    /**
     * Sets the path; "?" and "#" have no meaning in it.
     * @param encoded  true: the text is percent-encoded already; false: it is plain, and what is
     *                 neither "/" nor unreserved is encoded
     */
    void path(std::string const& text, bool encoded);

    /**
     * The segments of the path, in place of what @a segments held.
     * @param decode  true: decoded; false: as they are kept
     * @return false when there are none: the path is "" or "/"
     */
    bool path_segments(std::vector<std::string>& segments, bool decode) const;

    /** Sets the path from plain names, "/" in a name encoded; absolute when there is a scheme. */
    void path_segments(std::vector<std::string> const& segments);

    /** The whole as text. */
    std::string text() const;

private:
    std::string scheme_;
    std::string host_;
    unsigned short port_ = 0;
    std::string path_;
    std::string query_;
    std::string fragment_;
};

#endif
