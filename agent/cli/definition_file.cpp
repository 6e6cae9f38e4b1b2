#include "agent/cli/definition_file.h"

#include "json_spirit/text.h"
#include "qmrt/file.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

constexpr size_t MAX_FILE = 16 * 1024 * 1024;

/** Reads stdin to its end; -1 with errno. */
int read_stdin(std::string& content) {
    char buffer[65536];
    for (;;) {
        ssize_t const count = read(STDIN_FILENO, buffer, sizeof buffer);
        if (count == 0)
            return 0;
        if (count == -1 && errno != EINTR)
            return -1;
        if (count > 0)
            content.append(buffer, static_cast<size_t>(count));
        if (content.size() > MAX_FILE) {
            errno = EFBIG;
            return -1;
        }
    }
}

} // namespace

bool read_definition_file(Command_Context& context, std::string const& file,
                          json_spirit::Object& definition) {
    std::string const name = file == "-" ? "stdin" : file;
    std::string text;
    if ((file == "-" ? read_stdin(text) : read_file(file.c_str(), text, MAX_FILE)) == -1) {
        context.fail(EXIT_USAGE, "cannot read " + name + ": " + std::strerror(errno));
        return false;
    }
    json_spirit::Value value;
    std::string error;
    if (!json_spirit::parse(text, value, &error)) {
        context.fail(EXIT_USAGE, name + " is no JSON: " + error);
        return false;
    }
    if (value.type() != json_spirit::obj_type) {
        context.fail(EXIT_USAGE, name + " holds no definition: a JSON object is wanted");
        return false;
    }
    definition = std::move(value.get_obj());
    return true;
}
