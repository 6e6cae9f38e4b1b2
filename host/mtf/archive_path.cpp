#include "host/mtf/archive_path.h"

#include "qmrt/format.h"

#include <algorithm>
#include <cinttypes>

namespace MTF {

namespace {

std::string pool_name(std::string const& uri, std::string const& minor_resource_id, int64_t seq,
                      unsigned piece, char const* suffix) {
    std::string folder = uri;
    folder.erase(0, folder.find_first_not_of('/'));
    folder.erase(folder.find_last_not_of('/') + 1);
    if (!folder.empty())
        folder += '/';
    return folder + minor_resource_id +
           string_sprintf("_%010" PRId64 "_%04u%s", seq, piece, suffix);
}

} // namespace

std::string mtf_path(std::string const& uri, std::string const& minor_resource_id, int64_t seq,
                     unsigned piece) {
    return pool_name(uri, minor_resource_id, seq, piece, ".mtf");
}

std::string cat_path(std::string const& uri, std::string const& minor_resource_id, int64_t seq,
                     unsigned piece) {
    return pool_name(uri, minor_resource_id, seq, piece, ".cat");
}

std::string default_uri(std::string const& host_uuid, std::string const& minor_resource_id) {
    return host_uuid + "/roach/" + minor_resource_id;
}

std::string entry_name(std::string_view path) {
    if (path.empty() || path.front() != '/' || path.find('\0') != path.npos)
        return {};
    std::string name;
    while (!path.empty()) {
        std::string_view const part = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(path.size(), part.size() + 1));
        if (part == "..")
            return {};
        if (part.empty() || part == ".")
            continue;
        if (!name.empty())
            name += '/';
        name += part;
    }
    return name;
}

bool is_entry_name(std::string_view name) {
    return !name.empty() && entry_name("/" + std::string(name)) == name;
}

int compare_entry_names(std::string_view left, std::string_view right) {
    size_t const common = std::min(left.size(), right.size());
    for (size_t at = 0; at < common; ++at) {
        if (left[at] == right[at])
            continue;
        // a slash ends a name, and so sorts before whatever goes on
        auto const rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c) + 1; };
        return rank(left[at]) - rank(right[at]);
    }
    return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

bool is_at_or_below(std::string_view name, std::string_view folder) {
    if (folder.empty() || name == folder)
        return true;
    return name.size() > folder.size() && name.starts_with(folder) && name[folder.size()] == '/';
}

} // namespace MTF
