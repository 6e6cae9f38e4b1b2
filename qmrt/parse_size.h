#ifndef QMRT_PARSE_SIZE_H
#define QMRT_PARSE_SIZE_H

#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>
#include <type_traits>

namespace qmrt::detail {

inline void skip_spaces(std::string_view& text) {
    while (text.starts_with(' '))
        text.remove_prefix(1);
}

/** The power of 1024 of a unit; 0 if it is unknown. */
inline int power_of_unit(std::string_view unit) {
    constexpr std::string_view LETTERS = "kmgtpe";
    auto const is = [&unit](char small) {
        return !unit.empty() && (unit.front() | 0x20) == small; // ASCII in either case
    };
    for (size_t i = 0; i < LETTERS.size(); ++i) {
        if (!is(LETTERS[i]))
            continue;
        unit.remove_prefix(1);
        if (is('i'))
            unit.remove_prefix(1);
        if (is('b'))
            unit.remove_prefix(1);
        skip_spaces(unit);
        return unit.empty() ? static_cast<int>(i) + 1 : 0;
    }
    return 0;
}

} // namespace qmrt::detail

/**
 * Reads a size: a decimal number, perhaps with a fraction, and a unit: K, M, G, T, P or E in either
 * case, a power of 1024, optionally followed by "i" and by "b". Spaces are allowed before number
 * and unit.
 * @return the largest value of the type on overflow; 0 if the text does not begin with a number;
 * the number alone if the unit is unknown
 */
template <typename T>
T parse_size(std::string_view text) {
    static_assert(std::is_unsigned_v<T> && !std::is_same_v<T, bool>);
    qmrt::detail::skip_spaces(text);
    char const* const end = text.data() + text.size();
    T whole = 0;
    auto const read = std::from_chars(text.data(), end, whole);
    if (read.ec == std::errc::invalid_argument)
        return 0;
    if (read.ec == std::errc::result_out_of_range)
        return std::numeric_limits<T>::max();
    char const* rest = read.ptr;
    long double fraction = 0;
    if (rest != end && *rest == '.') {
        long double weight = 0.1L;
        for (++rest; rest != end && *rest >= '0' && *rest <= '9'; ++rest, weight /= 10)
            fraction += weight * (*rest - '0');
    }
    std::string_view unit(rest, static_cast<size_t>(end - rest));
    qmrt::detail::skip_spaces(unit);
    for (int power = qmrt::detail::power_of_unit(unit); power > 0; --power) {
        fraction *= 1024;
        T const carry = static_cast<T>(fraction);
        fraction -= static_cast<long double>(carry);
        if (whole > (std::numeric_limits<T>::max() - carry) / 1024)
            return std::numeric_limits<T>::max();
        whole = static_cast<T>(whole * 1024 + carry);
    }
    return whole;
}

#endif
