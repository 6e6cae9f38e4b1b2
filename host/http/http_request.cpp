#include "host/http/http_request.h"

#include "host/http/http_encode.h"

#include <algorithm>

HTTP_Request::HTTP_Request(int method, char const* path, bool encoded) : method_(method) {
    std::string_view text = path ? path : "";
    if (!encoded) {
        path_ = http_encode_string(text, 0);
        return;
    }
    size_t const mark = text.find('?');
    path_ = text.substr(0, mark);
    if (mark != std::string_view::npos)
        query_ = text.substr(mark + 1);
}

std::string HTTP_Request::target() const {
    return query_.empty() ? path_ : path_ + "?" + query_;
}

bool HTTP_Request::well_formed() const {
    auto const fits = [](unsigned char c) { return c > 0x20 && c < 0x7F && c != '#'; };
    return !path_.empty() && path_.front() == '/' &&
           std::all_of(path_.begin(), path_.end(), fits) &&
           std::all_of(query_.begin(), query_.end(), fits);
}
