#ifndef GAUSSDB_COMMON_XBSA_LINK_H
#define GAUSSDB_COMMON_XBSA_LINK_H

/**
 * The links by which the database's tools find the product's XBSA library. A symbolic link that is
 * there is left as it is and is a success, wherever it points: an administrator may have placed it.
 * Anything else in its place is a failure and stays. On any thread.
 */

/**
 * Makes @a link point at a library of the product's own directory.
 * @param library  its file name
 * @return false after an error line
 */
[[nodiscard]] bool place_xbsa_link(char const* library, char const* link);

/**
 * The same for the place where tools look that know no other: /usr/openv/lib/libxbsa64.so, whose
 * directory is made when it is missing.
 */
[[nodiscard]] bool place_system_xbsa_link(char const* library);

#endif
