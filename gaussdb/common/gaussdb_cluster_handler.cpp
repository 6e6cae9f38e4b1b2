#include "gaussdb/common/gaussdb_cluster_handler.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_config_handler.h"
#include "host/agent/host_manager.h"
#include "host/xml/parse_xml.h"
#include "qmrt/check.h"

#include <algorithm>
#include <utility>

GaussDB_Cluster_Handler::GaussDB_Cluster_Handler(GaussDB_Env const& env, std::string const& os_user,
                                                 GaussDB_Version const& version)
    : env_(env), os_user_(os_user), gaussdb_version_(version) {}

GaussDB_Cluster_Handler::~GaussDB_Cluster_Handler() = default;

bool GaussDB_Cluster_Handler::get_status(std::string& status, bool& balanced) const {
    return get_cluster_status(os_user_.c_str(), env_, status, balanced);
}

bool GaussDB_Cluster_Handler::test_logon(char const* username, char const* password) {
    GaussDB_Client_ptr const client = create_client(username, password, nullptr);
    if (QMRT_IS_NULL(client))
        return false;
    return client->test_logon();
}

bool GaussDB_Cluster_Handler::list_database(char const* username, char const* password,
                                            std::vector<std::string>& databases) const {
    GaussDB_Client_ptr const client = create_client(username, password, nullptr);
    if (QMRT_IS_NULL(client))
        return false;
    return client->list_database(databases);
}

std::string GaussDB_Cluster_Handler::get_database_version() const {
    GaussDB_Client_ptr const client = create_client(nullptr, nullptr, nullptr);
    return client ? client->get_version() : std::string();
}

GaussDB_Cluster_Info GaussDB_Cluster_Handler::info() const {
    std::lock_guard const guard(info_mutex_);
    return info_;
}

void GaussDB_Cluster_Handler::info(GaussDB_Cluster_Info const& value) {
    GaussDB_Cluster_Info copy(value);
    std::lock_guard const guard(info_mutex_);
    local_device_ = nullptr; // pointed into what goes
    std::swap(info_, copy);
}

size_t GaussDB_Cluster_Handler::nodes() const {
    std::lock_guard const guard(info_mutex_);
    return info_.devices.size();
}

bool GaussDB_Cluster_Handler::is_first_device() const {
    std::lock_guard const guard(info_mutex_);
    return !info_.devices.empty() && info_.devices.front().name == Host_Manager::instance()->name();
}

GaussDB_Device_Info const* GaussDB_Cluster_Handler::find_local_device() const {
    std::string const host = Host_Manager::instance()->name();
    std::lock_guard const guard(info_mutex_);
    auto const found =
        std::find_if(info_.devices.begin(), info_.devices.end(),
                     [&](GaussDB_Device_Info const& device) { return device.name == host; });
    return found == info_.devices.end() ? nullptr : &*found;
}

bool GaussDB_Cluster_Handler::parse_cluster_info() {
    // apart from info_, which others may read, and which a fault half-way is not to touch
    GaussDB_Cluster_Info parsed = info();
    ACEXML_GaussDB_Config_Handler handler(parsed);
    if (!parse_xml(conf_.c_str(), handler))
        return false;
    info(parsed);
    return true;
}
