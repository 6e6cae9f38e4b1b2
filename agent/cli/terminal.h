#ifndef AGENT_CLI_TERMINAL_H
#define AGENT_CLI_TERMINAL_H

#include <cstdio>
#include <string>
#include <string_view>

/** Where the output goes, and what can be shown there. A plain value. */
struct Terminal {
    /** What stdout is: its width by COLUMNS, else as the terminal says, else 80. */
    static Terminal of_stdout();

    bool interactive = false; ///< a person looks at it
    bool utf8 = true;         ///< by the locale
    size_t width = 80;        ///< columns; of no meaning for what is not interactive
};

/**
 * Chooses the locale for characters, so that their widths can be asked. Call once at the start.
 */
void init_terminal_locale();

/**
 * A text from elsewhere as it may be printed: what would steer a terminal or turn the direction of
 * the text is shown as "\n", "\t", "\x1b" or "\u202e"; what is no UTF-8 as U+FFFD.
 */
std::string printable(std::string_view text);
/** The same for text of several lines: line breaks and tabs are left as they are. */
std::string printable_lines(std::string_view text);
/** A JSON text in which such characters are escaped; it stays the same JSON. */
std::string printable_json(std::string_view json);

/** Columns that a printable() text takes. */
size_t display_width(std::string_view text);
/** The text, if need be without its end and with @a ellipsis there, in at most @a width columns. */
std::string fit(std::string_view text, size_t width, std::string_view ellipsis);

#endif
