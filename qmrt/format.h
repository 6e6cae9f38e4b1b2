#ifndef QMRT_FORMAT_H
#define QMRT_FORMAT_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <type_traits>

/** printf into a string of any length. Returns "" when the format cannot be carried out. */
std::string string_sprintf(char const* format, ...) __attribute__((format(printf, 1, 2)));

/** The same from a va_list, which it uses up. */
std::string string_vsprintf(char const* format, va_list arguments)
    __attribute__((format(printf, 1, 0)));

/**
 * Formatted text of a fixed size, on the stack: snprintf_t<64> name("%s_env", cluster).
 * Holds N bytes with the closing NUL. What does not fit is cut, and truncated() tells.
 */
template <size_t N, typename Char = char>
class snprintf_t {
    static_assert(N > 0 && std::is_same_v<Char, char>);

public:
    snprintf_t(char const* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list arguments;
        va_start(arguments, format);
        int const length = vsnprintf(text_, N, format, arguments);
        va_end(arguments);
        if (length < 0)
            text_[0] = '\0';
        else
            wanted_ = static_cast<size_t>(length);
    }

    Char const* c_str() const { return text_; }
    operator Char const*() const { return text_; }
    /** Bytes held, without the NUL. */
    size_t length() const { return truncated() ? N - 1 : wanted_; }
    [[nodiscard]] bool truncated() const { return wanted_ >= N; }

private:
    Char text_[N];
    size_t wanted_ = 0;
};

#endif
