#include "host/http/http_method.h"

namespace {

struct Row {
    char const* name;
    bool idempotent;
};

/** In the order of HTTP_METHOD. */
constexpr Row METHODS[] = {
    {"UNKNOWN", false}, {"CONNECT", false}, {"DELETE", true}, {"GET", true}, {"HEAD", true},
    {"OPTIONS", true},  {"PATCH", false},   {"POST", false},  {"PUT", true}, {"TRACE", true},
};
constexpr int COUNT = sizeof METHODS / sizeof *METHODS;

Row const& row(int method) {
    return METHODS[method > 0 && method < COUNT ? method : HTTP_METHOD_UNKNOWN];
}

} // namespace

char const* http_method_name(int method) {
    return row(method).name;
}

int http_method_value(std::string_view name) {
    for (int method = 1; method < COUNT; ++method)
        if (METHODS[method].name == name)
            return method;
    return HTTP_METHOD_UNKNOWN;
}

bool http_method_idempotent(int method) {
    return row(method).idempotent;
}
