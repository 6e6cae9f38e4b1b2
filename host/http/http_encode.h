#ifndef HOST_HTTP_HTTP_ENCODE_H
#define HOST_HTTP_HTTP_ENCODE_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/** How http_encode_string_i and http_decode_string treat what can be written in two ways. */
enum {
    HUT_FLAG_SLASH = 1,    ///< "/" is encoded too
    HUT_FLAG_SPACE = 2,    ///< a space is "+", not "%20"
    HUT_FLAG_UPPERCASE = 4 ///< upper-case hexadecimal digits
};

/**
 * Writes a text in percent-encoded form (RFC 3986, 2.1). Letters, digits and "-", "_", ".", "~"
 * stay as they are, "/" and space are as the flags say, and every other byte becomes "%" and two
 * hexadecimal digits.
 * @param text  may be null when @a length is 0
 * @param out   output iterator for char
 * @return the iterator behind what was written
 */
template <typename Out>
Out http_encode_string_i(char const* text, size_t length, Out out, unsigned int flags) {
    char const* const digits = flags & HUT_FLAG_UPPERCASE ? "0123456789ABCDEF" : "0123456789abcdef";
    for (char const c : std::string_view(text, length)) {
        unsigned const byte = static_cast<unsigned char>(c);
        bool const alphanumeric =
            (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        if (alphanumeric || c == '-' || c == '_' || c == '.' || c == '~' ||
            (c == '/' && !(flags & HUT_FLAG_SLASH)))
            *out++ = c;
        else if (c == ' ' && (flags & HUT_FLAG_SPACE))
            *out++ = '+';
        else {
            *out++ = '%';
            *out++ = digits[byte >> 4];
            *out++ = digits[byte & 0xF];
        }
    }
    return out;
}

/** The same into a string. */
std::string http_encode_string(std::string_view text, unsigned int flags);

/** The byte that the "%" at @a at and the two digits behind it stand for; -1 when they are none. */
int http_escaped_byte(std::string_view text, size_t at);

/**
 * Undoes the encoding, with digits in either case.
 * @param flags  HUT_FLAG_SPACE: "+" is a space
 * @return false, with @a out untouched, when a "%" has no two hexadecimal digits behind it
 */
[[nodiscard]] bool http_decode_string(std::string_view text, unsigned int flags, std::string& out);

/** The decoded keys and values of a query string, in its order. A key without "=" has value "". */
using HTTP_Query = std::vector<std::pair<std::string, std::string>>;

/**
 * Takes a query string, without its "?", apart.
 * @return false, with @a query untouched, when an escape in it is broken
 */
[[nodiscard]] bool http_parse_query(std::string_view text, HTTP_Query& query);

#endif
