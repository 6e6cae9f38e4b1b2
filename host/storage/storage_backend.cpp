#include "host/storage/storage_backend.h"

#include "qmrt/names.h"

namespace {

std::string fault_of_name(std::string const& name) {
    if (std::string fault = names::fault_of_relative_path(name); !fault.empty())
        return fault;
    for (std::string const& part : split_object_name(name))
        if (part.starts_with(UNFINISHED_PREFIX))
            return "is reserved for unfinished objects";
    return "";
}

} // namespace

Storage_Result check_object_name(std::string const& name) {
    std::string const fault = fault_of_name(name);
    if (fault.empty())
        return {};
    return {Storage_Result::BAD_NAME,
            "invalid object name '" + names::shown(name) + "': it " + fault};
}

std::string Storage_Access::pool_url() const {
    auto const found = extra_options.find(POOL_URL);
    return found == extra_options.end() ? std::string() : found->second;
}

bool Storage_Access::d2t() const {
    auto const found = extra_options.find(ACCESS_MODE);
    return found != extra_options.end() && found->second == ACCESS_MODE_D2T;
}

std::vector<std::string> split_object_name(std::string const& name) {
    std::vector<std::string> parts;
    for (size_t begin = 0;;) {
        size_t const end = name.find('/', begin);
        parts.push_back(name.substr(begin, end == std::string::npos ? end : end - begin));
        if (end == std::string::npos)
            return parts;
        begin = end + 1;
    }
}
