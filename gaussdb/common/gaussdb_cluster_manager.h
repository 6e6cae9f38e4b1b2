#ifndef GAUSSDB_COMMON_GAUSSDB_CLUSTER_MANAGER_H
#define GAUSSDB_COMMON_GAUSSDB_CLUSTER_MANAGER_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "host/agent/instance_handler.h"
#include "json_spirit/value.h"

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string>
#include <vector>

class Cluster_Claims;
class GaussDB_Env;
struct Cluster_Claim;
struct Service_Info;

/**
 * The clusters that this agent knows, by name, and the discovery of those that run on this host. A
 * process that looks like the database is asked for its environment through /proc; that says which
 * profile to read and which cluster it belongs to. What was learned is also written down, so that a
 * cluster that is stopped can be brought back.
 *
 * A process is believed only if its user is the one on record for the cluster, or there is no such
 * record, and if that user owns what the process leads to (see gaussdb_ownership.h). The record is
 * the agent's instance of that name, or else the handler that is known here. What is refused raises
 * an alert and changes nothing.
 *
 * May be used on any thread. One discovery runs at a time, so that a new cluster is asked once; it
 * holds no lock that get_cluster(), cluster_exists(), add_cluster() and remove_cluster() want while
 * a tool runs. What it finds is entered when its handler is ready. Names that cannot name a file
 * are refused (see gaussdb_cluster_name.h).
 */
class GaussDB_Cluster_Manager {
public:
    using map_type = std::map<std::string, GaussDB_Cluster_Handler_var>;

    /** The process's own; null, with ENOMEM, when there is no memory. */
    static GaussDB_Cluster_Manager* instance();
    /** Ends it. No other thread may use it any more; a later instance() makes a new one. */
    static void close_instance();

    GaussDB_Cluster_Manager() = default;
    GaussDB_Cluster_Manager(GaussDB_Cluster_Manager const&) = delete;
    GaussDB_Cluster_Manager& operator=(GaussDB_Cluster_Manager const&) = delete;

    /**
     * Runs discovery, then appends a record for each known cluster, by name. GaussDB T is looked
     * for only when list_cluster() fails, as it does on a host that has no other flavour.
     *
     * A record has "instance", "nodes", "app_path", "user", "version" (the flavour, a
     * GAUSSDB_VERSION) and "edition" (the version, "8.1.1"). A cluster that was declared by hand
     * has the record that was declared, which its "manual" says.
     */
    [[nodiscard]] bool get_instances(json_spirit::Array& instances);

    /** What the last discovery refused. */
    std::vector<Instance_Alert> alerts() const;

    /**
     * Brings back a cluster that discovery did not see, by what was written down about it. It has
     * to belong to @a user as a running one has to. A handler of another user is replaced.
     * @param version  its flavour, a GAUSSDB_VERSION  @param edition  its version, "8.1.1"
     * @return true when it is known now or was before; false for a flavour of which nothing is
     *         written down, and after an error line for all else
     */
    bool update_offline_instance(char const* name, char const* user, int version,
                                 std::string const& edition);

    /** The handler; an empty pointer for an unknown name. */
    GaussDB_Cluster_Handler_var get_cluster(char const* name) const;
    [[nodiscard]] bool cluster_exists(char const* name) const;
    /** Enters a handler. On true it is this object's; on false, which is logged, the caller's. */
    [[nodiscard]] bool add_cluster(char const* name, GaussDB_Cluster_Handler* handler);
    /** Takes a cluster out; who holds its handler keeps it. True also for an unknown name. */
    bool remove_cluster(char const* name);

    /**
     * Discovery of the flavours with gsql, with load_config_cluster() when there is no cluster at
     * all. Clusters known before have their handlers' init() called again; one whose init() fails
     * is taken out.
     * @return false when processes cannot be listed, or no cluster is known in the end and no
     *         profile is configured
     */
    [[nodiscard]] bool list_cluster();
    /**
     * Enters the cluster of the profile that GAUSSDB_MPPDBGS_PROFILE names, which need not be
     * running, and whose owner is the cluster's user. Its init() follows in list_cluster().
     * @return false when the profile is not trusted, which raises an alert; false with nothing
     *         logged when there is no such variable or no cluster's name in the profile
     */
    [[nodiscard]] bool load_config_cluster();

    /**
     * Whether the cluster that the tools of @a name answer for is the one that was recorded when it
     * was found: see Cluster_Identity. Clusters that were not found on this host have no record.
     * Runs a tool only when the topology's file has changed.
     * @param fault  when false: what differs and what to do, one sentence
     */
    [[nodiscard]] bool is_same_cluster(char const* name, bool with_data, std::string& fault);
    /** Whether its user still owns its tools, as when it was found. @param fault  as above */
    [[nodiscard]] bool owns_its_tools(char const* name, std::string& fault) const;
    /** Its databases are others now, and rightly: after a restore. */
    void record_data(char const* name);
    /** Drops what was recorded; the next discovery records the cluster as it is then. */
    void forget_record(char const* name);

    /** Discovery of GaussDB T. @return false only when processes cannot be listed. */
    [[nodiscard]] bool list_gaussdb_t();
    [[nodiscard]] bool list_gaussdb_t_single();

    /**
     * The environment of a cluster between runs of the agent: one JSON object of strings in the
     * file <name>_env below /var/cache/quilmot/zenbrak3/gaussdb, mode 0640. Failures are logged.
     * A file that anybody but this process's user can change is not loaded.
     */
    [[nodiscard]] bool dump_env(std::string const& name, GaussDB_Env const& env);
    [[nodiscard]] bool load_env(std::string const& name, GaussDB_Env& env);

    /** The listener's port by cfg/zengine.ini of a data directory; 0 when it does not say. */
    unsigned short get_lsnr_port(char const* gaussdb_data);

private:
    [[nodiscard]] bool list_cluster_i();
    void gather_claims(std::vector<Service_Info> const& services, Cluster_Claims& claims);
    [[nodiscard]] bool detect_cluster(std::string const& name,
                                      std::vector<Cluster_Claim> const& claims, map_type& found);
    [[nodiscard]] bool detect_config_cluster(map_type& found);
    void init_clusters(map_type const& found);
    [[nodiscard]] bool list_gaussdb_t_single_i();
    void add_gaussdb_t_claim(Service_Info const& service, Cluster_Claims& claims);
    [[nodiscard]] bool detect_gaussdb_t(std::string const& name,
                                        std::vector<Cluster_Claim> const& claims);

    std::optional<std::string> owner_of(std::string const& name) const;
    [[nodiscard]] bool is_owner_of(std::string const& name, uid_t uid, std::string& reason) const;
    void drop_of_other_user(std::string const& name, std::string const& user);
    void drop_overruled();
    void raise_alert(std::string const& name, std::string const& text);
    void publish_alerts(bool keep_others);
    void check_records();
    [[nodiscard]] bool is_found_here(std::string const& name) const;

    map_type snapshot() const;
    bool enter(std::string const& name, GaussDB_Cluster_Handler_var const& handler);
    void take_out(std::string const& name, GaussDB_Cluster_Handler_var const& handler);

    mutable std::shared_mutex clusters_mutex_;   ///< never held while a tool runs
    map_type clusters_;                          ///< guarded by clusters_mutex_
    std::set<std::string> found_here_;           ///< by discovery; guarded by clusters_mutex_
    std::mutex records_mutex_;                   ///< one look at what was recorded at a time
    std::mutex discovery_mutex_;                 ///< one discovery at a time; taken first
    std::vector<Instance_Alert> pending_alerts_; ///< of this discovery; guarded by discovery_mutex_
    mutable std::mutex alerts_mutex_;
    std::vector<Instance_Alert> alerts_; ///< guarded by alerts_mutex_
};

/** What the module does when it is unloaded. */
void GaussDB_Cluster_Manager_fini();

/**
 * Reads from a process's environment which cluster it belongs to.
 * @param profile  MPPDB_ENV_SEPARATE_PATH, "" without it
 * @param name     GS_CLUSTER_NAME, "" without it
 * @param gphome   GPHOME; left alone without it
 * @return true when there is a name, and a profile or a non-empty @a gphome. An environment that
 *         cannot be read is logged.
 */
[[nodiscard]] bool get_cluster_environ_var(int pid, std::string& profile, std::string& name,
                                           std::string& gphome);

#endif
