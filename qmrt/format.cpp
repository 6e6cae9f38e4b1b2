#include "qmrt/format.h"

std::string string_vsprintf(char const* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    int const length = vsnprintf(nullptr, 0, format, arguments);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<size_t>(length));
        vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

std::string string_sprintf(char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = string_vsprintf(format, arguments);
    va_end(arguments);
    return text;
}
