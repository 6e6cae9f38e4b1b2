#ifndef QMRT_NATOI_H
#define QMRT_NATOI_H

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>

/**
 * Reads a decimal number at the beginning of a text: an optional sign, then digits up to the first
 * character that is not one. Blanks are not passed over.
 *
 * @return the number; 0 when there are no digits. A number beyond the type's range, on either side,
 *         gives the type's largest value and sets errno to ERANGE. Otherwise errno is set to 0, so
 *         that a legal largest value can be told from an overflow. -0 is 0 for unsigned types too.
 */
template <typename T>
T natoi(std::string_view text) {
    static_assert(std::is_integral_v<T> && !std::is_same_v<T, bool>);
    bool const negative = !text.empty() && text.front() == '-';
    if (!text.empty() && (text.front() == '-' || text.front() == '+'))
        text.remove_prefix(1);

    uint64_t magnitude = 0;
    auto const read = std::from_chars(text.data(), text.data() + text.size(), magnitude);
    uint64_t limit = static_cast<uint64_t>(std::numeric_limits<T>::max());
    if (negative)
        limit = std::is_signed_v<T> ? limit + 1 : 0;
    if (read.ec == std::errc::result_out_of_range || magnitude > limit) {
        errno = ERANGE;
        return std::numeric_limits<T>::max();
    }
    errno = 0;
    // negated as unsigned, where the smallest signed value has no overflow
    return static_cast<T>(negative ? uint64_t{0} - magnitude : magnitude);
}

/** The same on @a length bytes at @a text, which may be null when @a length is 0. */
template <typename T>
T natoi(char const* text, size_t length) {
    return natoi<T>(std::string_view(text, length));
}

#endif
