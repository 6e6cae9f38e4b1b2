#include "agent/cli/terminal.h"

#include "qmrt/format.h"
#include "qmrt/natoi.h"
#include "qmrt/utf8.h"

#include <clocale>
#include <cstdlib>
#include <cwchar>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

bool locale_is_utf8 = true;

/** Reads one character of well-formed UTF-8 and moves on. */
char32_t next_character(std::string_view text, size_t& at) {
    auto const first = static_cast<unsigned char>(text[at++]);
    int const more = first < 0x80 ? 0 : first < 0xe0 ? 1 : first < 0xf0 ? 2 : 3;
    char32_t character = more == 0 ? first : first & (0x3fu >> more);
    for (int count = 0; count < more && at < text.size(); ++count)
        character = character << 6 | (static_cast<unsigned char>(text[at++]) & 0x3fu);
    return character;
}

bool is_control(char32_t c) {
    return c < 0x20 || (c >= 0x7f && c < 0xa0);
}

/** Line and paragraph separators, and what turns the direction of the text behind it. */
bool is_treacherous(char32_t c) {
    return c == 0x061c || c == 0x200e || c == 0x200f || (c >= 0x2028 && c <= 0x202e) ||
           (c >= 0x2066 && c <= 0x2069) || c == 0xfeff;
}

std::string escaped(char32_t c) {
    switch (c) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return string_sprintf(c < 0x100 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(c));
    }
}

/** Calls @a append(character, its bytes) for each character. */
template <typename Append>
std::string rewritten(std::string_view text, Append append) {
    std::string const clean = qmrt::to_utf8(text);
    std::string result;
    for (size_t at = 0; at < clean.size();) {
        size_t const begin = at;
        char32_t const c = next_character(clean, at);
        append(result, c, std::string_view(clean).substr(begin, at - begin));
    }
    return result;
}

size_t width_of(char32_t c) {
    int const width = wcwidth(static_cast<wchar_t>(c));
    return width < 0 ? 1 : static_cast<size_t>(width);
}

} // namespace

void init_terminal_locale() {
    setlocale(LC_ALL, "");
    setlocale(LC_NUMERIC, "C");
    locale_is_utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    if (!locale_is_utf8)
        setlocale(LC_CTYPE, "C.UTF-8"); // what the agent sends is UTF-8 all the same
}

Terminal Terminal::of_stdout() {
    Terminal terminal;
    terminal.interactive = isatty(STDOUT_FILENO) != 0;
    terminal.utf8 = locale_is_utf8;
    winsize size = {};
    char const* const columns = std::getenv("COLUMNS");
    if (columns && natoi<unsigned short>(columns) > 0)
        terminal.width = natoi<unsigned short>(columns);
    else if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        terminal.width = size.ws_col;
    return terminal;
}

std::string printable(std::string_view text) {
    return rewritten(text, [](std::string& result, char32_t c, std::string_view bytes) {
        if (is_control(c) || is_treacherous(c))
            result += escaped(c);
        else
            result += bytes;
    });
}

std::string printable_lines(std::string_view text) {
    return rewritten(text, [](std::string& result, char32_t c, std::string_view bytes) {
        if (c != '\n' && c != '\t' && (is_control(c) || is_treacherous(c)))
            result += escaped(c);
        else
            result += bytes;
    });
}

std::string printable_json(std::string_view json) {
    return rewritten(json, [](std::string& result, char32_t c, std::string_view bytes) {
        if (c != '\n' && c != '\t' && (is_control(c) || is_treacherous(c)))
            result += string_sprintf("\\u%04x", static_cast<unsigned>(c));
        else
            result += bytes;
    });
}

size_t display_width(std::string_view text) {
    size_t width = 0;
    for (size_t at = 0; at < text.size();)
        width += width_of(next_character(text, at));
    return width;
}

std::string fit(std::string_view text, size_t width, std::string_view ellipsis) {
    if (display_width(text) <= width)
        return std::string(text);
    size_t const tail = display_width(ellipsis);
    size_t used = 0;
    size_t end = 0;
    for (size_t at = 0; at < text.size(); end = at) {
        used += width_of(next_character(text, at));
        if (used + tail > width)
            break;
    }
    return std::string(text.substr(0, end)) + (tail <= width ? std::string(ellipsis) : "");
}
