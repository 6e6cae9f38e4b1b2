#ifndef QMRT_PATH_TRUST_H
#define QMRT_PATH_TRUST_H

#include <string>
#include <sys/stat.h>
#include <sys/types.h>

/** Flags of is_trusted_path(). */
enum Path_Trust_Flags : unsigned {
    PATH_MUST_EXIST = 0,
    /** A path of which the end does not exist is trusted if nobody else can create it. */
    PATH_MAY_BE_MISSING = 1
};

/**
 * Tells whether nobody but root and one user can change what a path stands for.
 *
 * The path is resolved part by part from the root directory, symbolic links included. Every
 * directory, link and file on the way must belong to root or to @a user, and no directory or file
 * may be writable by its group or by others. There are no exceptions:
 *
 * - A group is somebody else, even if the user is its only member today: members are added without
 *   a change to the file. An access control list that grants writing shows as writable by the
 * group.
 * - A sticky directory such as /tmp is writable by others: when the user's entry in it is removed,
 *   anybody can create the next one.
 * - Paths in /proc are refused: links there lead to places that their text does not name.
 *
 * Relative paths are refused. What lies below a directory that the path names is not looked at.
 *
 * @param flags   of Path_Trust_Flags
 * @param reason  set on false: which part is at fault, and why; a part of a sentence
 * @param found   if not null, set to the status of what the path stands for; st_nlink is 0 for a
 *                path that does not exist
 * @return false also when the path cannot be looked at. Nothing is logged. Thread-safe.
 */
[[nodiscard]] bool is_trusted_path(std::string const& path, uid_t user, unsigned flags,
                                   std::string& reason, struct stat* found = nullptr);

#endif
