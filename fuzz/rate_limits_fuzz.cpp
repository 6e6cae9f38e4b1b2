#include "host/storage/rate_limits.h"

#include <cstdlib>

/** Any text as limits of speed: what is taken is written as text that reads as the same limits. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    Rate_Control_Entries entries, again;
    if (!rate_entries_from_string(text, ';', entries))
        return 0;
    std::string const written = rate_entries_to_string(entries, ';');
    if (!rate_entries_from_string(written, ';', again) ||
        rate_entries_to_string(again, ';') != written)
        std::abort();
    for (int const minute : {0, 1, 720, 1439})
        if (rate_at(entries, minute) != rate_at(again, minute))
            std::abort();
    return 0;
}
