#include "tests/support/recorded_output.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

std::vector<Recorded_Output> Recorded_Output::all(std::string const& tool) {
    std::vector<Recorded_Output> result;
    for (auto const& entry :
         std::filesystem::directory_iterator(std::string(ZENBRAK3_TEST_DATA) + "/" + tool))
        result.push_back(load(tool + "/" + entry.path().filename().string()));
    if (result.empty())
        throw std::runtime_error("no recorded output of " + tool);
    std::sort(result.begin(), result.end(),
              [](auto const& left, auto const& right) { return left.name < right.name; });
    return result;
}

Recorded_Output Recorded_Output::load(std::string const& name) {
    std::ifstream file(std::string(ZENBRAK3_TEST_DATA) + "/" + name, std::ios::binary);
    std::string source;
    if (!std::getline(file, source) || source.rfind("# source: ", 0) != 0)
        throw std::runtime_error(name + " does not begin with its source");
    return {name, std::string((std::istreambuf_iterator<char>(file)), {})};
}

std::vector<std::string> Recorded_Output::lines() const {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        result.push_back(line);
    return result;
}
