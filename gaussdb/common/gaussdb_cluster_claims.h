#ifndef GAUSSDB_COMMON_GAUSSDB_CLUSTER_CLAIMS_H
#define GAUSSDB_COMMON_GAUSSDB_CLUSTER_CLAIMS_H

#include "gaussdb/common/gaussdb_env.h"
#include "host/process/process_view.h"

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

/** A process that says which cluster it belongs to. */
struct Cluster_Claim {
    Process_View process;
    std::string user;    ///< name of the process's user; its uid as text when that has no name
    std::string profile; ///< "" for the user's own
    std::string gphome;
    GaussDB_Env env{}; ///< what its tools run in
};

/**
 * Decides which processes discovery believes. A cluster belongs to the user on record. When it is
 * not on record, it belongs to the one user whose processes claim it and are verified; when there
 * are two such users, nobody is believed. So no process takes over the name of another user's
 * cluster, whichever was first.
 *
 * For one discovery, on one thread.
 */
class Cluster_Claims {
public:
    /** The user on record of a cluster: "" for one of no user here; nothing for an unknown name. */
    using Owner = std::function<std::optional<std::string>(std::string const& name)>;
    /**
     * Whether what the claim leads to belongs to its user; fills in the claim's env.
     * On false with a reason an alert is raised.
     */
    using Verifier = std::function<bool(Cluster_Claim& claim, std::string& reason)>;
    /** Tells an administrator. */
    using Alert = std::function<void(std::string const& name, std::string const& text)>;

    Cluster_Claims(Owner owner, Verifier verifier, Alert alert)
        : owner_(std::move(owner)), verifier_(std::move(verifier)), alert_(std::move(alert)) {}

    /** Of one user 16 names count: each costs a run of that user's tools. More raise an alert. */
    void add(std::string const& name, Cluster_Claim claim);
    /** The names, in the order in which they were first added. */
    std::vector<std::string> const& names() const { return names_; }

    /**
     * The claims of a name that are believed: all of one user, each of other files, in the order in
     * which they were added.
     * @param is_known  the cluster of the user on record is known: its claims are not looked at
     */
    std::vector<Cluster_Claim> believed(std::string const& name, bool is_known);

private:
    std::vector<Cluster_Claim> verified(std::string const& name,
                                        std::vector<Cluster_Claim> const& claims);
    [[nodiscard]] bool is_owner(std::string const& owner, Cluster_Claim const& claim) const;
    void refuse_other_user(std::string const& name, std::string const& owner,
                           Cluster_Claim const& claim);

    Owner owner_;
    Verifier verifier_;
    Alert alert_;
    std::vector<std::string> names_;
    std::map<std::string, std::vector<Cluster_Claim>> claims_;
    std::map<uid_t, std::set<std::string>> names_of_users_;
    std::set<uid_t> told_users_; ///< of whom an alert tells that they have too many
};

#endif
