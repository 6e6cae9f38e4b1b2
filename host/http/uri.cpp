#include "host/http/uri.h"

#include "host/http/http_encode.h"
#include "qmrt/natoi.h"

#include <algorithm>
#include <curl/curl.h>
#include <memory>

namespace {

struct Url_Deleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using Url = std::unique_ptr<CURLU, Url_Deleter>;

/** One part of a URL as given; "" when it has none. */
std::string part(Url const& url, CURLUPart which) {
    char* text = nullptr;
    curl_url_get(url.get(), which, &text, 0);
    std::unique_ptr<char, decltype(&curl_free)> const owner(text, curl_free);
    return text ? text : "";
}

std::string decoded(std::string_view text) {
    if (text.find('%') == std::string_view::npos) // most names
        return std::string(text);
    std::string result;
    for (size_t at = 0; at < text.size(); ++at) {
        int const byte = http_escaped_byte(text, at);
        // a NUL would cut the name short for whoever reads it as a C string
        if (byte > 0) {
            result += static_cast<char>(byte);
            at += 2;
        } else
            result += text[at];
    }
    return result;
}

} // namespace

bool URI::parse(std::string const& url_text, std::string* error) {
    auto const fail = [error](char const* reason) {
        if (error)
            *error = reason;
        return false;
    };
    Url const url(curl_url());
    if (!url)
        return fail("out of memory");
    if (url_text.find('\0') != std::string::npos)
        return fail("NUL in URL");
    constexpr unsigned int RULES =
        CURLU_NON_SUPPORT_SCHEME | CURLU_DISALLOW_USER | CURLU_PATH_AS_IS | CURLU_ALLOW_SPACE;
    CURLUcode const read = curl_url_set(url.get(), CURLUPART_URL, url_text.c_str(), RULES);
    if (read != CURLUE_OK)
        return fail(curl_url_strerror(read));

    URI result;
    result.scheme_ = part(url, CURLUPART_SCHEME);
    // libcurl takes the first name of "ws:///a/b" for the host
    if (result.scheme_ != "file" && url_text.find(":///") == result.scheme_.size())
        return fail("No host part in the URL");
    result.host_ = part(url, CURLUPART_HOST);
    if (!result.host_.empty() && result.host_.front() == '[')
        result.host_ = result.host_.substr(1, result.host_.size() - 2);
    else if (result.host_.find('%') != std::string::npos)
        // libcurl decodes the host; text() would make an escape of what is left, as in "a%a%41"
        return fail(curl_url_strerror(CURLUE_BAD_HOSTNAME));
    result.port_ = natoi<unsigned short>(part(url, CURLUPART_PORT));
    result.path_ = part(url, CURLUPART_PATH);
    // libcurl takes "file:a" for a path that begins nowhere
    if (!result.path_.empty() && result.path_.front() != '/')
        return fail("No absolute path in the URL");
    result.query_ = part(url, CURLUPART_QUERY);
    result.fragment_ = part(url, CURLUPART_FRAGMENT);
    *this = std::move(result);
    return true;
}

std::string URI::decoded_path() const {
    return decoded(path_);
}

void URI::path(std::string const& text, bool encoded) {
    path_ = encoded ? text : http_encode_string(text, 0);
}

bool URI::path_segments(std::vector<std::string>& segments, bool decode) const {
    segments.clear();
    std::string_view rest = path_;
    if (!rest.empty() && rest.front() == '/')
        rest.remove_prefix(1);
    if (rest.empty())
        return false;
    segments.reserve(1 + static_cast<size_t>(std::count(rest.begin(), rest.end(), '/')));
    for (bool more = true; more;) {
        size_t const end = rest.find('/');
        std::string_view const segment = rest.substr(0, end);
        segments.push_back(decode ? decoded(segment) : std::string(segment));
        more = end != std::string_view::npos;
        if (more)
            rest.remove_prefix(end + 1);
    }
    return true;
}

void URI::path_segments(std::vector<std::string> const& segments) {
    // an empty first name needs the "/" before it, or it would be taken for that "/"
    bool const absolute = !scheme_.empty() || (!segments.empty() && segments.front().empty());
    path_ = absolute ? "/" : "";
    for (size_t at = 0; at < segments.size(); ++at)
        path_ += (at ? "/" : "") + http_encode_string(segments[at], HUT_FLAG_SLASH);
}

std::string URI::text() const {
    if (scheme_.empty())
        return path_;
    std::string result = scheme_ + "://";
    result += host_.find(':') == std::string::npos ? host_ : "[" + host_ + "]";
    if (port_)
        result += ":" + std::to_string(port_);
    result += path_;
    if (!query_.empty())
        result += "?" + query_;
    if (!fragment_.empty())
        result += "#" + fragment_;
    return result;
}
