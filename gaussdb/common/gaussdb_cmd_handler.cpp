#include "gaussdb/common/gaussdb_cmd_handler.h"

#include "gaussdb/common/gaussdb_env.h"
#include "host/process/command_line.h"
#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "qmrt/check.h"
#include "qmrt/natoi.h"
#include "qmrt/regex.h"

namespace {

boost::regex const RE_CLUSTER_STATE("cluster_state\\s+:\\s+(.*)");
boost::regex const RE_BALANCED("balanced\\s+:\\s+(.*)");
boost::regex const RE_GAUSSDB_100("gs_check\\s+GaussDB_100_(\\d+)\\.(\\d+)\\.(\\d+)");
boost::regex const RE_GAUSSDB_200("gs_check\\s+\\(GaussDB\\s+Kernel\\s+V\\d+R\\d+C\\d+\\s+");
boost::regex const RE_GAUSSDB_DWS("gs_check\\s+\\(GaussDB\\s+(\\d+)\\.(\\d+)\\.(\\d+)\\s+build");
boost::regex const
    RE_GAUSSDB_FOR_OPENGAUSS("gs_check\\s+\\(GaussDB\\s+Kernel.*?(\\d+)\\.(\\d+)\\.(\\d+).*");
boost::regex const RE_PORT("port='?(\\d+)'?");
boost::regex const RE_NODE_COUNT("nodeCount:(\\d+)");

constexpr unsigned int REDIRECT_OUTPUT =
    ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR;

// of a line that names the version; the cost of its last pattern grows with the square of this
constexpr size_t MAX_VERSION_LINE = 16 * 1024;

constexpr char GAUSSDB_T_PREFIX[] = "GaussDB_T_";

/** What there is in a line for a handler; empty for a null line. */
std::string_view line_view(char const* line, size_t length) {
    return line ? std::string_view(line, length) : std::string_view();
}

std::string_view group(qmrt::svmatch const& groups, int index) {
    return {groups[index].first, groups[index].second};
}

void set_numbers(GaussDB_Version& version, qmrt::svmatch const& groups) {
    version.major_ = natoi<uint32_t>(group(groups, 1));
    version.minor_ = natoi<uint32_t>(group(groups, 2));
    version.patch_ = natoi<uint32_t>(group(groups, 3));
}

/** The order counts: the last pattern takes lines of the second, too. */
void recognise_version(std::string_view line, GaussDB_Version& version) {
    qmrt::svmatch groups;
    if (qmrt::regex_search(line, groups, RE_GAUSSDB_100)) {
        version.model_ = GAUSSDB_100;
        set_numbers(version, groups);
        QMRT_LOG(LM_DEBUG, "Detected GaussDB 100\n");
    } else if (qmrt::regex_search(line, groups, RE_GAUSSDB_200)) {
        version.model_ = GAUSSDB_200;
        version.major_ = 6;
        QMRT_LOG(LM_DEBUG, "Detected GaussDB 200\n");
    } else if (qmrt::regex_search(line, groups, RE_GAUSSDB_DWS)) {
        // the 200 series' form A; whether it is a data warehouse is decided where it is declared
        version.model_ = GAUSSDB_200;
        set_numbers(version, groups);
        QMRT_LOG(LM_DEBUG, "Detected GaussDB A\n");
    } else if (qmrt::regex_search(line, groups, RE_GAUSSDB_FOR_OPENGAUSS)) {
        version.model_ = GAUSSDB_FOR_OPENGAUSS;
        set_numbers(version, groups);
    } else {
        QMRT_LOG(LM_ERROR, "Unrecognized GaussDB version\n");
    }
}

char const* text_or(char const* text, char const* otherwise) {
    return text && *text ? text : otherwise;
}

/** Options of a tool on this host with its command line; a false runs nothing. */
bool set_local_command(ACE_Process_Options& opts, char const* user, GaussDB_Env const& env,
                       char const* command) {
    return set_local_options(opts, env, user) && set_command_line(opts, "%s", command);
}

/** Runs a prepared ssh or scp; -1 also for a command line that was too long. */
int run_remote(Text_Process_Handler& handler, char const* command) {
    GaussDB_Process_Options opts;
    set_process_options(opts);
    return set_command_line(opts, "%s", command) ? handler.call(REDIRECT_OUTPUT, opts) : -1;
}

/** Runs a tool of the database on a node, in the environment that @a source_cmd brings. */
int run_on_node(Text_Process_Handler& handler, char const* address, char const* ssh_opts,
                char const* source_cmd, char const* tool) {
    if (!check_address(address))
        return -1;
    GaussDB_Process_Options opts;
    set_process_options(opts);
    if (!set_command_line(opts, "ssh %s %s '%s%s'", text_or(ssh_opts, DEFAULT_SSH_OPTS), address,
                          source_cmd, tool))
        return -1;
    return handler.call(REDIRECT_OUTPUT, opts);
}

} // namespace

bool check_address(std::string const& address) {
    std::vector<std::string> words;
    std::string error;
    if (address.compare(0, 1, "-") != 0 && split_command_line(address, words, error) &&
        words.size() == 1 && words.front() == address)
        return true;
    QMRT_LOG(LM_ERROR, "Invalid address '%s', nothing is run\n", address.c_str());
    return false;
}

GS_OM_Line_Handler::GS_OM_Line_Handler(std::string& status, bool& balanced)
    : Text_Process_Handler(TPHF_LOG_CMD), status_(status), balanced_(balanced) {}

int GS_OM_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    std::string_view const text = line_view(line, length);
    qmrt::svmatch groups;
    if (text.empty())
        return 0;
    if (qmrt::regex_search(text, groups, RE_CLUSTER_STATE)) {
        status_ = group(groups, 1);
    } else if (qmrt::regex_search(text, groups, RE_BALANCED)) {
        // "Yes" from most releases, "true" from GaussDB T's
        std::string_view const value = group(groups, 1);
        balanced_ = value.starts_with("Yes") || value.starts_with("true");
    }
    return 0;
}

GS_CHECK_Line_Handler::GS_CHECK_Line_Handler(GaussDB_Version& version)
    : Text_Process_Handler(TPHF_LOG_CMD), version_(version) {}

int GS_CHECK_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    std::string_view const text = line_view(line, length);
    if (text.empty())
        return 0;
    recognise_version(text.substr(0, MAX_VERSION_LINE), version_);
    return Text_Process_Handler::handle_stdout_line(line, length);
}

Normal_Line_Handler::Normal_Line_Handler(std::string& result)
    : Text_Process_Handler(TPHF_LOG_CMD), result_(result) {}

int Normal_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    std::string_view const text = line_view(line, length);
    if (!text.empty())
        result_ = text;
    return 0;
}

GS_GUC_Line_Handler::GS_GUC_Line_Handler(uint16_t& port)
    : Text_Process_Handler(TPHF_LOG_CMD), port_(port) {}

int GS_GUC_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    qmrt::svmatch groups;
    if (port_ != 0 || !qmrt::regex_search(line_view(line, length), groups, RE_PORT))
        return 0;
    port_ = natoi<uint16_t>(group(groups, 1));
    if (errno == ERANGE)
        port_ = 0;
    return 0;
}

Node_Count_Line_Handler::Node_Count_Line_Handler(int32_t& node_count)
    : Text_Process_Handler(TPHF_LOG_CMD), node_count_(node_count) {}

int Node_Count_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    qmrt::svmatch groups;
    if (node_count_ != 0 || !qmrt::regex_match(line_view(line, length), groups, RE_NODE_COUNT))
        return 0;
    node_count_ = natoi<int32_t>(group(groups, 1));
    if (errno == ERANGE)
        node_count_ = 0;
    return 0;
}

bool get_cluster_status(char const* user, GaussDB_Env const& env, std::string& status,
                        bool& balanced) {
    GaussDB_Process_Options opts;
    if (!set_local_command(opts, user, env, "gs_om -t status"))
        return false;
    GS_OM_Line_Handler(status, balanced).call(REDIRECT_OUTPUT, opts);
    return !status.empty();
}

bool get_cluster_version(char const* user, GaussDB_Env const& env, GaussDB_Version& version) {
    GaussDB_Process_Options opts;
    if (!set_local_command(opts, user, env, "gs_check -V"))
        return false;
    GS_CHECK_Line_Handler(version).call(REDIRECT_OUTPUT, opts);
    return version.model_ != GAUSSDB_UNKNOWN;
}

bool is_gaussdb_t(char const* user, GaussDB_Env const& env, std::string* version) {
    if (QMRT_IS_NULL_OR_EMPTY(user))
        return false;
    GaussDB_Process_Options opts;
    std::string const command = std::string(env.get_value("GSDB_HOME")) + "/bin/zengine -v";
    if (!set_local_command(opts, user, env, command.c_str()))
        return false;
    std::string output;
    if (subprocess::spawn_output(opts, output, true) != 0) {
        QMRT_LOG(LM_ERROR, "Failed to execute command '%s': %s", command.c_str(), output.c_str());
        return false;
    }
    if (output.find(GAUSSDB_T_PREFIX) == std::string::npos)
        return false;
    if (version)
        *version = output.substr(0, output.find(' '));
    return true;
}

bool execute_scp_command(std::string const& address, std::string const& ssh_opts,
                         std::string const& source, std::string const& dest) {
    if (!check_address(address))
        return false;
    if (source.compare(0, 1, "-") == 0) {
        QMRT_LOG(LM_ERROR, "Invalid file to copy '%s', nothing is run\n", source.c_str());
        return false;
    }
    std::string ignored;
    Normal_Line_Handler handler(ignored);
    std::string const command = "scp " + ssh_opts + " " + source + " " + address + ":" + dest;
    return run_remote(handler, command.c_str()) == 0;
}

bool execute_ssh_command(std::string const& address, std::string const& ssh_opts,
                         std::string const& command, std::string& result) {
    result.clear();
    if (!check_address(address))
        return false;
    Normal_Line_Handler handler(result);
    std::string const line = "ssh " + ssh_opts + " " + address + " '" + command + "'";
    return run_remote(handler, line.c_str()) == 0;
}

bool get_roach_agent_user(std::string const& address, std::string const& ssh_opts,
                          std::string& user) {
    return execute_ssh_command(address, ssh_opts, "whoami", user);
}

uint16_t non_intrusive_get_port(char const* cmd) {
    if (QMRT_IS_NULL_OR_EMPTY(cmd))
        return 0;
    uint16_t port = 0;
    GS_GUC_Line_Handler handler(port);
    run_remote(handler, cmd);
    return port;
}

bool non_intrusive_get_cluster_status(char const* cmd, std::string& status, bool& balanced) {
    if (QMRT_IS_NULL_OR_EMPTY(cmd))
        return false;
    status.clear();
    balanced = false;
    GS_OM_Line_Handler handler(status, balanced);
    run_remote(handler, cmd);
    return !status.empty();
}

bool non_intrusive_get_node_count(char const* address, int& node_count, char const* source_cmd,
                                  char const* ssh_opts) {
    if (QMRT_IS_NULL_OR_EMPTY(address))
        return false;
    Node_Count_Line_Handler handler(node_count);
    return run_on_node(handler, address, ssh_opts, text_or(source_cmd, SOURCE_GAUSS_ENV_FILE),
                       "cm_ctl view -N") == 0;
}

bool non_intrusive_get_cluster_version(char const* address, GaussDB_Version& version,
                                       char const* source_cmd, char const* ssh_opts) {
    if (QMRT_IS_NULL_OR_EMPTY(address))
        return false;
    GS_CHECK_Line_Handler handler(version);
    run_on_node(handler, address, ssh_opts, text_or(source_cmd, SOURCE_ALL_PROFILES),
                "gs_check -V");
    return version.model_ != GAUSSDB_UNKNOWN;
}
