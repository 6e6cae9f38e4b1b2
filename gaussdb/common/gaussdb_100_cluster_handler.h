#ifndef GAUSSDB_COMMON_GAUSSDB_100_CLUSTER_HANDLER_H
#define GAUSSDB_COMMON_GAUSSDB_100_CLUSTER_HANDLER_H

#include "gaussdb/common/gaussdb_cluster_handler.h"

#include <cstdint>

/** A cluster of the 100 series. It keeps its topology as XML, below GPHOME. */
class GaussDB_100_Cluster_Handler : public GaussDB_Cluster_Handler {
public:
    GaussDB_100_Cluster_Handler(GaussDB_Env const& env, std::string const& os_user,
                                GaussDB_Version const& version);

    /** @param name  not used */
    [[nodiscard]] bool init(char const* name) override;
    /** For the local coordinator, else for the local data node. */
    GaussDB_Client_ptr create_client(char const* username, char const* password,
                                     char const* db) const override;

private:
    [[nodiscard]] bool parse_as_user();
    void find_topology();
    void find_connection();

    std::string connect_dir_;   ///< data directory that zsql connects by
    uint16_t connect_port_ = 0; ///< 0 for none
};

#endif
