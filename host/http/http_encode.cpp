#include "host/http/http_encode.h"

#include <iterator>

namespace {

int digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

} // namespace

std::string http_encode_string(std::string_view text, unsigned int flags) {
    std::string result;
    http_encode_string_i(text.data(), text.size(), std::back_inserter(result), flags);
    return result;
}

int http_escaped_byte(std::string_view text, size_t at) {
    if (text.size() < at + 3 || text[at] != '%')
        return -1;
    int const high = digit(text[at + 1]);
    int const low = digit(text[at + 2]);
    return high == -1 || low == -1 ? -1 : high * 16 + low;
}

bool http_decode_string(std::string_view text, unsigned int flags, std::string& out) {
    std::string result;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '+' && (flags & HUT_FLAG_SPACE))
            result += ' ';
        else if (text[at] != '%')
            result += text[at];
        else {
            int const byte = http_escaped_byte(text, at);
            if (byte == -1)
                return false;
            result += static_cast<char>(byte);
            at += 2;
        }
    }
    out = std::move(result);
    return true;
}

bool http_parse_query(std::string_view text, HTTP_Query& query) {
    HTTP_Query result;
    while (!text.empty()) {
        size_t const end = text.find('&');
        std::string_view const part = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (part.empty())
            continue;
        size_t const equals = part.find('=');
        std::string_view const value =
            equals == std::string_view::npos ? std::string_view() : part.substr(equals + 1);
        auto& [key, decoded] = result.emplace_back();
        if (!http_decode_string(part.substr(0, equals), HUT_FLAG_SPACE, key) ||
            !http_decode_string(value, HUT_FLAG_SPACE, decoded))
            return false;
    }
    query = std::move(result);
    return true;
}
