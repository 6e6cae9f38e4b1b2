#include "gaussdb/common/gaussdb_tpops_client.h"

#include "gaussdb/common/gaussdb_env.h"
#include "gaussdb/common/tpops_restful_client.h"
#include "qmrt/log.h"

namespace {

/** The base needs an environment; this client runs no tools. */
GaussDB_Env const& no_tpops_env() {
    static GaussDB_Env const env;
    return env;
}

void log_bad_answer(std::exception const& fault) {
    QMRT_LOG(LM_ERROR, "Failed to read the answer of TPOPS: %s\n", fault.what());
}

} // namespace

GaussDB_TPOPS_Client::GaussDB_TPOPS_Client(GaussDB_TPOPS_Instance_Info info, TPOPS_Login login_info)
    : GaussDB_Client(no_tpops_env(), nullptr, nullptr, nullptr, 0, nullptr, nullptr),
      info_(std::move(info)),
      login_info_(std::move(login_info)) {}

bool GaussDB_TPOPS_Client::list_database(std::vector<std::string>& names) const {
    try {
        TPOPS_RESTful_Client client;
        std::vector<TPOPS_Database_Info> databases;
        if (!client.connect(login_info_) || !client.list_databases(info_.id.c_str(), databases))
            return false;
        for (TPOPS_Database_Info& database : databases)
            names.push_back(std::move(database.name));
        return true;
    } catch (json_spirit::Error const& fault) {
        log_bad_answer(fault);
        return false;
    }
}

std::string GaussDB_TPOPS_Client::get_version() const {
    return info_.version;
}

bool GaussDB_TPOPS_Client::test_logon() const {
    try {
        TPOPS_RESTful_Client client;
        return client.connect(login_info_);
    } catch (json_spirit::Error const& fault) {
        log_bad_answer(fault);
        return false;
    }
}

bool GaussDB_TPOPS_Client::query(char const*, std::vector<std::string>&, bool) const {
    return true;
}
