#ifndef QMRT_ENVIRONMENT_H
#define QMRT_ENVIRONMENT_H

#include <string>

/**
 * Reads a variable of this process's environment into @a value.
 * @return true when it is set, also when it is set to ""; false leaves @a value empty.
 * Safe beside other readers; like getenv, not beside a setenv on another thread.
 */
bool get_env_r(char const* name, std::string& value);

/**
 * The LD_LIBRARY_PATH with which this process was started, whatever the process has since made of
 * it: a tool of the database must not load the agent's own libraries. "" when it had none.
 */
std::string original_lib_path();

#endif
