#ifndef AGENT_CLI_QUESTION_H
#define AGENT_CLI_QUESTION_H

#include <string>

/** How the reading of a line has ended. */
enum class Line_End { LINE, END, INTERRUPTED };

/**
 * Asks on stderr and reads a line from the terminal that stdin is; a byte at a time, so that what
 * follows is left to others. Ctrl-C ends it. A line of more than 4096 bytes counts as the end.
 */
[[nodiscard]] Line_End read_line(std::string const& question, std::string& line);

/** "y" or "yes", in any case. */
[[nodiscard]] bool is_yes(std::string const& answer);

#endif
