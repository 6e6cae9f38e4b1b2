#include "host/job/minor_resource_id.h"

#include "qmrt/uuid.h"

#include <uuid/uuid.h>

namespace {

// made once by uuidgen; another value would move every resource's files in every pool
constexpr uuid_binary NAMESPACE = {0x02, 0xd8, 0x83, 0xfd, 0x4f, 0x7e, 0x43, 0x4b,
                                   0xb1, 0x3e, 0x51, 0x1d, 0x36, 0x72, 0x03, 0x68};

} // namespace

bool compute_minor_resource_id(std::string const& resource_id, std::string const& text,
                               std::string& result) {
    if (resource_id.empty())
        return false;
    // the NUL keeps ("ab", "c") and ("a", "bc") apart
    std::string const name = resource_id + '\0' + text;
    uuid_binary uuid;
    uuid_generate_sha1(uuid, NAMESPACE, name.data(), name.size());
    result = uuid_binary_to_string(uuid);
    return true;
}
