#ifndef AGENT_CLI_SUGGESTION_H
#define AGENT_CLI_SUGGESTION_H

#include <CLI/CLI.hpp>

#include <string>
#include <string_view>
#include <vector>

/** "Did you mean ...?": known words that are close to a mistyped one. */

/**
 * The known word that differs from @a word by the fewest typing errors: a character that is wrong,
 * missing, too many or exchanged with its neighbour. Upper and lower case count as equal.
 * @return "" if none is close: up to one error in three characters, never more than three
 */
std::string nearest(std::string_view word, std::vector<std::string> const& known);
/** The same for ids, of which users type the beginning. @return the beginning that is close */
std::string nearest_id(std::string_view beginning, std::vector<std::string> const& ids);

/** "Did you mean 'x'?", or "" without a close word. */
std::string did_you_mean(std::string_view word, std::vector<std::string> const& known);

/** Refuses all but these words. @param what  the kind of word: "a level" */
CLI::Validator one_of(char const* what, std::vector<std::string> const& known);

/**
 * Names the word of a command line that is neither a known command nor a known option.
 * @param words  without the program's name
 * @return what is wrong, with the closest word; "" if each word is known
 */
std::string fault_of_words(CLI::App const& app, std::vector<std::string> const& words);

#endif
