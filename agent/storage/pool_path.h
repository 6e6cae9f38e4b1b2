#ifndef AGENT_STORAGE_POOL_PATH_H
#define AGENT_STORAGE_POOL_PATH_H

#include <string>

/**
 * The directory that a file URL names, in one form for all URLs of it: absolute, decoded, without
 * empty parts.
 * @return false, with a reason in @a error, for any other URL
 */
[[nodiscard]] bool pool_path_of_url(std::string const& url, std::string& path, std::string& error);

/** The URL of a directory, which pool_path_of_url() reads back. */
std::string url_of_pool_path(std::string const& path);

/** The way from a directory to one in it: "" for the same; false when @a path is not in it. */
[[nodiscard]] bool path_within(std::string const& directory, std::string const& path,
                               std::string& rest);

#endif
