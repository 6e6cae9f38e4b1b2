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

} // namespace qmrt

#endif
