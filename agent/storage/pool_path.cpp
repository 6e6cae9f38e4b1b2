#include "agent/storage/pool_path.h"

#include "host/storage/file_storage_backend.h"
#include "host/storage/storage_url.h"

bool pool_path_of_url(std::string const& url, std::string& path, std::string& error) {
    Storage_Url parsed;
    if (!parse_storage_url(url, parsed, error))
        return false;
    if (parsed.scheme != File_Storage_Backend::SCHEME) {
        error = "only file:// URLs are pools of an agent";
        return false;
    }
    if ((!parsed.authority.empty() && parsed.authority != "localhost") || parsed.path.empty()) {
        error = "a file URL has three slashes and an absolute path: file:///mnt/pool";
        return false;
    }
    path = parsed.path;
    return true;
}

std::string url_of_pool_path(std::string const& path) {
    return "file://" + encode_url_path(path);
}

bool path_within(std::string const& directory, std::string const& path, std::string& rest) {
    if (path == directory) {
        rest.clear();
        return true;
    }
    std::string const start = directory.ends_with('/') ? directory : directory + "/";
    if (!path.starts_with(start))
        return false;
    rest = path.substr(start.size());
    return true;
}
