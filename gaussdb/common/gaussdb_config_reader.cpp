#include "gaussdb/common/gaussdb_config_reader.h"

#include "gaussdb/common/gaussdb_env.h"
#include "gaussdb/common/gaussdb_process_options.h"
#include "host/process/command_line.h"
#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "qmrt/check.h"
#include "qmrt/file.h"

namespace {

/**
 * The paths stand bare in the command line. One that is torn there would give the script, which
 * runs with the agent's rights, options that nobody meant.
 */
bool is_one_word(char const* text) {
    std::vector<std::string> words;
    std::string error;
    if (split_command_line(text, words, error) && words.size() == 1)
        return true;
    QMRT_LOG(LM_ERROR, "'%s' is not one word of a command line, nothing is run\n", text);
    return false;
}

bool run_probe(GaussDB_Env const& env, char const* os_user, char const* xml, char const* conf_path,
               bool use_python3) {
    char const* const gp_home = env.gp_home();
    if (!is_one_word(gp_home) || !is_one_word(os_user) || !is_one_word(conf_path) ||
        !is_one_word(xml))
        return false;
    GaussDB_Process_Options opts;
    return set_local_options(opts, env) &&
           set_command_line(
               opts,
               "%s /opt/quilmot/zenbrak3/bin/probe_gaussdb_config -u %s -c %s -o %s -p %s/script",
               use_python3 ? "python3" : "python", os_user, conf_path, xml, gp_home) &&
           subprocess::call(opts) == 0;
}

} // namespace

bool generate_gaussdb_config(GaussDB_Env const& env, char const* os_user, char const* xml,
                             char const* conf_path, bool use_python3) {
    if (QMRT_IS_NULL_OR_EMPTY(xml))
        return false;
    if (rm_rf(xml) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to remove %s, errno=%d, %m\n", xml, errno);
        return false;
    }
    char const* const gp_home = env.gp_home();
    if (QMRT_IS_NULL_OR_EMPTY(gp_home) || QMRT_IS_NULL_OR_EMPTY(os_user) ||
        QMRT_IS_NULL_OR_EMPTY(conf_path))
        return false;
    if (!run_probe(env, os_user, xml, conf_path, use_python3)) {
        QMRT_LOG(LM_ERROR, "Failed to generate GaussDB xml config\n");
        return false;
    }
    if (chown_r(xml, os_user) == -1)
        QMRT_LOG(LM_WARNING, "Failed to give %s to %s, errno=%d, %m\n", xml, os_user, errno);
    return true;
}
