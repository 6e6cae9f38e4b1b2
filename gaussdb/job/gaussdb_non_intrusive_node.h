#ifndef GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_NODE_H
#define GAUSSDB_JOB_GAUSSDB_NON_INTRUSIVE_NODE_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "host/job/job.h"
#include "qmrt/names.h"

#include <ace/Event.h>
#include <ace/Time_Value.h>

#include <concepts>
#include <memory>
#include <string>
#include <vector>

class Cancellation;

/**
 * What the backup and the restore of a cluster without an agent share: its record, the tool's
 * counterpart on this host, and the node that is reached by ssh. Functions that return bool return
 * true for success and have logged a failure. Any thread may call them.
 */

/** How a run reaches a database node, by the instance's record. */
struct Non_Intrusive_Access {
    std::string address;
    std::string meta_path; ///< the tool's metadata directory on the node
    std::string source_commands;
    std::string ssh_opts;
    uint16_t backup_port = 0;
};

/** A command line for a remote shell, put together flag by flag; a flag brings its own blanks. */
class Remote_Command {
public:
    explicit Remote_Command(std::string& text) : text_(text) {}

    Remote_Command& add(char const* flag) {
        text_ += flag;
        return *this;
    }
    Remote_Command& add(char const* flag, std::string const& value) {
        text_ += flag;
        text_ += value;
        return *this;
    }
    Remote_Command& add(char const* flag, std::integral auto value) {
        return add(flag, std::to_string(value));
    }
    template <typename... Values>
    Remote_Command& add_if(bool present, char const* flag, Values const&... value) {
        return present ? add(flag, value...) : *this;
    }

private:
    std::string& text_;
};

/** The tool's buffers, as far as they are set. @tparam Options  of a backup or a restore */
template <typename Options>
void add_buffers(std::string& cmd, Options const& options) {
    Remote_Command(cmd)
        .add_if(options.max_memory_usage_ != 0, " --max-memory-usage=", options.max_memory_usage_)
        .add_if(options.buffer_size_ != 0, " --buffer-size=", options.buffer_size_)
        .add_if(options.buffer_block_size_ != 0,
                " --buffer-block-size=", options.buffer_block_size_);
}

/** A name that stands bare on a remote command line, and what it must be. */
struct Bare_Name {
    char const* what; ///< "database"
    std::string const& name;
    names::Rule rule;
};

/** False, after an error line, when one of the names could be read as more than a name. */
[[nodiscard]] bool check_bare_names(std::vector<Bare_Name> const& bare_names);

/** Reads the record of a cluster; false also for one with a value that is not accepted. */
[[nodiscard]] bool read_access(GaussDB_Cluster_Handler const& cluster,
                               Non_Intrusive_Access& access);

/**
 * Finds the service on this host that takes the data from the node: backUpAgent for the openGauss
 * flavour, else roach_client.
 * @param remote_ip  the service's address, with the quotes of its command line; openGauss only
 * @param user       whose service it is: the policy and the place in the pool become this user's
 * @return false also when services of several users are running, since neither can be believed
 */
[[nodiscard]] bool find_data_service(GAUSSDB_VERSION flavour, std::string& remote_ip,
                                     std::string& user, uint16_t& port);

/** The hosts that get the policy: those of the cluster's record at the backup server, or this one.
 */
std::vector<std::string> policy_hosts(GAUSSDB_VERSION flavour, std::string const& instance);

/** The login's user on the node, who has the tool's files in /home/USER. */
[[nodiscard]] bool find_tool_user(std::string const& address, std::string const& ssh_opts,
                                  std::string& user);

/**
 * Copies lines to a file on the node, with a line break between two.
 * @param run_id  names the scratch file on this host, which is removed again
 */
[[nodiscard]] bool send_lines(std::vector<std::string> const& lines, std::string const& path,
                              std::string const& run_id, std::string const& address,
                              std::string const& ssh_opts);

/** Removes a file of send_lines() from the node, at the second try if need be; logs a warning on
 * failure. */
void remove_lines(std::string const& path, std::string const& address, std::string const& ssh_opts);

/**
 * Stops the tool on the node once the run is canceled; returns then or when the event is signalled.
 * A run that was cancelled by Job::abort_now() has lost its ssh at once, and not the tool on the
 * node: that is stopped also when the event was signalled first.
 * For a thread of its own, beside the one that waits for the tool.
 * @param interval  between two looks at the run's state
 * @param stop      ends the stop command; null for none
 */
void stop_tool_on_cancel(Job& job, std::string const& address, ACE_Event& event,
                         ACE_Time_Value const& interval, std::shared_ptr<Cancellation> const& stop);

#endif
