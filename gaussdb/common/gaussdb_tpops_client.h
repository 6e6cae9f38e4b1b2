#ifndef GAUSSDB_COMMON_GAUSSDB_TPOPS_CLIENT_H
#define GAUSSDB_COMMON_GAUSSDB_TPOPS_CLIENT_H

#include "gaussdb/common/gaussdb_client.h"
#include "gaussdb/common/tpops_defs.h"

/** The client of an instance that only its platform can reach. Each call logs in anew. */
class GaussDB_TPOPS_Client : public GaussDB_Client {
public:
    GaussDB_TPOPS_Client(GaussDB_TPOPS_Instance_Info info, TPOPS_Login login_info);

    /** In the platform's order. */
    [[nodiscard]] bool list_database(std::vector<std::string>& names) const override;
    /** The version on record; no request is made. */
    std::string get_version() const override;
    /** Whether the platform takes the login. */
    [[nodiscard]] bool test_logon() const override;
    /** No-op and true: a platform takes no SQL. */
    [[nodiscard]] bool query(char const* cmd, std::vector<std::string>& result,
                             bool log) const override;

private:
    GaussDB_TPOPS_Instance_Info info_;
    TPOPS_Login login_info_;
};

#endif
