#include "agent/cli/consent.h"

#include "agent/cli/question.h"
#include "agent/cli/table.h"

#include <algorithm>
#include <ctime>
#include <unistd.h>

namespace {

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
    if (context.json())
        Command_Context::tell(text_of(consequences));
    std::string answer;
    Line_End const end = read_line("Continue? [y/N] ", answer);
    if (end == Line_End::LINE && is_yes(answer))
        return true;
    bool const is_interrupted = end == Line_End::INTERRUPTED;
    Command_Context::tell(is_interrupted ? "\nNothing was changed.\n" : "Nothing was changed.\n");
    status = is_interrupted ? EXIT_INTERRUPTED : EXIT_REFUSED;
    return false;
}

std::string age_text(int64_t time) {
    if (time <= 0)
        return "-";
    int64_t const age = std::max<int64_t>(0, static_cast<int64_t>(::time(nullptr)) - time);
    return time_text(static_cast<time_t>(time)) + ", " + duration_text(age) + " ago";
}
