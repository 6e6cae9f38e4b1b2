#ifndef GAUSSDB_COMMON_GAUSSDB_CLUSTER_IDENTITY_H
#define GAUSSDB_COMMON_GAUSSDB_CLUSTER_IDENTITY_H

#include "json_spirit/value.h"

#include <map>
#include <string>

class GaussDB_Cluster_Handler;

/**
 * What tells a cluster from another one of the same user: a user's tools answer for the cluster
 * that the user has now, whatever its name. A part that cannot be seen is empty, and equals
 * anything.
 */
struct Cluster_Identity {
    std::string name;     ///< GS_CLUSTER_NAME of the user's profile
    std::string topology; ///< machines, ports and data directories
    std::string stamp;    ///< of the file that the topology was read from; changes with that
    /** The databases' own system identifiers, by data directory. */
    std::map<std::string, std::string> systems;

    /**
     * Looks at the cluster of a handler on this host: reads the profile and the control files with
     * the rights of the cluster's user, and has the topology read again if its file has changed.
     * @param known  its topology counts while the stamp is the same; without a stamp the handler's
     */
    static Cluster_Identity look(GaussDB_Cluster_Handler const& handler,
                                 Cluster_Identity const& known);

    /**
     * How a cluster differs from this record.
     * @param with_data  whether the databases count, too
     * @return a part of a sentence; "" for the same cluster
     */
    std::string difference(Cluster_Identity const& present, bool with_data) const;

    /** Takes over what this record does not say; the stamp in any case. @return true if changed */
    [[nodiscard]] bool complete(Cluster_Identity const& present);

    json_spirit::Object dump() const;
    /** @return false for an object that dump() did not make */
    [[nodiscard]] bool read(json_spirit::Object const& object);
};

#endif
