#include "gaussdb/common/gaussdb_200_cluster_handler.h"

#include "gaussdb/common/gaussdb_cluster_name.h"
#include "gaussdb/common/gaussdb_config_reader.h"
#include "gaussdb/common/gaussdb_gsql_client.h"
#include "gaussdb/common/user_rights.h"
#include "gaussdb/common/xbsa_link.h"
#include "host/process/password_file_entry.h"
#include "qmrt/check.h"
#include "qmrt/file.h"
#include "qmrt/guarded_file.h"
#include "qmrt/path.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char XML_DIRECTORY[] = "/var/opt/quilmot/zenbrak3/$COMPONENT/gaussdb";
constexpr char SAVED_DIRECTORY[] = "/var/cache/quilmot/zenbrak3/gaussdb";

constexpr uint64_t MAX_BINARY_CONFIG = 16 * 1024 * 1024;

/**
 * Copies the cluster's binary configuration file, read with the rights of its user. The copy
 * belongs to that user, as whom it will be read.
 */
int save_config(std::string const& live, std::string const& saved, char const* os_user) {
    std::string content;
    File_Owner owner{};
    auto const read = [&](Password_File_Entry const& user) {
        owner = {user.uid(), user.gid()};
        return read_guarded(live.c_str(), content, {.max_size = MAX_BINARY_CONFIG}) == 0;
    };
    if (!with_rights_of(os_user, read))
        return -1;
    return write_file_atomically(saved.c_str(), content, 0640, geteuid() == 0 ? &owner : nullptr);
}

} // namespace

GaussDB_200_Cluster_Handler::GaussDB_200_Cluster_Handler(GaussDB_Env const& env,
                                                         std::string const& os_user,
                                                         GaussDB_Version const& version)
    : GaussDB_Cluster_Handler(env, os_user, version) {}

bool GaussDB_200_Cluster_Handler::init(char const* name) {
    std::lock_guard const guard(init_mutex_);
    if (inited_) {
        if (is_link_missing_ && is_installed())
            is_link_missing_ = !place_library_link();
        return true;
    }
    inited_ = true;
    if (QMRT_IS_NULL_OR_EMPTY(name) || !is_cluster_file_name(name))
        return false;

    std::string live;
    std::string saved;
    if (!generate_config(name, live, saved) || !parse_cluster_info())
        return false;
    if (is_regular_file(live.c_str()) && save_config(live, saved, os_user_.c_str()) == -1)
        QMRT_LOG(LM_DEBUG, "Failed to save %s as %s, errno=%d, %m\n", live.c_str(), saved.c_str(),
                 errno);
    find_ports();
    is_link_missing_ = !is_installed();
    if (!is_link_missing_)
        return place_library_link();
    QMRT_LOG(LM_WARNING, "The link to the XBSA library is not made, %s does not exist\n",
             env_.gauss_home());
    return true;
}

/** False only for a GAUSSHOME that does not exist. */
bool GaussDB_200_Cluster_Handler::is_installed() const {
    struct stat status;
    return !*env_.gauss_home() || stat(env_.gauss_home(), &status) == 0 || errno != ENOENT;
}

/** Makes the XML file of the cluster's live binary file, or else of the saved one. */
bool GaussDB_200_Cluster_Handler::generate_config(char const* name, std::string& live,
                                                  std::string& saved) {
    conf_ = Path_Conf(XML_DIRECTORY, true, name, 0755).str();
    // entered by the clusters' users, each for its own file
    saved = Path_Conf(SAVED_DIRECTORY, true, name, 0755).str();
    if (conf_.empty() || saved.empty())
        return false;
    bool const use_python3 = gaussdb_version_ >= GAUSSDB_A_811;
    if (*env_.gauss_home()) {
        live = Path_Conf(std::string(env_.gauss_home()) + "/bin", "cluster_static_config").str();
        if (generate_gaussdb_config(env_, os_user_.c_str(), conf_.c_str(), live.c_str(),
                                    use_python3))
            return true;
    }
    return generate_gaussdb_config(env_, os_user_.c_str(), conf_.c_str(), saved.c_str(),
                                   use_python3);
}

void GaussDB_200_Cluster_Handler::find_ports() {
    local_device_ = find_local_device();
    if (local_device_)
        cn_port_ = local_device_->coordinators.port;
    if (cn_port_ == 0) {
        // a machine without a coordinator reaches one over the network
        for (GaussDB_Device_Info const& device : info_.devices) {
            if (device.coordinators.port != 0 && !device.coordinators.ip.empty()) {
                cn_port_ = device.coordinators.port;
                cn_host_ = device.coordinators.ip;
                break;
            }
        }
    }
    if (local_device_ && local_device_->data_nodes.num != 0)
        dn_port_ = local_device_->data_nodes.port;
}

/**
 * The cluster's tools load the XBSA library from a directory of the installation. That is made with
 * the rights of the cluster's user, who can put links anywhere into its path.
 */
bool GaussDB_200_Cluster_Handler::place_library_link() {
    char const* const gauss_home = env_.gauss_home();
    if (QMRT_IS_NULL_OR_EMPTY(gauss_home))
        return false;
    return with_rights_of(os_user_.c_str(), [&](Password_File_Entry const&) {
        Path_Conf const directory(std::string(gauss_home) + "/lib", false, "libsimsearch", 0750);
        Path_Conf const link(directory.str(), true, "libxbsa64.so", 0750);
        return link && place_xbsa_link("libxbsa64.so", link.c_str());
    });
}

GaussDB_Client_ptr GaussDB_200_Cluster_Handler::create_client(char const* username,
                                                              char const* password,
                                                              char const*) const {
    bool const to_coordinator = login_cn_ && cn_port_ != 0;
    GaussDB_Client_ptr client(new (std::nothrow) GaussDB_Gsql_Client(
        env_, username, password, nullptr, to_coordinator ? cn_port_ : dn_port_, os_user_.c_str(),
        to_coordinator ? cn_host_.c_str() : nullptr));
    if (!client)
        errno = ENOMEM;
    return client;
}

bool GaussDB_200_Cluster_Handler::test_logon(char const* username, char const* password) {
    login_cn_ = true;
    if (GaussDB_Cluster_Handler::test_logon(username, password))
        return true;
    login_cn_ = false;
    if (GaussDB_Cluster_Handler::test_logon(username, password)) {
        QMRT_LOG(LM_WARNING, "Cannot login coordinator, login data node\n");
        return true;
    }
    login_cn_ = true;
    return false;
}
