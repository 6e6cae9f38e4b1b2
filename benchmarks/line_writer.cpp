/*
 * Writes COUNT lines of 80 bytes, the line break among them, to stdout: line_writer COUNT. It
 * writes as fast as a reader can take them, so that a benchmark measures the reader.
 */
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <unistd.h>

int main(int count, char** arguments) {
    constexpr size_t LINE = 80;
    constexpr size_t LINES = 64 * 1024 / LINE;
    std::string text;
    for (size_t i = 0; i < LINES; ++i)
        text += std::string(LINE - 1, static_cast<char>('a' + i % 26)) + "\n";
    size_t left = count > 1 ? std::strtoul(arguments[1], nullptr, 10) * LINE : 0;
    while (left > 0) {
        ssize_t const written = write(STDOUT_FILENO, text.data(), std::min(left, text.size()));
        if (written == -1 && errno != EINTR)
            return 1;
        if (written > 0) {
            left -= static_cast<size_t>(written);
            // the next write goes on within the line
            std::rotate(text.begin(), text.begin() + written, text.end());
        }
    }
    return 0;
}
