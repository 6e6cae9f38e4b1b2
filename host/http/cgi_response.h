#ifndef HOST_HTTP_CGI_RESPONSE_H
#define HOST_HTTP_CGI_RESPONSE_H

#include "host/http/http_response.h"
#include "json_spirit/value.h"

#include <string_view>

/**
 * A response in the form that CGI programs and HTTP servers exchange (RFC 3875, 6): header fields,
 * among them "Status", an empty line, and the body.
 */
class CGI_Response : public HTTP_Response {
public:
    /**
     * Sets status and body, and the content type of JSON. A value nested too deeply to be written
     * becomes status 500 with an empty body.
     */
    void json(int status, json_spirit::Value const& value);

    /** The whole response as text. Status 0 is written as 500: nothing was answered. */
    std::string text() const;

    /**
     * Reads such a text; lines may end in CR LF or LF. Without "Status" it is 200, or 302 when
     * there is a "Location".
     * @return false, with the object as it was, for a text without the empty line, a line that is
     *         no field, or a status outside of 100 to 599
     */
    [[nodiscard]] bool parse(std::string_view text);
};

#endif
