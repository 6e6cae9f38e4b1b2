#include "host/storage/pool_names.h"

namespace {

/** True for a name that would appear without its end if it were an object's. */
bool looks_packed(std::string const& path) {
    return compression_of_name(path) != COMPR_NONE;
}

} // namespace

std::string object_to_write(std::string const& path, Compression_Method method) {
    std::string suffix = compression_value_to_suffix(method);
    if (suffix.empty() && looks_packed(path))
        suffix = compression_value_to_suffix(COMPR_ZSTD);
    return path + suffix;
}

std::vector<std::string> objects_to_read(std::string const& path) {
    std::vector<std::string> objects;
    if (!looks_packed(path))
        objects.push_back(path);
    for (Compression_Method method : {COMPR_ZSTD, COMPR_LZOP})
        objects.push_back(path + compression_value_to_suffix(method));
    return objects;
}
