#ifndef GAUSSDB_COMMON_GAUSSDB_200_CLUSTER_HANDLER_H
#define GAUSSDB_COMMON_GAUSSDB_200_CLUSTER_HANDLER_H

#include "gaussdb/common/gaussdb_cluster_handler.h"

#include <atomic>
#include <cstdint>

/**
 * A cluster of the 200 series. It keeps its topology in a binary file, GAUSSHOME/bin/
 * cluster_static_config, of which the XML file is generated; a copy of the binary file is saved, so
 * that the handler can be made also when the cluster's own directory is gone.
 */
class GaussDB_200_Cluster_Handler : public GaussDB_Cluster_Handler {
public:
    GaussDB_200_Cluster_Handler(GaussDB_Env const& env, std::string const& os_user,
                                GaussDB_Version const& version);

    /**
     * @param name  the cluster's; names its files below the product's directories, so one that
     *              cannot be a file's name is refused
     *
     * Nothing is made below a GAUSSHOME that does not exist: the link to the XBSA library is then
     * made by a later call, when it does.
     */
    [[nodiscard]] bool init(char const* name) override;
    /** For the coordinator, else for the data node; the database "postgres". */
    GaussDB_Client_ptr create_client(char const* username, char const* password,
                                     char const* db) const override;
    /**
     * Tries the coordinator, then the data node. The one where the logon succeeded is where the
     * clients made from now on go.
     */
    [[nodiscard]] bool test_logon(char const* username, char const* password) override;

private:
    [[nodiscard]] bool generate_config(char const* name, std::string& live, std::string& saved);
    void find_ports();
    [[nodiscard]] bool is_installed() const;
    [[nodiscard]] bool place_library_link();

    bool is_link_missing_ = false;      ///< the installation was not there; guarded by init_mutex_
    uint16_t cn_port_ = 0;              ///< the coordinator's, 0 for none
    uint16_t dn_port_ = 0;              ///< the local data node's, 0 for none
    std::atomic<bool> login_cn_ = true; ///< clients go to the coordinator
    std::string cn_host_;               ///< "" when the coordinator is on this host
};

#endif
