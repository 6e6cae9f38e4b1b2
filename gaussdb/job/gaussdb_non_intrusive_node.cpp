#include "gaussdb/job/gaussdb_non_intrusive_node.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_non_intrusive_record.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_executor.h"
#include "host/agent/host_manager.h"
#include "host/job/job.h"
#include "host/process/cancellation.h"
#include "host/process/service_lister.h"
#include "qmrt/check.h"
#include "qmrt/file.h"
#include "qmrt/path.h"
#include "qmrt/regex.h"
#include "qmrt/scoped_deleter.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <unistd.h>

namespace {

constexpr char SCRATCH_ROOT[] = "/var/cache/quilmot/zenbrak3/gaussdb";

// what makes a process with the service's name in its command line one that serves
boost::regex const RE_SERVES_ROACH("\\s+-p\\s(?:.*:)?\\d+");
boost::regex const RE_SERVES_BACKUP("host\\s*=.*port\\s*=\\s*\\d+|port\\s*=\\s*\\d+.*host\\s*=");

/** The host of a backUpAgent's command line without the quotes that may be around it. */
std::string unquoted(std::string const& host) {
    bool const is_quoted = host.size() > 1 && host.front() == '\'' && host.back() == '\'';
    return is_quoted ? host.substr(1, host.size() - 2) : host;
}

/**
 * Any user can start a process with that command line, and the service's user gets the key of the
 * run. If two users run such a service, neither is used.
 */
bool has_one_user(char const* service, boost::regex const& serves, std::string const& user) {
    std::vector<Service_Info> services;
    if (Service_Lister::list_service(service, services, false, "C") != 0)
        return false;
    qmrt::svmatch groups;
    for (Service_Info const& found : services)
        if (found.user != user && qmrt::regex_search(found.cmd, groups, serves)) {
            QMRT_LOG(LM_ERROR,
                     "Both user %s and user %s run a %s (process %d of %s); stop the one that is "
                     "not the database's\n",
                     user.c_str(), found.user.c_str(), service, static_cast<int>(found.pid),
                     found.user.c_str());
            return false;
        }
    return true;
}

} // namespace

bool check_bare_names(std::vector<Bare_Name> const& bare_names) {
    for (Bare_Name const& bare : bare_names)
        if (std::string const fault = bare.rule(bare.name); !fault.empty()) {
            QMRT_LOG(LM_ERROR, "Invalid %s '%s', it %s; nothing is run\n", bare.what,
                     names::shown(bare.name).c_str(), fault.c_str());
            return false;
        }
    return true;
}

bool read_access(GaussDB_Cluster_Handler const& cluster, Non_Intrusive_Access& access) {
    GaussDB_Cluster_Info const info = cluster.info();
    if (!get_manual_instance_info(info.extend_attrs, access.meta_path, access.backup_port,
                                  access.address, access.source_commands, access.ssh_opts))
        return false;
    std::string const fault = fault_of_non_intrusive_record(info.extend_attrs);
    if (!fault.empty())
        QMRT_LOG(LM_ERROR,
                 "Invalid record of instance %s: %s; correct it with zenbrak3 instance change\n",
                 names::shown(info.name).c_str(), fault.c_str());
    return fault.empty();
}

bool find_data_service(GAUSSDB_VERSION flavour, std::string& remote_ip, std::string& user,
                       uint16_t& port) {
    if (flavour != GAUSSDB_FOR_OPENGAUSS)
        return get_roach_client_info(user, port) &&
               has_one_user("roach_client", RE_SERVES_ROACH, user);
    std::string host;
    if (!get_backup_agent_info(remote_ip, user, port))
        return false;
    host = unquoted(remote_ip);
    return check_bare_names({{"host of the backUpAgent", host, names::fault_of_host}}) &&
           has_one_user("backUpAgent", RE_SERVES_BACKUP, user);
}

std::vector<std::string> policy_hosts(GAUSSDB_VERSION flavour, std::string const& instance) {
    std::vector<std::string> hosts;
    if (flavour == GAUSSDB_FOR_OPENGAUSS)
        return {Host_Manager::instance()->uuid()};
    if (get_cluster_host_uuids(instance.c_str(), hosts) && !hosts.empty())
        return hosts;
    QMRT_LOG(LM_DEBUG, "Failed to get roach client cluster host uuids, use only the current roach "
                       "client.\n");
    return {Host_Manager::instance()->uuid()};
}

bool find_tool_user(std::string const& address, std::string const& ssh_opts, std::string& user) {
    return get_roach_agent_user(address, ssh_opts, user) &&
           check_bare_names({{"user of the node", user, names::fault_of_id}});
}

bool send_lines(std::vector<std::string> const& lines, std::string const& path,
                std::string const& run_id, std::string const& address,
                std::string const& ssh_opts) {
    std::string text;
    for (std::string const& line : lines)
        text += (&line == &lines.front() ? "" : "\n") + line;
    std::string const local = Path_Conf(SCRATCH_ROOT, true, run_id.c_str(), 0750).c_str();
    Scoped_Deleter const remove_local([&] { unlink(local.c_str()); });
    if (write_file_atomically(local.c_str(), text, 0640) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to open %s to write, errno=%d, %m\n", local.c_str(), errno);
        return false;
    }
    // scp ends the address of version 6 at its first ":" unless it stands in brackets
    bool const is_ipv6 = address.find(':') != std::string::npos;
    size_t const host = address.find('@') + 1; // 0 without an account
    std::string const target =
        is_ipv6 ? address.substr(0, host) + "[" + address.substr(host) + "]" : address;
    return execute_scp_command(target, ssh_opts, local, path);
}

void remove_lines(std::string const& path, std::string const& address,
                  std::string const& ssh_opts) {
    std::string ignored;
    std::string const command = "rm -f " + path;
    // the connection may have been cut, and the next one may work
    if (!execute_ssh_command(address, ssh_opts, command, ignored) &&
        !execute_ssh_command(address, ssh_opts, command, ignored))
        QMRT_LOG(LM_WARNING, "Failed to remove %s on %s\n", path.c_str(), address.c_str());
}

void stop_tool_on_cancel(Job& job, std::string const& address, ACE_Event& event,
                         ACE_Time_Value const& interval,
                         std::shared_ptr<Cancellation> const& stop) {
    try {
        bool tool_runs = true;
        while (tool_runs) {
            tool_runs = event.wait(&interval, 0) == -1 && errno == ETIME;
            std::shared_ptr<Cancellation> const run = job.cancellation();
            // that ended only the ssh on this host
            bool const cancelled_now = run && run->cancelled();
            if (!is_canceled(job.activity()) || (!tool_runs && !cancelled_now))
                continue;
            Cancellation_Scope const stop_is_wanted(stop);
            GaussDB_Env const no_env;
            // with the tool's own defaults: what the instance's record says is for its jobs
            Roach_Executor roach_executor("", no_env, false, job.log_msg_callback());
            (void)roach_executor.execute_non_intrusive_cmd(address.c_str(), "GaussRoach.py -t stop",
                                                           nullptr, nullptr);
            return;
        }
    } catch (std::exception const& error) {
        // it would take the whole agent down
        QMRT_LOG(LM_ERROR, "Failed to stop the backup tool, %s\n", error.what());
    }
}
