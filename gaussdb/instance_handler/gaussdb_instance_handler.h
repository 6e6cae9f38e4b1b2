#ifndef GAUSSDB_INSTANCE_HANDLER_GAUSSDB_INSTANCE_HANDLER_H
#define GAUSSDB_INSTANCE_HANDLER_GAUSSDB_INSTANCE_HANDLER_H

#include "host/agent/instance_handler.h"

#include <memory>

/**
 * The instances of the type "gaussdb", as the agent sees them outside of jobs. It keeps nothing:
 * what is known is in GaussDB_Cluster_Manager, so any thread may call it, and calls block while the
 * database's tools run.
 */
class GaussDB_Instance_Handler : public Instance_Handler {
public:
    GaussDB_Instance_Handler() : Instance_Handler("gaussdb") {}

    /**
     * Adds the instances of this host that are not on record yet, with their discovery's record as
     * options; what is on record keeps its own. Then brings back those on record that discovery
     * does not see: stopped ones by what was written down about them, and those that are reached
     * from afar by their options. One that cannot be brought back is logged and has no cluster.
     * @return 0
     */
    int probe_instances(instances_type& instances) override;
    /** The word that the cluster's tool uses; "error", logged, when there is none. */
    std::string& get_state(char const* name, std::string& state) override;
    /**
     * Two null pointers are an instance without an account, which is allowed and asks nobody. An
     * empty text is refused.
     * @return 0; -1, logged, when the instance is not known or does not take the account
     */
    int logon(char const* name, char const* username, char const* password,
              json_spirit::Object const* extra) override;
    /**
     * Enters "username" and "password", the latter encrypted under CREDENTIAL_KEY, for an instance
     * that keeps its account in its options: one with a "tpops_host". Others stay as they are.
     * @return 0; -1, with the options unchanged, when the account is not taken
     */
    int update_options(char const* name, char const* username, char const* password,
                       options_type& options) override;
    /** The processes and profiles that the last discovery refused. */
    std::vector<Instance_Alert> alerts() override;
    void forget(char const* name) override;
};

/**
 * Registers an instance of a TPOPS platform, without a request to the platform.
 * @return true if a cluster of its name exists, also from before; false, logged, if the record is
 *         incomplete: the instance stays on record and has no cluster
 */
[[nodiscard]] bool init_tpops_instance(std::shared_ptr<Instance const> instance);

#endif
