#include "host/http/cgi_response.h"

#include "json_spirit/text.h"
#include "qmrt/natoi.h"

namespace {

/** Takes the first line off @a text. @return false when no line ends in it */
bool take_line(std::string_view& text, std::string_view& line) {
    size_t const end = text.find('\n');
    if (end == std::string_view::npos)
        return false;
    line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return true;
}

/** The status of a "Status" field: three digits, then nothing or a blank and a reason; else 0. */
int to_status(std::string_view value) {
    bool const shaped = value.size() >= 3 &&
                        value.substr(0, 3).find_first_not_of("0123456789") == value.npos &&
                        (value.size() == 3 || value[3] == ' ');
    int const status = shaped ? natoi<int>(value.substr(0, 3)) : 0;
    return status >= 100 && status <= 599 ? status : 0;
}

} // namespace

void CGI_Response::json(int status_code, json_spirit::Value const& value) {
    headers().put("Content-Type", "application/json");
    try {
        body(json_spirit::to_text(value));
        status(status_code);
    } catch (json_spirit::Error const& fault) {
        body("");
        status(500);
        error(fault.what());
    }
}

std::string CGI_Response::text() const {
    std::string result = "Status: " + std::to_string(status() ? status() : 500) + "\r\n";
    for (HTTP_Headers::Field const& field : headers().fields())
        result += field.name + ": " + field.value + "\r\n";
    return result + "\r\n" + body();
}

bool CGI_Response::parse(std::string_view text) {
    CGI_Response read;
    std::string_view line;
    while (take_line(text, line) && !line.empty()) {
        size_t const colon = line.find(':');
        if (colon == std::string_view::npos ||
            !read.headers().add(line.substr(0, colon), line.substr(colon + 1)))
            return false;
        line = "cut short";
    }
    if (!line.empty() || read.headers().fields().empty())
        return false;

    read.status(read.headers().contains("Location") ? 302 : 200);
    if (read.headers().contains("Status")) {
        read.status(to_status(read.headers().get("Status")));
        read.headers().remove("Status");
    }
    if (read.status() == 0)
        return false;
    read.body(std::string(text));
    *this = std::move(read);
    return true;
}
