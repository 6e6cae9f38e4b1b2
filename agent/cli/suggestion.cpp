#include "agent/cli/suggestion.h"

#include "qmrt/names.h"

#include <algorithm>
#include <cctype>

namespace {

constexpr size_t MOST_ERRORS = 3;
constexpr size_t CHARACTERS_PER_ERROR = 3;
constexpr size_t LONGEST_WORD = 64; ///< longer words are not compared
constexpr size_t SHORTEST_ID = 4;   ///< of a shorter beginning every id is close

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

/** Typing errors between two words; exchanged neighbours are one error. */
size_t errors_between(std::string const& a, std::string const& b) {
    std::vector<std::vector<size_t>> errors(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                errors[i][j] = i + j;
                continue;
            }
            errors[i][j] = std::min({errors[i - 1][j] + 1, errors[i][j - 1] + 1,
                                     errors[i - 1][j - 1] + (a[i - 1] != b[j - 1])});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                errors[i][j] = std::min(errors[i][j], errors[i - 2][j - 2] + 1);
        }
    return errors[a.size()][b.size()];
}

std::vector<std::string> commands_of(CLI::App const& app) {
    std::vector<std::string> names;
    for (CLI::App const* const one : app.get_subcommands(nullptr))
        if (!one->get_group().empty())
            names.push_back(one->get_name());
    return names;
}

CLI::App const* subcommand(CLI::App const& app, std::string const& name) {
    for (CLI::App const* const one : app.get_subcommands(nullptr))
        if (one->get_name() == name)
            return one;
    return nullptr;
}

std::vector<std::string> options_of(CLI::App const& app) {
    std::vector<std::string> names;
    for (CLI::Option const* const option : app.get_options())
        for (std::string const& name : option->get_lnames())
            names.push_back("--" + name);
    return names;
}

size_t positionals_of(CLI::App const& app) {
    size_t count = 0;
    for (CLI::Option const* const option : app.get_options()) {
        if (!option->get_positional())
            continue;
        if (option->get_items_expected_max() > 1)
            return LONGEST_WORD; // a list
        ++count;
    }
    return count;
}

std::string with_hint(std::string const& fault, std::string_view word,
                      std::vector<std::string> const& known) {
    std::string const hint = did_you_mean(word, known);
    return hint.empty() ? fault : fault + ". " + hint;
}

} // namespace

std::string nearest(std::string_view word, std::vector<std::string> const& known) {
    size_t const allowed =
        std::min(MOST_ERRORS, std::max<size_t>(1, word.size() / CHARACTERS_PER_ERROR));
    std::string best;
    size_t least = allowed + 1;
    if (word.empty() || word.size() > LONGEST_WORD)
        return best;
    for (std::string const& one : known) {
        if (one.size() > LONGEST_WORD || one == word)
            continue;
        size_t const errors = errors_between(lower(word), lower(one));
        // of a short word nothing would be left
        if (errors < least && errors < std::max(word.size(), one.size())) {
            least = errors;
            best = one;
        }
    }
    return best;
}

std::string nearest_id(std::string_view beginning, std::vector<std::string> const& ids) {
    std::vector<std::string> beginnings;
    if (beginning.size() < SHORTEST_ID)
        return "";
    for (std::string const& id : ids)
        beginnings.push_back(id.substr(0, beginning.size()));
    return nearest(beginning, beginnings);
}

std::string did_you_mean(std::string_view word, std::vector<std::string> const& known) {
    std::string const close = nearest(word, known);
    return close.empty() ? "" : "Did you mean '" + names::shown(close) + "'?";
}

CLI::Validator one_of(char const* what, std::vector<std::string> const& known) {
    return CLI::Validator(
        [what, known](std::string const& word) {
            if (std::ranges::find(known, word) != known.end())
                return std::string();
            std::string list;
            for (std::string const& one : known)
                list += (list.empty() ? "" : ", ") + one;
            return with_hint("'" + names::shown(word) + "' is not " + what + " (expected " + list +
                                 ")",
                             word, known);
        },
        "");
}

std::string fault_of_words(CLI::App const& app, std::vector<std::string> const& words) {
    CLI::App const* command = &app;
    std::string path = "zenbrak3";
    std::vector<std::string> arguments;
    for (size_t at = 0; at < words.size() && words[at] != "--"; ++at) {
        std::string const& word = words[at];
        if (word.size() > 1 && word.front() == '-') {
            bool const is_long = word.starts_with("--");
            size_t const equals = is_long ? word.find('=') : std::string::npos;
            std::string const name = is_long ? word.substr(0, equals) : word.substr(0, 2);
            CLI::Option const* const option = command->get_option_no_throw(name);
            if (!option)
                return with_hint("unknown option '" + names::shown(name) + "' of `" + path + "`",
                                 name, options_of(*command));
            bool const has_value = option->get_items_expected_min() > 0;
            if (has_value && (is_long ? equals == std::string::npos : word.size() == 2))
                ++at;
            continue;
        }
        CLI::App const* const next = subcommand(*command, word);
        if (next && arguments.empty()) {
            command = next;
            path += " " + word;
            continue;
        }
        if (command->get_require_subcommand_min() > 0)
            return with_hint("unknown command '" + names::shown(word) + "' of `" + path + "`", word,
                             commands_of(*command));
        arguments.push_back(word);
    }
    if (arguments.size() <= positionals_of(*command))
        return "";
    std::string const group = nearest(arguments.front(), commands_of(*command));
    return group.empty()
               ? "unexpected argument '" + names::shown(arguments.back()) + "' of `" + path + "`"
               : "unknown command '" + names::shown(arguments.front()) + "' of `" + path +
                     "`. Did you mean '" + group + "'?";
}
