#include "agent/cli/question.h"

#include "agent/cli/command_context.h"
#include "agent/cli/interruption.h"

#include <cerrno>
#include <poll.h>
#include <strings.h>
#include <unistd.h>

namespace {

constexpr size_t LONGEST_LINE = 4096;

} // namespace

Line_End read_line(std::string const& question, std::string& line) {
    Interruption::install(); // before anybody can see that an answer is awaited
    Command_Context::tell(question);
    line.clear();
    for (;;) {
        pollfd polled[] = {{STDIN_FILENO, POLLIN, 0}, {Interruption::fd(), POLLIN, 0}};
        if (poll(polled, 2, -1) == -1 && errno != EINTR)
            return Line_End::END;
        if (Interruption::happened())
            return Line_End::INTERRUPTED;
        if (!polled[0].revents)
            continue;
        char byte = 0;
        ssize_t const count = read(STDIN_FILENO, &byte, 1);
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0 || line.size() >= LONGEST_LINE)
            return Line_End::END;
        if (byte == '\n')
            return Line_End::LINE;
        line += byte;
    }
}

bool is_yes(std::string const& answer) {
    return strcasecmp(answer.c_str(), "y") == 0 || strcasecmp(answer.c_str(), "yes") == 0;
}
