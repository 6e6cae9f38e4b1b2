#ifndef GAUSSDB_COMMON_GAUSSDB_CLUSTER_INFO_H
#define GAUSSDB_COMMON_GAUSSDB_CLUSTER_INFO_H

#include "json_spirit/value.h"

#include <cstdint>
#include <string>
#include <vector>

/** One role on one machine of a cluster. */
struct GaussDB_Nodes_Info {
    int32_t num = 0;   ///< how many instances of the role the machine has
    uint16_t port = 0; ///< base port
    uint16_t standby_port = 0;
    std::string ip;                ///< listen address
    std::vector<std::string> dirs; ///< in the order of the file
};

/** One machine of a cluster. */
struct GaussDB_Device_Info {
    std::string name; ///< its host name
    std::vector<std::string> back_ips;
    std::vector<std::string> ssh_ips;
    GaussDB_Nodes_Info cm_nodes;  ///< cluster manager
    GaussDB_Nodes_Info gtm_nodes; ///< global transaction manager
    GaussDB_Nodes_Info coordinators;
    GaussDB_Nodes_Info data_nodes; ///< a directory may carry ",host,directory..." of its standbys
};

/** A whole cluster. */
struct GaussDB_Cluster_Info {
    std::string name;
    std::string nodes;                        ///< the node names as one text, as the file has it
    std::string app_path;                     ///< where the database is installed
    std::string service_type;                 ///< "SingleService" or another word
    std::vector<GaussDB_Device_Info> devices; ///< in the order of the file
    /** What an administrator's record of the instance says; does not come from the file. */
    json_spirit::Object extend_attrs;
};

#endif
