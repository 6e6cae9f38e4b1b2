#include "qmrt/utf8.h"

#include "qmrt/scoped_deleter.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iconv.h>
#include <langinfo.h>

namespace qmrt {

namespace {

/** Length of the well-formed sequence at the beginning of @a text; 0 when there is none. */
size_t sequence_length(std::string_view text) {
    auto const byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
    auto const continues = [&](size_t at, unsigned low = 0x80, unsigned high = 0xBF) {
        return at < text.size() && byte(at) >= low && byte(at) <= high;
    };
    unsigned const first = byte(0);
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF)
        return continues(1) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        unsigned const low = first == 0xE0 ? 0xA0 : 0x80;
        unsigned const high = first == 0xED ? 0x9F : 0xBF;
        return continues(1, low, high) && continues(2) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        unsigned const low = first == 0xF0 ? 0x90 : 0x80;
        unsigned const high = first == 0xF4 ? 0x8F : 0xBF;
        return continues(1, low, high) && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

} // namespace

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        // most text is ASCII: eight bytes at a time
        uint64_t word;
        while (text.size() >= sizeof word) {
            std::memcpy(&word, text.data(), sizeof word);
            if (word & 0x8080808080808080u)
                break;
            text.remove_prefix(sizeof word);
        }
        if (text.empty())
            break;
        size_t const length = sequence_length(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string to_utf8(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        size_t const length = sequence_length(text);
        if (length == 0)
            result += "\xEF\xBF\xBD";
        else
            result += text.substr(0, length);
        text.remove_prefix(length ? length : 1);
    }
    return result;
}

std::string to_one_line(std::string_view text) {
    std::string result = to_utf8(text);
    std::replace_if(
        result.begin(), result.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '?');
    return result;
}

std::string local_to_utf8(std::string_view text, char const* codeset) {
    if (is_utf8(text))
        return std::string(text);
    iconv_t const converter = iconv_open("UTF-8", codeset ? codeset : nl_langinfo(CODESET));
    if (converter == reinterpret_cast<iconv_t>(-1))
        return to_utf8(text);
    Scoped_Deleter const closer([&] { iconv_close(converter); });
    std::string result;
    char* next = const_cast<char*>(text.data()); // iconv does not change it
    size_t left = text.size();
    while (left > 0) {
        char piece[256];
        char* end = piece;
        size_t room = sizeof piece;
        bool const failed = iconv(converter, &next, &left, &end, &room) == static_cast<size_t>(-1);
        result.append(piece, end);
        if (failed && errno != E2BIG) {
            result += "\xEF\xBF\xBD";
            ++next;
            --left;
        }
    }
    return result;
}

} // namespace qmrt
