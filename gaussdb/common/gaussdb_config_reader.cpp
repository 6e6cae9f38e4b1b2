#include "gaussdb/common/gaussdb_config_reader.h"

#include "gaussdb/common/gaussdb_env.h"
#include "gaussdb/common/gaussdb_process_options.h"
#include "host/process/command_line.h"
#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "qmrt/check.h"
#include "qmrt/file.h"

#include <cerrno>
#include <unistd.h>

namespace {

// an XML file of a thousand nodes has less than a MiB
constexpr size_t MAX_XML_SIZE = 16 * 1024 * 1024;

/**
 * The paths stand bare in the command line. One that is torn there would give the script options
 * that nobody meant.
 */
bool is_one_word(char const* text) {
    std::vector<std::string> words;
    std::string error;
    if (split_command_line(text, words, error) && words.size() == 1)
        return true;
    QMRT_LOG(LM_ERROR, "'%s' is not one word of a command line, nothing is run\n", text);
    return false;
}

/** By fixed paths: what a PATH leads to is decided by the profile that names it. */
char const* interpreter(bool use_python3) {
    if (!use_python3)
        for (char const* path : {"/usr/bin/python", "/usr/bin/python2"})
            if (access(path, X_OK) == 0)
                return path;
    return "/usr/bin/python3";
}

/** Runs the script as the cluster's user and takes the XML from its stdout. */
bool run_probe(GaussDB_Env const& env, char const* os_user, char const* conf_path, bool use_python3,
               std::string& xml) {
    char const* const gp_home = env.gp_home();
    if (!is_one_word(gp_home) || !is_one_word(os_user) || !is_one_word(conf_path))
        return false;
    GaussDB_Process_Options opts;
    if (!set_local_options(opts, env, os_user) ||
        !set_command_line(
            opts, "%s /opt/quilmot/zenbrak3/bin/probe_gaussdb_config -u %s -c %s -o - -p %s/script",
            interpreter(use_python3), os_user, conf_path, gp_home) ||
        subprocess::spawn_output(opts, xml, false) != 0)
        return false;
    if (!xml.empty() && xml.size() <= MAX_XML_SIZE)
        return true;
    QMRT_LOG(LM_ERROR, "The script gave %Q bytes of XML for %s, expected 1 to %Q\n",
             static_cast<uint64_t>(xml.size()), conf_path, static_cast<uint64_t>(MAX_XML_SIZE));
    return false;
}

/** Writes the XML as the agent, so that the script needs no right on the directory. */
bool write_xml(char const* path, std::string const& content) {
    if (write_file_atomically(path, content, 0600) == 0)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to write %s, errno=%d, %m\n", path, errno);
    return false;
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
    std::string content;
    if (!run_probe(env, os_user, conf_path, use_python3, content) || !write_xml(xml, content)) {
        QMRT_LOG(LM_ERROR, "Failed to generate GaussDB xml config\n");
        return false;
    }
    if (chown_r(xml, os_user) == -1)
        QMRT_LOG(LM_WARNING, "Failed to give %s to %s, errno=%d, %m\n", xml, os_user, errno);
    return true;
}
