#ifndef HOST_PROCESS_COMMAND_LINE_H
#define HOST_PROCESS_COMMAND_LINE_H

#include <string>
#include <string_view>
#include <vector>

/**
 * Splits a command line into the words of a program call by the quoting rules of the POSIX shell
 * (IEEE Std 1003.1, Shell Command Language, 2.2 Quoting), and by nothing else of the shell:
 *
 * - blanks, tabs and line breaks part the words;
 * - '...' is taken as it stands; in "..." a backslash counts before $ ` " \ and a line break only;
 *   elsewhere a backslash takes the next byte as it stands; behind a backslash a line break goes;
 * - neighbours are joined: "a='"'b'"'" is the one word a='b';
 * - "" and '' make an empty word; $ ` * ~ | ; and their like are plain bytes.
 *
 * @param words  replaced by the words; empty for a line of blanks. Unchanged on false.
 * @param error  on false, what is wrong with the line, as a part of a sentence
 * @return false for a quote without its end, a backslash at the very end, and a NUL, which no
 *         argument of a program can hold
 */
[[nodiscard]] bool split_command_line(std::string_view line, std::vector<std::string>& words,
                                      std::string& error);

/** A text as one word of a command line: what split_command_line() gives back for it is @a word. */
std::string quote_word(std::string_view word);

#endif
