#include "agent/cli/command_line.h"
#include "agent/cli/unix_connection.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

namespace {

/** What was said on the command line, else in the environment, else where agents listen. */
std::string socket_path(Command_Line const& line) {
    if (!line.socket().empty())
        return line.socket();
    char const* const path = std::getenv("ZENBRAK3_SOCKET");
    return path && *path ? path : DEFAULT_AGENT_SOCKET;
}

/** A full disk behind stdout must not look like success. */
int flushed(Command_Context& context, int status) {
    if (std::fflush(stdout) == 0 && !std::ferror(stdout))
        return status;
    int const code = errno;
    int const failed =
        context.fail(EXIT_FAILED, std::string("cannot write the output: ") + std::strerror(code));
    return status == EXIT_OK ? failed : status;
}

} // namespace

int main(int argc, char** argv) {
    init_terminal_locale();
    try {
        Command_Line line;
        int status = EXIT_OK;
        if (!line.parse(argc, argv, status))
            return status;
        Unix_Connection agent(socket_path(line));
        Command_Context context(agent, Terminal::of_stdout(), line.json(), line.list());
        int const ended = line.run(context);
        context.print_json_error(ended);
        return flushed(context, ended);
    } catch (std::exception const& error) {
        Command_Context::tell(std::string("zenbrak3: ") + printable(error.what()) + "\n");
        return EXIT_FAILED;
    }
}
