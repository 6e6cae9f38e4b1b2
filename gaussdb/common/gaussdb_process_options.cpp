#include "gaussdb/common/gaussdb_process_options.h"

#include "gaussdb/common/gaussdb_env.h"
#include "host/process/process_options.h"

bool set_local_options(ACE_Process_Options& opts, GaussDB_Env const& env) {
    opts.handle_inheritance(0);
    // an empty entry in a list of directories means this one: not where the agent was started
    opts.working_directory("/");
    return env.set_opts(opts) && set_process_env(opts, "LC_ALL", "C");
}

bool set_local_options(ACE_Process_Options& opts, GaussDB_Env const& env, char const* user) {
    return set_local_options(opts, env) && set_process_user(opts, user);
}

void set_process_options(ACE_Process_Options& opts) {
    opts.handle_inheritance(0);
    // a variable that finds no room leaves options that no start takes
    (void)set_process_env(opts, "LC_ALL", "C");
    (void)set_process_env(opts, "LD_LIBRARY_PATH", "");
}
