#include "json_spirit/escape_scan.h"

#include <charconv>

namespace json_spirit {

bool Escape_Scan::feed(std::string_view piece) {
    size_t at = 0;
    while (!broken_ && at < piece.size()) {
        if (state_ == PLAIN) {
            if (high_pending_ && piece[at] != '\\') {
                broken_ = true;
                break;
            }
            at = piece.find('\\', at);
            if (at == std::string_view::npos)
                break;
            state_ = BACKSLASH;
        } else if (state_ == BACKSLASH) {
            broken_ = high_pending_ && piece[at] != 'u';
            state_ = piece[at] == 'u' ? DIGITS : PLAIN;
            code_ = 0;
            digits_ = 0;
        } else {
            unsigned int digit = 0;
            if (std::from_chars(&piece[at], &piece[at] + 1, digit, 16).ec != std::errc()) {
                state_ = PLAIN;
                high_pending_ = false;
                continue;
            }
            code_ = code_ << 4 | digit;
            if (++digits_ == 4)
                broken_ = !end_of_escape();
        }
        ++at;
    }
    return !broken_;
}

bool Escape_Scan::end_of_escape() {
    bool const is_high = code_ >= 0xD800 && code_ < 0xDC00;
    bool const is_low = code_ >= 0xDC00 && code_ < 0xE000;
    bool const fits = high_pending_ == is_low;
    high_pending_ = is_high;
    state_ = PLAIN;
    return fits;
}

} // namespace json_spirit
