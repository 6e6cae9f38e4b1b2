#include "host/process/command_line.h"

#include <cstdlib>

/** Words that are quoted and joined split into the same words again, whatever they came from. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string_view const line(reinterpret_cast<char const*>(data), size);
    std::vector<std::string> words = {"as before"};
    std::string error;
    if (!split_command_line(line, words, error)) {
        if (error.empty() || words.size() != 1)
            std::abort();
        return 0;
    }
    std::string joined;
    for (std::string const& word : words) {
        if (word.find('\0') != std::string::npos)
            std::abort();
        joined += quote_word(word) + " ";
    }
    std::vector<std::string> again;
    if (!split_command_line(joined, again, error) || again != words)
        std::abort();
    return 0;
}
