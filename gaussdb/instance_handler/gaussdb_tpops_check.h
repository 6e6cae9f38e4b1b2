#ifndef GAUSSDB_INSTANCE_HANDLER_GAUSSDB_TPOPS_CHECK_H
#define GAUSSDB_INSTANCE_HANDLER_GAUSSDB_TPOPS_CHECK_H

#include "gaussdb/common/tpops_defs.h"
#include "host/agent/check_lines.h"
#include "host/agent/database_guide.h"

#include <vector>

class TPOPS_RESTful_Client;

/**
 * Looks at an instance that is reached through its TPOPS platform: whether the platform answers and
 * takes the login, knows the instance and finds it normal, and whether the platform's backup agent
 * runs on this host with the record's route to the XBSA service. Asks, and changes nothing. One
 * object is for one check, on any thread.
 */
class GaussDB_TPOPS_Check : private Check_Lines {
public:
    explicit GaussDB_TPOPS_Check(Instance const& instance);

    std::vector<Instance_Check> run(Database_Guide::Check_Scope scope);

private:
    [[nodiscard]] bool read_record();
    [[nodiscard]] bool login(TPOPS_RESTful_Client& client);
    void trust();
    void instance_there(TPOPS_RESTful_Client& client);
    void xbsa_route();

    Instance const& instance_;
    TPOPS_Login login_;
    GaussDB_TPOPS_Instance_Info record_;
};

#endif
