#ifndef GAUSSDB_COMMON_GAUSSDB_CMD_HANDLER_H
#define GAUSSDB_COMMON_GAUSSDB_CMD_HANDLER_H

#include "gaussdb/common/gaussdb_const.h"
#include "gaussdb/common/gaussdb_process_options.h"
#include "host/process/text_process_handler.h"

#include <cstdint>
#include <string>

class GaussDB_Env;

/**
 * The administrative commands of the database, here or through ssh on a node, and what their
 * output means. All that the module assumes about the text of these tools is in this file's source.
 *
 * Every function runs one command to its end on the calling thread, without a time limit, and may
 * be used on any thread. Command lines are logged at LM_DEBUG. A command that is not started, exits
 * with another status than 0 or is ended by a signal is logged by the process layer, with the last
 * lines of its stderr; what the result of the function depends on is said with each.
 */

/** What ssh gets when a caller has no options of its own. */
inline constexpr char DEFAULT_SSH_OPTS[] = "-o ConnectTimeout=4";

/**
 * Brings a remote shell into the database's environment, up to the place where the tool's name
 * follows: by the openGauss flavour's file, by the machine's and the data warehouse's profile, or
 * by both.
 */
inline constexpr char SOURCE_GAUSS_ENV_FILE[] =
    "test -f ~/gauss_env_file && source ~/gauss_env_file; ";
inline constexpr char SOURCE_DWS_PROFILE[] =
    "source /etc/profile; test -f $BIGDATA_HOME/mppdb/.mppdbgs_profile && source "
    "$BIGDATA_HOME/mppdb/.mppdbgs_profile; ";
inline constexpr char SOURCE_ALL_PROFILES[] =
    "test -f ~/gauss_env_file && source ~/gauss_env_file; source /etc/profile; "
    "test -f $BIGDATA_HOME/mppdb/.mppdbgs_profile && source $BIGDATA_HOME/mppdb/.mppdbgs_profile; ";

/**
 * True for a text that can stand bare on a command line where a host belongs. One that is empty,
 * begins with "-" or has blanks, quotes or backslashes would bring in options of its own: false,
 * after the error line "Invalid address '%s', nothing is run\n".
 */
[[nodiscard]] bool check_address(std::string const& address);

/**
 * Reads "gs_om -t status", "gs_om -t query" and "cm_ctl query". The state is the rest of its line
 * as it stands, with trailing blanks. Neither target is touched when its line does not come; a
 * later line replaces an earlier one.
 */
class GS_OM_Line_Handler : public Text_Process_Handler {
public:
    GS_OM_Line_Handler(std::string& status, bool& balanced);
    int handle_stdout_line(char const* line, size_t length) override;

private:
    std::string& status_;
    bool& balanced_;
};

/**
 * Reads "gs_check -V". A line that names no known product costs the error line "Unrecognized
 * GaussDB version\n" and changes nothing. A data warehouse is read as GAUSSDB_200: its tools print
 * the same text. The older form of the 200 series gets major_ 6; its other numbers stay.
 */
class GS_CHECK_Line_Handler : public Text_Process_Handler {
public:
    explicit GS_CHECK_Line_Handler(GaussDB_Version& version);
    int handle_stdout_line(char const* line, size_t length) override;

private:
    GaussDB_Version& version_;
};

/** Keeps the last line that is not empty: what a login prints before it is passed over. */
class Normal_Line_Handler : public Text_Process_Handler {
public:
    explicit Normal_Line_Handler(std::string& result);
    int handle_stdout_line(char const* line, size_t length) override;

private:
    std::string& result_;
};

/** Reads the port of "gs_guc check -c port": the first one that a 16-bit number can hold. */
class GS_GUC_Line_Handler : public Text_Process_Handler {
public:
    explicit GS_GUC_Line_Handler(uint16_t& port);
    int handle_stdout_line(char const* line, size_t length) override;

private:
    uint16_t& port_;
};

/** Reads the count of nodes of "cm_ctl view -N": the first one that is not 0. */
class Node_Count_Line_Handler : public Text_Process_Handler {
public:
    explicit Node_Count_Line_Handler(int32_t& node_count);
    int handle_stdout_line(char const* line, size_t length) override;

private:
    int32_t& node_count_;
};

/**
 * Asks the local cluster for its state by "gs_om -t status", as the operating-system user @a user.
 * @param status    the state as the tool writes it; left alone when the tool does not tell it
 * @param balanced  left alone in the same way: some releases do not print it
 * @return true when @a status is not empty, whatever the exit status; callers start with "". False
 *         also, with nothing run, for a user that is null, "" or unknown.
 */
[[nodiscard]] bool get_cluster_status(char const* user, GaussDB_Env const& env, std::string& status,
                                      bool& balanced);

/**
 * Asks the local cluster for its version by "gs_check -V", as @a user.
 * @return true when the flavour of @a version is known, whatever the exit status; callers start
 *         with GAUSSDB_UNKNOWN. False also, with nothing run, for a user as above.
 */
[[nodiscard]] bool get_cluster_version(char const* user, GaussDB_Env const& env,
                                       GaussDB_Version& version);

/**
 * Asks the server program below GSDB_HOME whether it is a GaussDB T, as @a user.
 * @param version  when not null, gets the first word of the answer, "GaussDB_T_1.0.2.B303"; all of
 *                 it when it has no blank. Left alone on false.
 * @return false also when the program fails, which is logged with its output at LM_ERROR.
 */
[[nodiscard]] bool is_gaussdb_t(char const* user, GaussDB_Env const& env, std::string* version);

/**
 * Copies the local file @a source to @a dest on the host @a address by scp.
 * @param ssh_opts  options for scp as they stand on its command line; may be ""
 * @return true when scp ended with 0. False, with nothing run, also for an address that
 *         check_address() refuses and for a source that begins with "-".
 */
[[nodiscard]] bool execute_scp_command(std::string const& address, std::string const& ssh_opts,
                                       std::string const& source, std::string const& dest);

/**
 * Runs a command on the host @a address by ssh.
 * @param command  for the remote shell. It stands between single quotes on the local command line,
 *                 which nothing escapes: a single quote in it ends and begins the quoting.
 * @param result   the last line of the output that is not empty; "" when there is none
 * @return true when ssh, and so the command, ended with 0. False, with nothing run, also for an
 *         address that check_address() refuses.
 */
[[nodiscard]] bool execute_ssh_command(std::string const& address, std::string const& ssh_opts,
                                       std::string const& command, std::string& result);

/** Asks a host which user a login there is, by "whoami" as execute_ssh_command() runs it. */
[[nodiscard]] bool get_roach_agent_user(std::string const& address, std::string const& ssh_opts,
                                        std::string& user);

/**
 * Runs @a cmd, a whole command line that asks "gs_guc check" for the port, and returns the port; 0
 * when it was not told. A null or "" command is logged at LM_EMERGENCY.
 */
uint16_t non_intrusive_get_port(char const* cmd);

/**
 * Runs @a cmd, a whole command line that asks for the cluster's state.
 * @param status    "" when the tool does not tell it
 * @param balanced  false when the tool does not tell it
 * @return true when @a status is not empty. A null or "" command is logged at LM_EMERGENCY, and
 *         nothing is changed then.
 */
[[nodiscard]] bool non_intrusive_get_cluster_status(char const* cmd, std::string& status,
                                                    bool& balanced);

/**
 * Asks a node for the number of nodes of its cluster, by "cm_ctl view -N".
 * @param node_count  left alone when the tool does not tell it; callers start with 0
 * @param source_cmd  as SOURCE_GAUSS_ENV_FILE, which stands for null and ""
 * @param ssh_opts    null and "" stand for DEFAULT_SSH_OPTS
 * @return true when the command ended with 0. A null or "" address is logged at LM_EMERGENCY.
 */
[[nodiscard]] bool non_intrusive_get_node_count(char const* address, int& node_count,
                                                char const* source_cmd, char const* ssh_opts);

/**
 * Asks a node for the version of its cluster, by "gs_check -V".
 * @param source_cmd  as SOURCE_ALL_PROFILES, which stands for null and ""
 * @param ssh_opts    null and "" stand for DEFAULT_SSH_OPTS
 * @return true when the flavour of @a version is known, whatever the exit status; callers start
 *         with GAUSSDB_UNKNOWN. A null or "" address is logged at LM_EMERGENCY.
 */
[[nodiscard]] bool non_intrusive_get_cluster_version(char const* address, GaussDB_Version& version,
                                                     char const* source_cmd, char const* ssh_opts);

#endif
