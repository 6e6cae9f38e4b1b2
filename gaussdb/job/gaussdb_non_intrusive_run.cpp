#include "gaussdb/job/gaussdb_non_intrusive_run.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_non_intrusive_node.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_executor.h"
#include "host/job/job.h"
#include "host/job/job_thread_helper.h"
#include "host/job/run_hold.h"
#include "host/process/cancellation.h"
#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/scoped_deleter.h"

using Non_Intrusive_Run = GaussDB_Non_Intrusive_Run;

bool Non_Intrusive_Run::find_instance() {
    cluster_ = find_cluster(instance_);
    if (cluster_.null()) {
        QMRT_LOG(LM_EMERGENCY, "Unexpected error in %N:%l, cluster_ is NULL:\n%?\n");
        return false;
    }
    host_uuids_ = policy_hosts(cluster_->get_gaussdb_version().model_, instance_);
    return true;
}

bool Non_Intrusive_Run::is_opengauss() const {
    return cluster_->get_gaussdb_version().model_ == GAUSSDB_FOR_OPENGAUSS;
}

bool Non_Intrusive_Run::canceled() const {
    return is_canceled(run_job_.activity());
}

bool Non_Intrusive_Run::read_instance(char const* failure) {
    Non_Intrusive_Access access;
    if (!read_access(*cluster_, access)) {
        QMRT_LOG(LM_ERROR, "%s\n", failure);
        return false;
    }
    address_ = access.address;
    meta_path_ = access.meta_path;
    ssh_opts_ = access.ssh_opts;
    source_commands_ = access.source_commands;
    backup_port_ = access.backup_port;
    return true;
}

bool Non_Intrusive_Run::find_service(std::string& user) {
    if (get_client_info(user))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get roach client info.\n");
    return false;
}

bool Non_Intrusive_Run::get_client_info(std::string& user) {
    return find_data_service(cluster_->get_gaussdb_version().model_, remote_ip_, user,
                             client_port_);
}

// the node

/** It is kept in the catalog, and becomes a word of a restore's command line. */
bool Non_Intrusive_Run::get_roach_host_name(std::string& hostname) const {
    if (execute_ssh_command("hostname", hostname) &&
        check_bare_names({{"host name of the node", hostname, names::fault_of_host}}))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get database host name.\n");
    return false;
}

std::set<std::string> Non_Intrusive_Run::resources(std::string const& policy_name,
                                                   std::string const& host_name) const {
    std::set<std::string> resources = roach_resources(host_uuids_, policy_name);
    // two records may lead to one node by different addresses
    resources.insert({Run_Hold::node(address_), Run_Hold::node(host_name)});
    return resources;
}

bool Non_Intrusive_Run::execute_ssh_command(std::string const& command, std::string& result) const {
    return ::execute_ssh_command(address_, ssh_opts_, command, result);
}

bool Non_Intrusive_Run::send_list(std::vector<std::string> const& lines, std::string const& path,
                                  std::string const& run_id) {
    lists_.push_back(path); // a part of it may be there after a failure
    return send_lines(lines, path, run_id, address_, ssh_opts_);
}

void Non_Intrusive_Run::remove_lists() {
    if (!lists_.empty())
        let_cleanup_run(run_job_.activity());
    for (std::string const& path : lists_)
        remove_lines(path, address_, ssh_opts_);
    lists_.clear();
}

void Non_Intrusive_Run::remove_from_nodes(std::string const& path, std::string const& login) const {
    GaussDB_Client_ptr const client = cluster_->create_client(nullptr, nullptr, nullptr);
    std::vector<std::string> addresses;
    if (!client || !get_database_addresses(client.get(), addresses) || addresses.empty()) {
        QMRT_LOG(LM_WARNING,
                 "Directory %s may be left on the nodes, whose addresses only a running database "
                 "tells; remove it there\n",
                 path.c_str());
        return;
    }
    for (std::string const& address : addresses) {
        QMRT_LOG(LM_DEBUG, "Cleaning directory %s on %s ...\n", path.c_str(),
                 names::shown(address).c_str());
        std::string ignored;
        std::string const command =
            string_sprintf("ssh %s%s 'rm -rf %s'", login.c_str(), address.c_str(), path.c_str());
        // the connection may have been cut, and the next one may work
        if (!check_bare_names({{"address of a node", address, names::fault_of_host}}) ||
            (!execute_ssh_command(command, ignored) && !execute_ssh_command(command, ignored)))
            QMRT_LOG(LM_WARNING, "Failed to clean roach path on %s.\n",
                     names::shown(address).c_str());
    }
}

// the tool

bool Non_Intrusive_Run::run_with_stop_thread(std::function<bool(Roach_Executor&)> const& work,
                                             std::function<void()> const& clean_up) {
    ACE_Event event;
    ACE_Event stopped;
    auto const stop = std::make_shared<Cancellation>("the tool that it is to stop has ended");
    Job_Thread_Helper stop_thread(&run_job_, THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED,
                                  ACE_DEFAULT_THREAD_PRIORITY);
    auto const stop_on_cancel = [&] {
        job_stop_thread(event, stop);
        stopped.signal();
    };
    if (stop_thread.spawn(stop_on_cancel) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to start the thread that stops the backup tool, %m\n");
        return false;
    }
    Scoped_Deleter const join_stop_thread([&] {
        event.signal();
        // a command that does not end would hold up the end of the run
        std::shared_ptr<Cancellation> const run = run_job_.cancellation();
        bool const cancelled_now = run && run->cancelled();
        if (stopped.wait(cancelled_now ? &stop_limit_now_ : &stop_limit_, 0) == -1)
            stop->cancel();
        stop_thread.join();
        let_cleanup_run(run_job_.activity());
        clean_up();
    });
    if (canceled())
        return false;
    GaussDB_Env const no_env;
    Roach_Executor tool("", no_env, false, run_job_.log_msg_callback());
    tool.source_cmd(source_commands_.c_str());
    tool.ssh_opts(ssh_opts_.c_str());
    return work(tool);
}

void Non_Intrusive_Run::job_stop_thread(ACE_Event& event,
                                        std::shared_ptr<Cancellation> const& stop) {
    stop_tool_on_cancel(run_job_, address_, event, stop_interval_, stop);
}
