#ifndef GAUSSDB_COMMON_GAUSSDB_NON_INTRUSIVE_HANDLER_H
#define GAUSSDB_COMMON_GAUSSDB_NON_INTRUSIVE_HANDLER_H

#include "gaussdb/common/gaussdb_cluster_handler.h"

#include <cstdint>

/**
 * A cluster on whose machines no agent runs: all that is known of it is an address to log in to by
 * ssh, and the tools run there, under what the remote login gives. Its description is the record
 * that an administrator made, given by info(); of its extend_attrs these are read:
 *
 *   "address"          where to log in
 *   "source_commands"  shell text put before each remote command, in place of the flavour's own
 *   "ssh_options"      in place of "-o ConnectTimeout=4"
 *
 * How the two machines come to trust each other is ssh's affair.
 */
class GaussDB_Non_Intrusive_Handler : public GaussDB_Cluster_Handler {
public:
    explicit GaussDB_Non_Intrusive_Handler(GaussDB_Version const& version);

    void source_cmd(char const* cmd);
    void ssh_opts(char const* opts);

    /**
     * Takes over the record and asks the node for the server's port. Each call does so anew, with
     * the record as it is then; other threads see the values before or those after.
     *
     * The address has to be one word that is no option of ssh. A port that cannot be found is an
     * error line and no failure: the cluster may be down.
     * @param name  not used
     * @return false, with the handler as it was, after an error line for a record without a usable
     *         address and for DWS also when the XBSA library's link cannot be placed. Throws
     *         json_spirit::Error for a record with a value of the wrong kind.
     */
    [[nodiscard]] bool init(char const* name) override;

    /** The accounts are not used: who logs in by ssh is who logs on to the database. */
    GaussDB_Client_ptr create_client(char const* username, char const* password,
                                     char const* db) const override;
    [[nodiscard]] bool get_status(std::string& status, bool& balanced) const override;

private:
    /** How to reach the cluster; copied as a whole. */
    struct Access {
        uint16_t cn_port = 0; ///< 0 until the node has told it
        std::string cn_address;
        std::string source_cmd;
        std::string ssh_opts;

        /** "ssh <options> <address> '<prefix><command>'" */
        std::string remote(char const* command) const;
    };

    Access access() const;
    [[nodiscard]] bool init_for_dws(Access& access) const;
    [[nodiscard]] bool init_for_opengauss(Access& access) const;

    mutable std::mutex access_mutex_; ///< not held while a tool runs
    Access access_;                   ///< guarded by access_mutex_
};

/**
 * Decides the flavour of a version that a node has told: a data warehouse calls itself a cluster of
 * the 200 series. @return false for one that cannot be protected without an agent
 */
[[nodiscard]] bool settle_non_intrusive_flavour(GaussDB_Version& version);

#endif
