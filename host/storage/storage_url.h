#ifndef HOST_STORAGE_STORAGE_URL_H
#define HOST_STORAGE_STORAGE_URL_H

#include <string>

/** A pool's URL in its pieces (RFC 3986). */
struct Storage_Url {
    std::string scheme;    ///< in lower case
    std::string authority; ///< between "//" and the path, as it stands
    std::string path;      ///< decoded by decode_url_path(), with a "/" before it; "" when empty
};

/**
 * Takes a URL "scheme://authority/path" to pieces. A query and a fragment are refused.
 * @return false, with a reason in @a error, for any other text
 */
[[nodiscard]] bool parse_storage_url(std::string const& text, Storage_Url& url, std::string& error);

/**
 * Decodes the escapes "%41" of a path and leaves out its empty parts: "a//b%20c/" is "a/b c".
 * @return false, with a reason in @a error, for a broken escape, an encoded "/" or NUL, and a part
 *         that is "." or ".."
 */
[[nodiscard]] bool decode_url_path(std::string const& text, std::string& path, std::string& error);

/** A path as decode_url_path() reads it back: what is not safe in a URL is escaped. */
std::string encode_url_path(std::string const& path);

/** True for the URLs of deduplicating stores: "dedup://", "dedups://", "ws://" and "wss://". */
[[nodiscard]] bool is_dedup_url(std::string const& url);

#endif
