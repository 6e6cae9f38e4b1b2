#include "gaussdb/job/roach_line_handler.h"
#include "gaussdb/job/roach_progress_handler.h"
#include "qmrt/names.h"

#include <cstdlib>

/** Whatever the backup tool prints: a key that comes out can be a file's name. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string_view const input(reinterpret_cast<char const*>(data), size);
    std::string key;
    Roach_Progress_Handler progress(size > 0 ? data[0] % 5 : 0, nullptr, 2);
    Roach_Line_Handler handler(&key, &progress);
    for (size_t begin = 0; begin < size;) {
        size_t const end = std::min(input.find('\n', begin), size);
        std::string const line(input.substr(begin, end - begin));
        if (handler.handle_stdout_line(line.c_str(), line.size()) != 0)
            std::abort();
        if (key.find_first_not_of("0123456789_") != std::string::npos ||
            input.find(key) == std::string_view::npos)
            std::abort();
        begin = end + 1;
    }
    return 0;
}
