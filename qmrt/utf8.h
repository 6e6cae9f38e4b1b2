#ifndef QMRT_UTF8_H
#define QMRT_UTF8_H

#include <string>
#include <string_view>

namespace qmrt {

/** True when the text is well-formed UTF-8 (RFC 3629): no overlong form, surrogate or stray byte.
 */
bool is_utf8(std::string_view text);

/** The text with U+FFFD in place of each byte that is no part of a well-formed sequence. */
std::string to_utf8(std::string_view text);

/**
 * The text as it may stand in a line of a log, whoever it came from: as to_utf8() gives it, with
 * every control character, line breaks among them, shown as "?".
 */
std::string to_one_line(std::string_view text);

} // namespace qmrt

#endif
