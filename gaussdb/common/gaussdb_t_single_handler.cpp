#include "gaussdb/common/gaussdb_t_single_handler.h"

#include "gaussdb/common/gaussdb_zsql_client.h"
#include "host/agent/host_manager.h"
#include "host/agent/listening_port.h"
#include "qmrt/log.h"
#include "qmrt/natoi.h"

#include <cerrno>

GaussDB_T_Single_Handler::GaussDB_T_Single_Handler(GaussDB_Env const& env,
                                                   std::string const& os_user)
    : GaussDB_Cluster_Handler(env, os_user, GaussDB_Version(GAUSSDB_T, 0, 0, 0)) {}

bool GaussDB_T_Single_Handler::init(char const* name) {
    std::lock_guard const guard(init_mutex_);
    if (inited_)
        return true;
    inited_ = true;
    type_ = TYPE_SINGLE;
    data_dir_ = env_.get_value("GSDB_DATA");
    port_ = natoi<uint16_t>(env_.get_value("LSNR_PORT"));
    if (data_dir_.empty() || port_ == 0) {
        QMRT_LOG(LM_ERROR, "Failed to get GSDB_DATA or LSNR_PORT\n");
        return false;
    }
    GaussDB_Cluster_Info described = info();
    described.name = name ? name : "";
    described.nodes = Host_Manager::instance()->name();
    described.app_path = env_.get_value("GSDB_HOME");
    info(described);
    return true;
}

GaussDB_Client_ptr GaussDB_T_Single_Handler::create_client(char const* username,
                                                           char const* password,
                                                           char const*) const {
    GaussDB_Client_ptr client(new (std::nothrow) GaussDB_Zsql_Client(
        env_, username, password, data_dir_.c_str(), port_, true, os_user_.c_str()));
    if (!client)
        errno = ENOMEM;
    return client;
}

bool GaussDB_T_Single_Handler::get_status(std::string& status, bool&) const {
    status = check_port_listening(port_) ? "running" : "error";
    return true;
}
