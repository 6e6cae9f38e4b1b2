#include "gaussdb/job/roach_executor.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_env.h"
#include "gaussdb/common/gaussdb_process_options.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_line_handler.h"
#include "host/process/ace_process_ex.h"
#include "host/process/password_file_entry.h"
#include "host/process/process_options.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/path.h"
#include "qmrt/regex.h"

#include <boost/algorithm/string/replace.hpp>

namespace {

constexpr uint64_t MAX_PROFILE_SIZE = 1024 * 1024;

boost::regex const RE_SSH_SOCK("export\\s+SSH_AUTH_SOCK=(.*)");

/** A command line of the tool, put together flag by flag. A flag brings its own blanks and "=". */
class Roach_Command {
public:
    explicit Roach_Command(char const* interpreter) : text_(interpreter) {}

    Roach_Command& add(char const* flag) {
        text_ += flag;
        return *this;
    }
    Roach_Command& add(char const* flag, std::string const& value) {
        text_ += flag;
        text_ += value;
        return *this;
    }
    Roach_Command& add_if(bool present, char const* flag) { return present ? add(flag) : *this; }
    Roach_Command& add_port_if(bool present, char const* flag, uint16_t port) {
        return present ? add(flag, std::to_string(port)) : *this;
    }
    Roach_Command& add_unless_empty(char const* flag, std::string const& value) {
        return value.empty() ? *this : add(flag, value);
    }
    Roach_Command& add_unless_zero(char const* flag, int value) {
        return value == 0 ? *this : add(flag, std::to_string(value));
    }

    char const* c_str() const { return text_.c_str(); }

private:
    std::string text_;
};

std::string text_or_empty(char const* text) {
    return text ? text : "";
}

std::string below(char const* directory, char const* name) {
    return text_or_empty(directory) + "/" + text_or_empty(name);
}

/**
 * The socket of the ssh agent that the user's profile names: the tool logs in to the other nodes.
 * @return false, logged only when the profile cannot be opened, when there is none.
 */
bool get_ssh_auth_sock(char const* user, std::string& sock) {
    std::string const profile = string_sprintf("/home/%s/.profile", user);
    auto const take_socket = [&](std::string_view line) {
        qmrt::svmatch groups;
        if (!qmrt::regex_match(line, groups, RE_SSH_SOCK))
            return true;
        sock.assign(groups[1].first, groups[1].second);
        return false;
    };
    Password_File_Entry entry;
    if (entry.get(user) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to look up the user %s, errno=%d, %m\n", user, errno);
        return false;
    }
    As_File_User const rights(entry.uid()); // what the path leads to is the user's choice
    if (!rights ||
        read_guarded_lines(profile.c_str(), {.max_size = MAX_PROFILE_SIZE}, take_socket) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to open %s, errno=%d, %m\n", profile.c_str(), errno);
        return false;
    }
    if (sock.empty())
        return false;
    boost::replace_all(sock, "~", string_sprintf("/home/%s", user));
    return true;
}

/**
 * Lets the tool start in a directory of the cluster.
 * @param variable  the variable of the cluster's environment that names @a directory
 * @return false, after an error line, for one that is not an absolute path
 */
bool set_directory(ACE_Process_Options& opts, char const* variable, std::string const& directory) {
    if (directory.starts_with('/')) {
        opts.working_directory(directory.c_str());
        return true;
    }
    QMRT_LOG(
        LM_ERROR,
        "Failed to start GaussRoach.py, %s of the cluster is not an absolute path: \"%s\"; set "
        "it in the profile of the cluster's user\n",
        variable, directory.c_str());
    return false;
}

} // namespace

Roach_Executor::Roach_Executor(char const* user, GaussDB_Env const& env, bool use_python3,
                               ACE_Log_Msg_Callback_var log_msg_callback)
    : user_(user),
      env_(env),
      use_python3_(use_python3),
      source_cmd_(SOURCE_ALL_PROFILES),
      ssh_opts_(DEFAULT_SSH_OPTS),
      log_msg_callback_(std::move(log_msg_callback)) {}

void Roach_Executor::source_cmd(char const* cmd) {
    if (cmd && *cmd)
        source_cmd_ = cmd;
}

void Roach_Executor::ssh_opts(char const* opts) {
    if (opts && *opts)
        ssh_opts_ = opts;
}

bool Roach_Executor::backup_200(char const* media_destination, char const* meta_path,
                                std::string const& prior_backup_key, std::string& backup_key,
                                Roach_Progress_Handler* handler, int channels, int max_memory_usage,
                                int buffer_size, int buffer_block_size) {
    uint16_t const port = random_port();
    Roach_Command const cmd =
        Roach_Command(python())
            .add(" GaussRoach.py -t backup --master-port=", std::to_string(port))
            .add(" --media-type NBU --media-destination ", text_or_empty(media_destination))
            .add(" --metadata-destination ", text_or_empty(meta_path))
            .add(" --compression-type=0")
            .add_unless_empty(" --prior-backup-key=", prior_backup_key)
            .add_unless_zero(" --parallel-process=", channels)
            .add_unless_zero(" --max-memory-usage=", max_memory_usage)
            .add_unless_zero(" --buffer-size=", buffer_size)
            .add_unless_zero(" --buffer-block-size=", buffer_block_size);
    return execute_200(cmd.c_str(), handler, &backup_key);
}

bool Roach_Executor::backup_100(char const* media_destination, char const* media_path,
                                std::string& meta_path, std::string const& prior_backup_key,
                                std::string& backup_key, bool is_single, int channels) {
    uint16_t const port = random_port();
    if (!prior_backup_key.empty())
        meta_path = (qmrt::Path(meta_path) / "roach" / prior_backup_key).str();
    std::string const media = below(media_path, media_destination);
    Roach_Command const cmd = Roach_Command(python())
                                  .add(" GaussRoach.py -t backup")
                                  .add(" --media-type NBU")
                                  .add(" --media-destination ", media)
                                  .add(" --nbu-policy ", media)
                                  .add(" --mode ", is_single ? "single" : "cluster")
                                  .add_unless_empty(" --prior-backup-key ", prior_backup_key)
                                  .add(" --metadata-destination ", meta_path)
                                  .add_port_if(!is_single, " --master-port ", port)
                                  .add_unless_zero(" --parallel-process ", channels);
    return execute_100(cmd.c_str(), nullptr, &backup_key);
}

bool Roach_Executor::restore_200(char const* media_destination, char const* meta_path,
                                 std::string const& backup_key, Roach_Progress_Handler* handler,
                                 bool new_cluster, int channels, int max_memory_usage,
                                 int buffer_size, int buffer_block_size) {
    uint16_t const port = random_port();
    Roach_Command const cmd =
        Roach_Command(python())
            .add(" GaussRoach.py -t restore --master-port=", std::to_string(port))
            .add(" --media-type NBU --media-destination ", text_or_empty(media_destination))
            .add(" --metadata-destination ", text_or_empty(meta_path))
            .add(" --clean --backup-key ", backup_key)
            .add_if(new_cluster, " --restore-new-cluster --restore-configs")
            .add_unless_zero(" --parallel-process=", channels)
            .add_unless_zero(" --max-memory-usage=", max_memory_usage)
            .add_unless_zero(" --buffer-size=", buffer_size)
            .add_unless_zero(" --buffer-block-size=", buffer_block_size);
    return execute_200(cmd.c_str(), handler, nullptr);
}

bool Roach_Executor::restore_100(char const* media_destination, char const* media_path,
                                 bool new_cluster, std::string const& meta_path,
                                 std::string const& backup_key, bool is_single, int channels) {
    uint16_t const port = random_port();
    std::string const media = below(media_path, media_destination);
    Roach_Command const cmd =
        Roach_Command(python())
            .add(" GaussRoach.py -t restore")
            .add(" --media-type NBU")
            .add(" --clean")
            .add(" --media-destination ", media)
            .add(" --nbu-policy ", media)
            .add(" --metadata-destination ", meta_path + "/roach/" + backup_key)
            .add(" --backup-key ", backup_key)
            .add(" --mode ", is_single ? "single" : "cluster")
            .add_if(new_cluster, " --restore-new-cluster")
            .add_port_if(!is_single, " --master-port ", port)
            .add_unless_zero(" --parallel-process ", channels);
    return execute_100(cmd.c_str(), nullptr, nullptr);
}

bool Roach_Executor::start(GAUSSDB_VERSION const& version, char const* new_config) {
    bool const is_200 = version == GAUSSDB_200;
    bool const is_new = new_config && *new_config;
    Roach_Command cmd(python());
    cmd.add(" GaussRoach.py -t start");
    if (is_new)
        cmd.add(" --restore-new-cluster");
    if (is_new && is_200)
        cmd.add(" -X ", new_config);
    if (!is_new && !is_200)
        cmd.add(" --media-type NBU");
    return is_200 ? execute_200(cmd.c_str(), nullptr, nullptr)
                  : execute_100(cmd.c_str(), nullptr, nullptr);
}

bool Roach_Executor::stop() {
    return execute_200(string_sprintf("%s GaussRoach.py -t stop", python()).c_str(), nullptr,
                       nullptr);
}

bool Roach_Executor::execute_200(char const* cmd, Roach_Progress_Handler* handler,
                                 std::string* backup_key) {
    GaussDB_Process_Options opts;
    std::string sock;
    if (!set_local_options(opts, env_, user_) || !get_ssh_auth_sock(user_, sock))
        return false;
    std::string const gp_home = env_.gp_home();
    if (!set_directory(opts, "GPHOME", gp_home.empty() ? gp_home : gp_home + "/script") ||
        !set_process_env(opts, "SSH_AUTH_SOCK", sock.c_str()) || !set_command_line(opts, "%s", cmd))
        return false;
    QMRT_LOG(LM_DEBUG, "%s\n", cmd);
    return run(opts, handler, backup_key);
}

bool Roach_Executor::execute_100(char const* cmd, Roach_Progress_Handler* handler,
                                 std::string* backup_key) {
    GaussDB_Process_Options opts;
    if (!set_local_options(opts, env_, user_))
        return false;
    if (!set_directory(opts, "ROACH_HOME", env_.roach_home()) || !set_command_line(opts, "%s", cmd))
        return false;
    QMRT_LOG(LM_DEBUG, "%s\n", cmd);
    return run(opts, handler, backup_key);
}

bool Roach_Executor::execute_non_intrusive_cmd(char const* address, char const* cmd,
                                               Roach_Progress_Handler* handler,
                                               std::string* backup_key) {
    if (QMRT_IS_NULL_OR_EMPTY(address) || QMRT_IS_NULL_OR_EMPTY(cmd))
        return false;
    if (!check_address(address))
        return false;
    GaussDB_Process_Options opts;
    set_process_options(opts);
    if (!set_command_line(opts, "ssh %s %s '%s%s'", ssh_opts_.c_str(), address, source_cmd_.c_str(),
                          cmd))
        return false;
    QMRT_LOG(LM_DEBUG, "%s%s\n", source_cmd_.c_str(), cmd);
    return run(opts, handler, backup_key);
}

bool Roach_Executor::run(ACE_Process_Options& opts, Roach_Progress_Handler* handler,
                         std::string* backup_key) {
    ACE_Process_Ex proc(ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR,
                        "GaussRoach.py", log_msg_callback_);
    Roach_Line_Handler line_handler(backup_key, handler);
    return line_handler.call(&proc, opts) == 0;
}
