#include "host/http/http_query_string_builder_t.h"

#include <algorithm>
#include <cstdlib>

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

/** True when a text has nothing in it but what the encoding may write under these flags. */
bool has_promised_alphabet(std::string const& text, unsigned flags) {
    std::string others = "-_.~%";
    if (!(flags & HUT_FLAG_SLASH))
        others += '/';
    if (flags & HUT_FLAG_SPACE)
        others += '+';
    return std::all_of(text.begin(), text.end(), [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               others.find(c) != std::string::npos;
    });
}

void check_text(std::string const& text) {
    for (unsigned flags = 0; flags < 8; ++flags) {
        std::string const encoded = http_encode_string(text, flags);
        std::string decoded;
        require(has_promised_alphabet(encoded, flags));
        require(http_decode_string(encoded, flags, decoded));
        require(decoded == text);
    }
}

/** A key and a value, up to their first NUL, come back from the query that they were built into. */
void check_query(std::string const& key, std::string const& value) {
    std::string query;
    HTTP_Query_String_Builder(std::back_inserter(query), false)("first", 1u)(key.c_str(),
                                                                             value.c_str());
    HTTP_Query parsed;
    require(http_parse_query(query, parsed));
    require(parsed.at(0) == std::pair<std::string, std::string>("first", "1"));
    bool const has_key = *key.c_str() != '\0';
    require(parsed.size() == (has_key ? 2u : 1u));
    if (has_key)
        require(parsed.at(1) == std::pair<std::string, std::string>(key.c_str(), value.c_str()));
}

} // namespace

/** What is encoded decodes to itself, in the promised alphabet; any text parses or is refused. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string const text(reinterpret_cast<char const*>(data), size);
    check_text(text);
    check_query(text.substr(0, size / 2), text.substr(size / 2));
    HTTP_Query ignored;
    (void)http_parse_query(text, ignored);
    return 0;
}
