#ifndef HOST_HTTP_HTTP_METHOD_H
#define HOST_HTTP_HTTP_METHOD_H

#include <string_view>

/** The methods of RFC 9110 and RFC 5789. The numbers are fixed: callers keep them. */
enum HTTP_METHOD {
    HTTP_METHOD_UNKNOWN = 0,
    HTTP_METHOD_CONNECT = 1,
    HTTP_METHOD_DELETE = 2,
    HTTP_METHOD_GET = 3,
    HTTP_METHOD_HEAD = 4,
    HTTP_METHOD_OPTIONS = 5,
    HTTP_METHOD_PATCH = 6,
    HTTP_METHOD_POST = 7,
    HTTP_METHOD_PUT = 8,
    HTTP_METHOD_TRACE = 9
};

/** "GET" and so on; "UNKNOWN" for a number that is no method. Never null. */
char const* http_method_name(int method);

/** The method of a name, which is case-sensitive; HTTP_METHOD_UNKNOWN for any other text. */
int http_method_value(std::string_view name);

/** True when doing it twice is as good as once (RFC 9110, 9.2.2): all but POST, PATCH, CONNECT. */
[[nodiscard]] bool http_method_idempotent(int method);

#endif
