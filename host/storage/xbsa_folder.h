#ifndef HOST_STORAGE_XBSA_FOLDER_H
#define HOST_STORAGE_XBSA_FOLDER_H

#include "host/storage/storage_backend.h"

#include <string>

/**
 * Who may enter what in a pool that is a directory:
 *
 *     <pool>                   root, 0711   the databases' users pass through and list nothing
 *     <pool>/<cluster>         root, 0711
 *     <pool>/<cluster>/xbsa    the cluster's user, 0700: what the XBSA library writes
 *     all else                 root, 0700 and 0600
 *
 * So no database's user reaches what another one's backups are made of, and none can replace a
 * folder with a link. The functions follow no link below the pool's directory. A pool of another
 * kind than a directory is left as it is: success. They may be used on any thread.
 */

/**
 * Makes a cluster's folders for the XBSA library, before it is run as @a user. What an older
 * version left open to a group is closed.
 * @return FAILED when the folder is another user's, with both names; where the file system has no
 *         owners and the user cannot write either. Where the user can, a warning line tells that
 *         the pool's clusters are not separated.
 */
Storage_Result give_xbsa_folder(std::string const& pool_url, std::string const& cluster_id,
                                std::string const& user);

/**
 * Checks that a user may read what a cluster has in a pool, which may be another's: that is up to
 * the administrator.
 * @return FAILED with what to do; success also when nothing is there
 */
Storage_Result check_xbsa_folder_readable(std::string const& pool_url,
                                          std::string const& cluster_id, std::string const& user);

/**
 * Checks that a cluster's user can write to a pool as the XBSA library will, and that the user can
 * pass to it. A file without a name is made in the cluster's folder as that user, or before its
 * first backup in the pool as root, and given to the user. Nothing changes in the pool, but for the
 * times of a folder on a file system that has only files with names.
 * @param pool_path  the pool's directory
 * @return FAILED with what is in the way, such as a directory that the user cannot pass through
 */
Storage_Result check_pool_writable(std::string const& pool_path, std::string const& cluster_id,
                                   std::string const& user);

/**
 * Gives the folders of a pool the owners and modes above, as far as they are known without the
 * clusters' users: an xbsa folder keeps its owner.
 * @param path  the pool's directory, whose owner and mode are set, too
 */
Storage_Result separate_pool(std::string const& path);

/**
 * Why the users of a pool are not separated, and what to do; "" when they are. Makes a
 * file as check_pool_writable() does.
 */
std::string fault_of_separation(std::string const& path);

#endif
