#ifndef GAUSSDB_COMMON_GAUSSDB_PROCESS_OPTIONS_H
#define GAUSSDB_COMMON_GAUSSDB_PROCESS_OPTIONS_H

#include <ace/Process.h>

class GaussDB_Env;

/**
 * Options of a child as every tool of the database gets them: the agent's environment inherited,
 * and room for a command line of 1022 bytes, 128 arguments, 512 variables and 16 KiB of their text.
 * Set them up with one of the functions below, then add the command line.
 */
class GaussDB_Process_Options : public ACE_Process_Options {
public:
    GaussDB_Process_Options() : ACE_Process_Options(true, 1024, 16384, 512, 128) {}
};

/**
 * For a tool on this host: the variables of @a env, LC_ALL=C, no descriptor but the standard ones,
 * the working directory "/", and the identity of @a user.
 * @return false, after an error line, when the user is null, "" or unknown, or a variable does not
 *         fit; no start takes the options then. Nor does one when the user is root, since @a env is
 *         what another user's profile says.
 */
[[nodiscard]] bool set_local_options(ACE_Process_Options& opts, GaussDB_Env const& env,
                                     char const* user);
/** The same with the agent's own identity, which must not be root. */
[[nodiscard]] bool set_local_options(ACE_Process_Options& opts, GaussDB_Env const& env);

/**
 * For ssh and scp: LC_ALL=C, an empty LD_LIBRARY_PATH, since the system's tools must not load the
 * agent's or the database's libraries, and no descriptor but the standard ones. Runs as the agent.
 */
void set_process_options(ACE_Process_Options& opts);

#endif
