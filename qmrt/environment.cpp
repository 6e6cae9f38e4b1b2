#include "qmrt/environment.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string_view>

bool get_env_r(char const* name, std::string& value) {
    char const* const found = std::getenv(name);
    value = found ? found : "";
    return found != nullptr;
}

std::string original_lib_path() {
    // the kernel keeps the environment of the exec here; setenv does not reach it
    std::ifstream file("/proc/self/environ", std::ios::binary);
    std::string const text((std::istreambuf_iterator<char>(file)), {});
    constexpr std::string_view KEY = "LD_LIBRARY_PATH=";
    for (size_t begin = 0; begin < text.size();) {
        size_t const end = std::min(text.find('\0', begin), text.size());
        std::string_view const entry(text.data() + begin, end - begin);
        if (entry.substr(0, KEY.size()) == KEY)
            return std::string(entry.substr(KEY.size()));
        begin = end + 1;
    }
    return {};
}
