#include "json_spirit/text.h"

#include <cstdlib>

/** Whatever parses is written as text that parses to the same value, and to the same text again. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    json_spirit::Value value;
    if (!json_spirit::parse(std::string_view(reinterpret_cast<char const*>(data), size), value,
                            nullptr))
        return 0;
    std::string const text = json_spirit::to_text(value);
    json_spirit::Value again;
    if (!json_spirit::parse(text, again, nullptr) || !(again == value) ||
        json_spirit::to_text(again) != text)
        std::abort();
    return 0;
}
