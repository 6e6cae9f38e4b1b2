#include "host/storage/storage_backend.h"

#include "qmrt/utf8.h"

namespace {

constexpr size_t MAX_NAME = 4000;
constexpr size_t MAX_PART = 255;
constexpr size_t MAX_SHOWN = 200;

/** A name as a log can show it. */
std::string shown(std::string const& name) {
    return qmrt::to_one_line(name.substr(0, MAX_SHOWN)) + (name.size() > MAX_SHOWN ? "..." : "");
}

char const* fault_of_part(std::string const& part) {
    if (part.empty())
        return "it has an empty part";
    if (part == "." || part == "..")
        return "it would leave its folder";
    if (part.size() > MAX_PART)
        return "a part of it is too long";
    if (part.compare(0, sizeof UNFINISHED_PREFIX - 1, UNFINISHED_PREFIX) == 0)
        return "it is reserved for unfinished objects";
    return nullptr;
}

char const* fault_of_name(std::string const& name) {
    if (name.empty())
        return "it is empty";
    if (name.front() == '/')
        return "it is absolute";
    if (name.size() > MAX_NAME)
        return "it is too long";
    if (name.find('\0') != std::string::npos)
        return "it has a NUL in it";
    for (std::string const& part : split_object_name(name))
        if (char const* const fault = fault_of_part(part))
            return fault;
    return nullptr;
}

} // namespace

Storage_Result check_object_name(std::string const& name) {
    char const* const fault = fault_of_name(name);
    if (!fault)
        return {};
    return {Storage_Result::BAD_NAME, "invalid object name '" + shown(name) + "', " + fault};
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
