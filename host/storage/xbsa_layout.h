#ifndef HOST_STORAGE_XBSA_LAYOUT_H
#define HOST_STORAGE_XBSA_LAYOUT_H

#include <string>

/**
 * Where the XBSA library keeps what the database's backup tool hands it:
 *
 *     <cluster>/xbsa/<set>/...    all of one backup set, and nothing else
 *
 * The library writes there, and the agent removes there what a set that is dropped has left.
 */
inline std::string xbsa_cluster_folder(std::string const& cluster_id) {
    return cluster_id + "/xbsa";
}

/** Whether the name of a folder in a pool is that of a cluster's. */
inline bool is_xbsa_cluster_folder(std::string const& name) {
    size_t const slash = name.find('/');
    return slash != std::string::npos && name == xbsa_cluster_folder(name.substr(0, slash));
}

inline std::string xbsa_set_folder(std::string const& cluster_id, std::string const& set) {
    return xbsa_cluster_folder(cluster_id) + "/" + set;
}

#endif
