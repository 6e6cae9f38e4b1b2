#ifndef QMRT_UTF8_H
#define QMRT_UTF8_H

#include <string>
#include <string_view>

namespace qmrt {

/** True when the text is well-formed UTF-8 (RFC 3629): no overlong form, surrogate or stray byte.
 */
[[nodiscard]] bool is_utf8(std::string_view text);

/** The text with U+FFFD in place of each byte that is no part of a well-formed sequence. */
std::string to_utf8(std::string_view text);

/**
 * The text as it may stand in a line of a log, whoever it came from: as to_utf8() gives it, with
 * every control character, line breaks among them, shown as "?".
 */
std::string to_one_line(std::string_view text);

/**
 * The text as UTF-8, whatever it was written in: well-formed UTF-8 stays as it is; else it is taken
 * as text of @a codeset, a name of iconv_open(), or the locale's when it is null; what is no text
 * in that either becomes U+FFFD, as does every byte beyond ASCII when iconv does not know the name.
 */
std::string local_to_utf8(std::string_view text, char const* codeset = nullptr);

} // namespace qmrt

#endif
