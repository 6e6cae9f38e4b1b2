#ifndef GAUSSDB_COMMON_GAUSSDB_OWNERSHIP_H
#define GAUSSDB_COMMON_GAUSSDB_OWNERSHIP_H

#include <string>
#include <sys/types.h>

class GaussDB_Env;
struct Process_View;

/**
 * Whether all that a cluster leads to belongs to its user: a process of the database, its profile,
 * and the tools that the profile leads to. What belongs to root counts as the user's own. See
 * is_trusted_path() for what that means for one path.
 *
 * All return false with a reason, a part of a sentence, and log nothing. Thread-safe.
 */

/**
 * The process: it has one user, not root, who owns its executable and its data directory (the
 * operand of "-D", else PGDATA or GAUSSDATA of its environment, when there is one). Its title
 * proves nothing.
 */
[[nodiscard]] bool owns_process(Process_View const& process, std::string& reason);

/** The profile. One that does not exist is accepted: reading it fails, and tells so. */
[[nodiscard]] bool owns_profile(std::string const& profile, uid_t user, std::string& reason);

/**
 * The tools: every directory of PATH, LD_LIBRARY_PATH and PYTHONPATH, each of the database's tools
 * in the directories of PATH, and the directories of the installation. Those that do not exist are
 * accepted unless another user could create them. The installation's directories have to be
 * absolute paths without quotes, since no shell reads them.
 */
[[nodiscard]] bool owns_tools(GaussDB_Env const& env, uid_t user, std::string& reason);

#endif
