#include "gaussdb/common/gaussdb_non_intrusive_handler.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_non_intrusive_client.h"
#include "gaussdb/common/gaussdb_non_intrusive_record.h"
#include "gaussdb/common/xbsa_link.h"
#include "json_spirit/access.h"
#include "qmrt/format.h"
#include "qmrt/log.h"
#include "qmrt/names.h"

#include <cerrno>

namespace {

constexpr char COORDINATOR_PORT[] = "gs_guc check -Z coordinator -I all -c \"port\"";
constexpr char DATANODE_PORT[] = "gs_guc check -Z datanode -I all -c \"port\"";

} // namespace

std::string GaussDB_Non_Intrusive_Handler::Access::remote(char const* command) const {
    return string_sprintf("ssh %s %s '%s%s'", ssh_opts.c_str(), cn_address.c_str(),
                          source_cmd.c_str(), command);
}

GaussDB_Non_Intrusive_Handler::GaussDB_Non_Intrusive_Handler(GaussDB_Version const& version)
    : GaussDB_Cluster_Handler(GaussDB_Env(), std::string(), version) {
    access_.source_cmd =
        version.model_ == GAUSSDB_FOR_OPENGAUSS ? SOURCE_GAUSS_ENV_FILE : SOURCE_DWS_PROFILE;
    access_.ssh_opts = DEFAULT_SSH_OPTS;
}

void GaussDB_Non_Intrusive_Handler::source_cmd(char const* cmd) {
    std::lock_guard const guard(access_mutex_);
    access_.source_cmd = cmd ? cmd : "";
}

void GaussDB_Non_Intrusive_Handler::ssh_opts(char const* opts) {
    std::lock_guard const guard(access_mutex_);
    access_.ssh_opts = opts ? opts : "";
}

GaussDB_Non_Intrusive_Handler::Access GaussDB_Non_Intrusive_Handler::access() const {
    std::lock_guard const guard(access_mutex_);
    return access_;
}

bool settle_non_intrusive_flavour(GaussDB_Version& version) {
    if (version.model_ == GAUSSDB_200 && version.major_ >= GAUSSDB_NON_INTRUSIVE_MINIMUM_VER)
        version.model_ = GAUSSDB_DWS;
    return version.model_ == GAUSSDB_DWS || version.model_ == GAUSSDB_FOR_OPENGAUSS;
}

bool GaussDB_Non_Intrusive_Handler::init(char const*) {
    std::lock_guard const init_guard(init_mutex_);
    GaussDB_Cluster_Info const record = info();
    Access found = access();
    json_spirit::extract_or_throw(record.extend_attrs)("source_commands", found.source_cmd,
                                                       false)("ssh_options", found.ssh_opts, false);
    found.cn_address = json_spirit::object_get_str(record.extend_attrs, "address");
    if (found.cn_address.empty()) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB cluster ip address.\n");
        return false;
    }
    if (!check_address(found.cn_address))
        return false;
    // a record of an earlier release may have what is refused now
    if (std::string const fault = fault_of_non_intrusive_record(record.extend_attrs);
        !fault.empty()) {
        QMRT_LOG(LM_ERROR,
                 "Invalid record of instance %s: %s; correct it with zenbrak3 instance change\n",
                 names::shown(record.name).c_str(), fault.c_str());
        return false;
    }
    found.cn_port = 0;
    bool const is_ready = gaussdb_version_.model_ == GAUSSDB_FOR_OPENGAUSS
                              ? init_for_opengauss(found)
                              : init_for_dws(found);
    if (is_ready) {
        std::lock_guard const guard(access_mutex_);
        access_ = found;
    }
    return is_ready;
}

bool GaussDB_Non_Intrusive_Handler::init_for_dws(Access& access) const {
    if (!place_system_xbsa_link("libxbsa64.so"))
        return false;
    access.cn_port = non_intrusive_get_port(access.remote(COORDINATOR_PORT).c_str());
    if (access.cn_port == 0)
        QMRT_LOG(LM_ERROR, "Failed to get listening port from address %s\n",
                 access.cn_address.c_str());
    return true;
}

bool GaussDB_Non_Intrusive_Handler::init_for_opengauss(Access& access) const {
    access.cn_port = non_intrusive_get_port(access.remote(COORDINATOR_PORT).c_str());
    if (access.cn_port == 0) // a cluster of data nodes alone
        access.cn_port = non_intrusive_get_port(access.remote(DATANODE_PORT).c_str());
    if (access.cn_port == 0)
        QMRT_LOG(LM_ERROR, "Failed to get listening port from address %s\n",
                 access.cn_address.c_str());
    return true;
}

GaussDB_Client_ptr GaussDB_Non_Intrusive_Handler::create_client(char const*, char const*,
                                                                char const* db) const {
    Access const reached = access();
    std::unique_ptr<GaussDB_Non_Intrusive_Client> client(
        new (std::nothrow)
            GaussDB_Non_Intrusive_Client(reached.cn_port, reached.cn_address.c_str(), db));
    if (!client) {
        errno = ENOMEM;
        return nullptr;
    }
    client->source_cmd(reached.source_cmd.c_str());
    client->ssh_opts(reached.ssh_opts.c_str());
    return client;
}

bool GaussDB_Non_Intrusive_Handler::get_status(std::string& status, bool& balanced) const {
    Access const reached = access();
    return !reached.cn_address.empty() && // or ssh would take the command for the address
           non_intrusive_get_cluster_status(reached.remote("gs_om -t status").c_str(), status,
                                            balanced);
}
