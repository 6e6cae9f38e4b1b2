#include "agent/cli/consent.h"

#include "agent/cli/interruption.h"
#include "agent/cli/table.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <poll.h>
#include <unistd.h>

namespace {

/** More than anybody types for an answer. */
constexpr size_t LONGEST_ANSWER = 100;

enum class Answer { YES, NO, INTERRUPTED };

std::string text_of(Consequences const& consequences) {
    size_t width = 0;
    for (auto const& line : consequences.lines)
        width = std::max(width, line.first.size());
    std::string text = consequences.title + "\n";
    for (auto const& [label, what] : consequences.lines)
        text += "  " + label + ":" + std::string(width - label.size() + 2, ' ') + what + "\n";
    return text;
}

json_spirit::Object json_of(Consequences const& consequences) {
    json_spirit::Object lines;
    for (auto const& [label, what] : consequences.lines)
        lines[label] = what;
    return {{"dry_run", true}, {"would", consequences.doing}, {"consequences", std::move(lines)}};
}

/** Reads a line from the terminal; a byte at a time, so that what follows is left to others. */
Answer read_answer() {
    std::string line;
    for (;;) {
        pollfd polled[] = {{STDIN_FILENO, POLLIN, 0}, {Interruption::fd(), POLLIN, 0}};
        if (poll(polled, 2, -1) == -1 && errno != EINTR)
            return Answer::NO;
        if (Interruption::happened())
            return Answer::INTERRUPTED;
        if (!polled[0].revents)
            continue;
        char byte = 0;
        ssize_t const count = read(STDIN_FILENO, &byte, 1);
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0 || line.size() > LONGEST_ANSWER)
            return Answer::NO;
        if (byte == '\n')
            break;
        line += static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
    }
    return line == "y" || line == "yes" ? Answer::YES : Answer::NO;
}

} // namespace

bool consents(Command_Context& context, Consent const& consent, Consequences const& consequences,
              int& status) {
    status = EXIT_OK;
    if (consent.dry_run && context.json())
        context.print_json(json_of(consequences));
    else if (!context.json())
        context.print(text_of(consequences));
    if (consent.dry_run)
        return false;
    if (consent.yes)
        return true;
    if (!isatty(STDIN_FILENO)) {
        status = context.fail(EXIT_REFUSED,
                              "cannot " + consequences.doing +
                                  ": stdin is not a terminal, so nobody can be asked",
                              "--yes does it without asking, --dry-run shows what it would do.");
        return false;
    }
    Interruption::install();
    if (context.json())
        Command_Context::tell(text_of(consequences));
    Command_Context::tell("Continue? [y/N] ");
    Answer const answer = read_answer();
    if (answer == Answer::YES)
        return true;
    Command_Context::tell(answer == Answer::INTERRUPTED ? "\nNothing was changed.\n"
                                                        : "Nothing was changed.\n");
    status = answer == Answer::INTERRUPTED ? EXIT_INTERRUPTED : EXIT_REFUSED;
    return false;
}

std::string age_text(int64_t time) {
    if (time <= 0)
        return "-";
    int64_t const age = std::max<int64_t>(0, static_cast<int64_t>(::time(nullptr)) - time);
    return time_text(static_cast<time_t>(time)) + ", " + duration_text(age) + " ago";
}
