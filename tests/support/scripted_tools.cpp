#include "tests/support/scripted_tools.h"

#include <sstream>
#include <stdexcept>

namespace {

std::vector<std::string> split_at_nul(std::string const& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string entry; std::getline(stream, entry, '\0');)
        result.push_back(entry);
    return result;
}

} // namespace

std::string Tool_Call::text() const {
    std::string result;
    for (std::string const& arg : args)
        result += "[" + arg + "]";
    return result;
}

Scripted_Tools::Scripted_Tools() {
    using std::filesystem::perms;
    std::filesystem::permissions(path(), perms(0755));
    std::filesystem::create_directory(path("calls"));
    std::filesystem::permissions(path("calls"), perms(01777));
}

void Scripted_Tools::script(std::string const& tool, std::string const& text) {
    directory_.write(tool + ".script", text);
    // a copy: other users run it, who may not reach the build directory
    std::string const program = path("scripted_tool.program");
    if (!std::filesystem::exists(program)) {
        std::filesystem::copy_file(ZENBRAK3_SCRIPTED_TOOL, program);
        std::filesystem::permissions(program, std::filesystem::perms(0755));
    }
    std::error_code exists;
    std::filesystem::create_symlink(program, path(tool), exists);
}

void Scripted_Tools::prints(std::string const& tool, std::string const& output, int status) {
    std::string steps;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        steps += "out ";
        for (char const byte : line)
            steps += byte == '\\'   ? std::string("\\\\")
                     : byte == '\r' ? std::string("\\r")
                     : byte == '\0' ? std::string("\\0")
                                    : std::string(1, byte);
        steps += "\n";
    }
    script(tool, steps + "exit " + std::to_string(status));
}

void Scripted_Tools::go(std::string const& tool) {
    directory_.write(tool + ".go", "");
}

size_t Scripted_Tools::calls(std::string const& tool) const {
    std::string const count = directory_.read("calls/" + tool + ".count");
    return count.empty() ? 0 : std::stoul(count);
}

Tool_Call Scripted_Tools::call(std::string const& tool, size_t number) const {
    if (number == 0 || number > calls(tool))
        throw std::out_of_range(tool + " was called " + std::to_string(calls(tool)) + " times");
    std::string const prefix = "calls/" + tool + "." + std::to_string(number);
    Tool_Call call;
    call.args = split_at_nul(directory_.read(prefix + ".args"));
    for (std::string const& entry : split_at_nul(directory_.read(prefix + ".env"))) {
        size_t const equals = entry.find('=');
        call.env[entry.substr(0, equals)] = entry.substr(equals + 1);
    }
    call.input = directory_.read(prefix + ".stdin");
    std::istringstream who(directory_.read(prefix + ".who"));
    who >> call.uid >> call.gid;
    std::getline(who >> std::ws, call.directory);
    for (unsigned group; who >> group;)
        call.groups.push_back(group);
    return call;
}
