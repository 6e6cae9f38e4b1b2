#include "fuzz/scratch_directory.h"
#include "gaussdb/common/zengine_config.h"

#include <algorithm>
#include <cctype>

/** A zengine.ini of any content is read to its end, and has no port without the variable's name. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static Scratch_Directory const directory;
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    std::string const path = directory.write("zengine.ini", text);
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char byte) { return std::tolower(byte); });
    if (read_lsnr_port(path.c_str()) != 0 && lower.find("lsnr_port") == std::string::npos)
        std::abort();
    return 0;
}
