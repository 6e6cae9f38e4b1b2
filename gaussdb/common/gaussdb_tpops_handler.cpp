#include "gaussdb/common/gaussdb_tpops_handler.h"

#include "gaussdb/common/gaussdb_tpops_client.h"
#include "gaussdb/common/tpops_restful_client.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

#include <cerrno>
#include <tuple>

namespace {

auto fields_of(TPOPS_Login const& login) {
    return std::tie(login.host, login.port, login.ssl, login.username, login.password);
}

} // namespace

GaussDB_TPOPS_Handler::GaussDB_TPOPS_Handler()
    : GaussDB_Cluster_Handler(GaussDB_Env(), std::string(),
                              GaussDB_Version(GAUSSDB_TPOPS, 0, 0, 0)),
      login_info_(1) {}

bool GaussDB_TPOPS_Handler::init(char const*) {
    try {
        json_spirit::Object const record = info().extend_attrs;
        GaussDB_TPOPS_Instance_Info instance;
        TPOPS_Login login;
        instance.load(record);
        login.load(record);
        std::lock_guard const guard(login_mutex_);
        take_login(std::move(login));
        instance_info_ = std::move(instance);
        return true;
    } catch (std::exception const& fault) {
        QMRT_LOG(LM_ERROR, "Failed to extract TPOPS info: %s\n", fault.what());
        return false;
    }
}

/** The caller holds login_mutex_. */
void GaussDB_TPOPS_Handler::take_login(TPOPS_Login login) {
    if (fields_of(login_info_.back()) != fields_of(login))
        login_info_.push_back(std::move(login));
}

TPOPS_Login const& GaussDB_TPOPS_Handler::get_login_info() const {
    std::lock_guard const guard(login_mutex_);
    return login_info_.back();
}

GaussDB_TPOPS_Instance_Info GaussDB_TPOPS_Handler::get_instance_info() const {
    std::lock_guard const guard(login_mutex_);
    return instance_info_;
}

GaussDB_Client_ptr GaussDB_TPOPS_Handler::create_client(char const* username, char const* password,
                                                        char const*) const {
    TPOPS_Login login = get_login_info();
    if (username && password) {
        login.username = username;
        login.password = secure_string(std::string_view(password));
    }
    GaussDB_Client_ptr client(new (std::nothrow)
                                  GaussDB_TPOPS_Client(get_instance_info(), std::move(login)));
    if (!client)
        errno = ENOMEM;
    return client;
}

bool GaussDB_TPOPS_Handler::get_status(std::string& status, bool&) const {
    status = "error";
    std::string const id = json_spirit::object_get_str(info().extend_attrs, "id");
    if (id.empty())
        return false;
    TPOPS_RESTful_Client client;
    TPOPS_Instance_Info found;
    try {
        if (!client.connect(get_login_info())) {
            if (client.status() != 401 && client.status() != 403)
                return false;
            status = "running";
            return true;
        }
        (void)client.get_instance_info(id.c_str(), found); // no status counts as running
    } catch (json_spirit::Error const& fault) {
        QMRT_LOG(LM_ERROR, "Failed to read the answer of TPOPS: %s\n", fault.what());
        return false;
    }
    if (found.status.empty() || found.status == "normal")
        status = "running";
    return true;
}

bool GaussDB_TPOPS_Handler::test_logon(char const* username, char const* password) {
    if (!GaussDB_Cluster_Handler::test_logon(username, password))
        return false;
    if (username && password) {
        std::lock_guard const guard(login_mutex_);
        TPOPS_Login login = login_info_.back();
        login.username = username;
        login.password = secure_string(std::string_view(password));
        take_login(std::move(login));
    }
    return true;
}
