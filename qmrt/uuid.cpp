#include "qmrt/uuid.h"

#include <cstring>
#include <uuid/uuid.h>

std::string uuid_string() {
    uuid_binary uuid;
    uuid_generate_random(uuid);
    return uuid_binary_to_string(uuid);
}

std::string uuid_binary_to_string(uuid_binary const& uuid) {
    char text[UUID_STR_LEN];
    uuid_unparse_lower(uuid, text);
    return text;
}

bool uuid_string_to_binary(std::string const& text, uuid_binary& uuid) {
    // the length first: the library reads a C string and would not see what stands behind a NUL
    if (text.size() == UUID_STR_LEN - 1 && uuid_parse(text.c_str(), uuid) == 0)
        return true;
    std::memset(uuid, 0, sizeof uuid);
    return false;
}
