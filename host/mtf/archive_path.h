#ifndef HOST_MTF_ARCHIVE_PATH_H
#define HOST_MTF_ARCHIVE_PATH_H

#include <cstdint>
#include <string>
#include <string_view>

/**
 * Names of archives in a pool, and names of entries in an archive. The functions log nothing and
 * may be used on any thread.
 */
namespace MTF {

/**
 * The name of an archive in its pool, below the pool's own folder. What is in it is a tar file
 * (POSIX.1-2001 pax interchange format), compressed as its first bytes say.
 * @param uri    the folder of the resource's archives; slashes at its ends do not count
 * @param seq    number of the backup, from 1
 * @param piece  number of the archive within the backup; a backup has one, with number 0
 * @return "<uri>/<minor_resource_id>_<seq>_<piece>.mtf"; the numbers have leading zeros, so that
 *         names sort by them
 */
std::string mtf_path(std::string const& uri, std::string const& minor_resource_id, int64_t seq,
                     unsigned piece);

/** The name of the catalogue of that archive: the same with ".cat". */
std::string cat_path(std::string const& uri, std::string const& minor_resource_id, int64_t seq,
                     unsigned piece);

/** The folder of a resource's archives when none is named: "<host_uuid>/roach/<minor id>". */
std::string default_uri(std::string const& host_uuid, std::string const& minor_resource_id);

/**
 * The name of a file's entry: its absolute path without "/" in front, empty parts and ".".
 * @return "" for a path that is relative, has ".." or a NUL in it, or is the root itself
 */
std::string entry_name(std::string_view path);

/** True for what entry_name() gives: the only names that are written to archives and restored. */
[[nodiscard]] bool is_entry_name(std::string_view name);

/**
 * The order of entries in archives and catalogues: a directory, then all that is below it, then its
 * next sibling; siblings by their bytes.
 * @return less than, equal to or greater than 0
 */
int compare_entry_names(std::string_view left, std::string_view right);

/** True when @a name is @a folder or stands below it; "" is above all. */
[[nodiscard]] bool is_at_or_below(std::string_view name, std::string_view folder);

} // namespace MTF

#endif
