#include "host/http/uri.h"
#include "host/storage/storage_url.h"

#include <cstdlib>

namespace {

void read_uri(std::string const& text) {
    URI uri;
    if (!uri.parse(text, nullptr))
        return;
    URI again;
    if (!again.parse(uri.text(), nullptr) || again.host() != uri.host() ||
        again.port() != uri.port() || again.path() != uri.path())
        std::abort();
}

void read_path(std::string const& text) {
    if (text.find('\0') != std::string::npos)
        return; // a path cannot have it, encoded or not
    URI uri;
    uri.path(text, true);
    std::vector<std::string> segments, again;
    uri.path_segments(segments, true);
    URI other;
    other.path_segments(segments);
    other.path_segments(again, true);
    if (segments != again && segments != std::vector<std::string>{""})
        std::abort();
}

void read_storage_url(std::string const& text) {
    Storage_Url url;
    std::string error, path;
    if (!parse_storage_url(text, url, error)) {
        if (error.empty())
            std::abort();
        return;
    }
    if (("/" + url.path + "/").find("/../") != std::string::npos ||
        url.path.find('\0') != std::string::npos)
        std::abort();
    if (!decode_url_path(encode_url_path(url.path), path, error) ||
        (url.path.empty() ? "" : "/") + path != (url.path == "/" ? "/" : url.path))
        std::abort();
}

} // namespace

/** Any text as a URL, as a path of one, and as the URL of a pool. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string const text(reinterpret_cast<char const*>(data), size);
    read_uri(text);
    read_path(text);
    read_storage_url(text);
    return 0;
}
