#include "host/storage/storage_url.h"

#include "qmrt/format.h"

#include <cctype>
#include <string_view>

namespace {

constexpr char DELIMITER[] = "://";

bool is_scheme(std::string_view text) {
    if (text.empty() || !std::isalpha(static_cast<unsigned char>(text.front())))
        return false;
    for (char c : text)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '+' && c != '-' && c != '.')
            return false;
    return true;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    c |= 0x20;
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/** Decodes one part of a path. */
bool decode_part(std::string_view text, std::string& part, std::string& error) {
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            int const high = i + 2 < text.size() ? hex_value(text[i + 1]) : -1;
            int const low = i + 2 < text.size() ? hex_value(text[i + 2]) : -1;
            if (high < 0 || low < 0) {
                error = "broken escape";
                return false;
            }
            c = static_cast<char>(high * 16 + low);
            i += 2;
            if (c == '/') {
                error = "encoded '/'";
                return false;
            }
        }
        if (c == '\0') {
            error = "NUL";
            return false;
        }
        part += c;
    }
    if (part == "." || part == "..") {
        error = "'" + part + "' in the path";
        return false;
    }
    return true;
}

} // namespace

bool decode_url_path(std::string const& text, std::string& path, std::string& error) {
    std::string decoded;
    for (std::string_view rest = text; !rest.empty();) {
        size_t const end = rest.find('/');
        std::string part;
        if (!decode_part(rest.substr(0, end), part, error))
            return false;
        if (!part.empty())
            decoded += (decoded.empty() ? "" : "/") + part;
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
    path = std::move(decoded);
    return true;
}

bool parse_storage_url(std::string const& text, Storage_Url& url, std::string& error) {
    size_t const delimiter = text.find(DELIMITER);
    if (delimiter == std::string::npos || !is_scheme(std::string_view(text).substr(0, delimiter))) {
        error = "no scheme";
        return false;
    }
    if (text.find_first_of("?#") != std::string::npos) {
        error = "a query or fragment";
        return false;
    }
    Storage_Url read;
    for (char c : text.substr(0, delimiter))
        read.scheme += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    size_t const authority = delimiter + sizeof DELIMITER - 1;
    size_t const path = std::min(text.find('/', authority), text.size());
    read.authority = text.substr(authority, path - authority);
    if (!decode_url_path(text.substr(path), read.path, error))
        return false;
    if (path < text.size())
        read.path.insert(0, "/");
    url = std::move(read);
    return true;
}

std::string encode_url_path(std::string const& path) {
    std::string text;
    for (char c : path) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte < 0x80 &&
            (std::isalnum(byte) || std::string_view("/-._~").find(c) != std::string_view::npos))
            text += c;
        else
            text += string_sprintf("%%%02X", byte);
    }
    return text;
}

bool is_dedup_url(std::string const& url) {
    for (char const* prefix : {"dedup://", "dedups://", "ws://", "wss://"})
        if (url.starts_with(prefix))
            return true;
    return false;
}
