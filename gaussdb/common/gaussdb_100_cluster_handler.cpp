#include "gaussdb/common/gaussdb_100_cluster_handler.h"

#include "gaussdb/common/gaussdb_zsql_client.h"
#include "gaussdb/common/user_rights.h"
#include "gaussdb/common/xbsa_link.h"
#include "qmrt/format.h"
#include "qmrt/log.h"

#include <cerrno>

GaussDB_100_Cluster_Handler::GaussDB_100_Cluster_Handler(GaussDB_Env const& env,
                                                         std::string const& os_user,
                                                         GaussDB_Version const& version)
    : GaussDB_Cluster_Handler(env, os_user, version) {}

bool GaussDB_100_Cluster_Handler::init(char const*) {
    std::lock_guard const guard(init_mutex_);
    if (inited_)
        return true;
    inited_ = true;
    conf_ = string_sprintf("%s/script/config/clusterconfig.xml", env_.gp_home());
    if (!parse_as_user())
        return false;
    find_topology();
    find_connection();
    // this series loads another build of the library than the rest
    return place_system_xbsa_link("libxbsa64i.so");
}

/** Reads the cluster's file with the rights of its user, who decides where its path leads. */
bool GaussDB_100_Cluster_Handler::parse_as_user() {
    return with_rights_of(os_user_.c_str(),
                          [this](Password_File_Entry const&) { return parse_cluster_info(); });
}

void GaussDB_100_Cluster_Handler::find_topology() {
    if (info_.service_type == "SingleService")
        type_ = info_.devices.size() == 1 ? TYPE_SINGLE : TYPE_HA2NODE;
    else
        type_ = TYPE_HA;
    // the first machine stands for a pair, wherever the agent runs
    if (type_ == TYPE_HA2NODE && !info_.devices.empty())
        local_device_ = &info_.devices.front();
    else
        local_device_ = find_local_device();
}

void GaussDB_100_Cluster_Handler::find_connection() {
    if (local_device_ == nullptr)
        return;
    GaussDB_Nodes_Info const& coordinators = local_device_->coordinators;
    GaussDB_Nodes_Info const& data_nodes = local_device_->data_nodes;
    if (coordinators.port != 0) {
        connect_port_ = coordinators.port;
        if (!coordinators.dirs.empty())
            connect_dir_ = coordinators.dirs.front();
    } else if (data_nodes.port != 0) {
        connect_port_ = data_nodes.port;
        // behind the first "," stand the hosts and directories of the standbys
        if (!data_nodes.dirs.empty())
            connect_dir_ = data_nodes.dirs.front().substr(0, data_nodes.dirs.front().find(','));
    }
}

GaussDB_Client_ptr GaussDB_100_Cluster_Handler::create_client(char const* username,
                                                              char const* password,
                                                              char const*) const {
    GaussDB_Client_ptr client(new (std::nothrow) GaussDB_Zsql_Client(
        env_, username, password, connect_dir_.c_str(), connect_port_, type_ == TYPE_SINGLE,
        os_user_.c_str()));
    if (!client)
        errno = ENOMEM;
    return client;
}
