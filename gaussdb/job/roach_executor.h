#ifndef GAUSSDB_JOB_ROACH_EXECUTOR_H
#define GAUSSDB_JOB_ROACH_EXECUTOR_H

#include "gaussdb/common/gaussdb_const.h"

#include <memory>
#include <string>

class ACE_Log_Msg_Callback;
class ACE_Process_Options;
class GaussDB_Env;
class Roach_Progress_Handler;

using ACE_Log_Msg_Callback_var = std::shared_ptr<ACE_Log_Msg_Callback>;

/**
 * Runs the database's own backup tool, GaussRoach.py: on this host as the cluster's user, or on
 * another one by ssh. The tool's command lines differ between the series; each operation says which
 * it is for.
 *
 * On this host the tool starts in a directory of the cluster: below GPHOME for the 200 series, in
 * ROACH_HOME for the 100 series. When that is not an absolute path, nothing is run.
 *
 * All operations wait for the tool's end and return whether it exited with 0. A failure is logged,
 * and nothing is tried again. The object keeps nothing of a run, so several threads may each have
 * one of their own.
 *
 * `channels`, `max_memory_usage`, `buffer_size` and `buffer_block_size` are left to the tool when
 * they are 0. A backup's key is what the tool prints; a successful run that printed none leaves it
 * as it was. `handler` may be null.
 */
class Roach_Executor {
public:
    /**
     * @param user         the operating-system user to run as; must outlive this object
     * @param env          the cluster's environment; must outlive this object
     * @param use_python3  run the tool by "python3", not by "python"
     * @param log_msg_callback  gets what is logged during a run; may be null
     */
    Roach_Executor(char const* user, GaussDB_Env const& env, bool use_python3,
                   ACE_Log_Msg_Callback_var log_msg_callback);

    /** The shell text before a remote command; null and "" keep what there is. */
    void source_cmd(char const* cmd);
    /** The options of ssh; null and "" keep what there is. */
    void ssh_opts(char const* opts);

    /** For the 200 series. @param prior_backup_key  base of an incremental backup; "" for a full */
    [[nodiscard]] bool backup_200(char const* media_destination, char const* meta_path,
                                  std::string const& prior_backup_key, std::string& backup_key,
                                  Roach_Progress_Handler* handler, int channels,
                                  int max_memory_usage, int buffer_size, int buffer_block_size);
    /**
     * For the 100 series.
     * @param meta_path  becomes the prior backup's own metadata directory when there is one: the
     *                   tool keeps the metadata of a chain there
     */
    [[nodiscard]] bool backup_100(char const* media_destination, char const* media_path,
                                  std::string& meta_path, std::string const& prior_backup_key,
                                  std::string& backup_key, bool is_single, int channels);
    /** For the 200 series. @param new_cluster  the cluster is not the one that was backed up */
    [[nodiscard]] bool restore_200(char const* media_destination, char const* meta_path,
                                   std::string const& backup_key, Roach_Progress_Handler* handler,
                                   bool new_cluster, int channels, int max_memory_usage,
                                   int buffer_size, int buffer_block_size);
    /** For the 100 series. */
    [[nodiscard]] bool restore_100(char const* media_destination, char const* media_path,
                                   bool new_cluster, std::string const& meta_path,
                                   std::string const& backup_key, bool is_single, int channels);

    /**
     * Starts the cluster after a restore.
     * @param new_config  XML of a cluster that is not the one that was backed up; null or "" for
     *                    the same one
     */
    [[nodiscard]] bool start(GAUSSDB_VERSION const& version, char const* new_config);
    [[nodiscard]] bool stop();

    /**
     * Runs a ready command on another host, by ssh as the agent's own user.
     * @param address     neither null nor ""
     * @param cmd         goes between single quotes as it stands: it must have none
     * @param backup_key  may be null
     */
    [[nodiscard]] bool execute_non_intrusive_cmd(char const* address, char const* cmd,
                                                 Roach_Progress_Handler* handler,
                                                 std::string* backup_key);

private:
    [[nodiscard]] bool execute_200(char const* cmd, Roach_Progress_Handler* handler,
                                   std::string* backup_key);
    [[nodiscard]] bool execute_100(char const* cmd, Roach_Progress_Handler* handler,
                                   std::string* backup_key);
    [[nodiscard]] bool run(ACE_Process_Options& opts, Roach_Progress_Handler* handler,
                           std::string* backup_key);
    char const* python() const { return use_python3_ ? "python3" : "python"; }

    char const* user_;
    GaussDB_Env const& env_;
    bool use_python3_;
    std::string source_cmd_;
    std::string ssh_opts_;
    ACE_Log_Msg_Callback_var log_msg_callback_;
};

#endif
