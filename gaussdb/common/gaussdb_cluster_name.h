#ifndef GAUSSDB_COMMON_GAUSSDB_CLUSTER_NAME_H
#define GAUSSDB_COMMON_GAUSSDB_CLUSTER_NAME_H

#include <string>

/**
 * True for a cluster's name that can name the cluster's files in the product's directories, and can
 * stand on the command lines of tools: see names::fault_of_instance(). A name comes from a
 * process's environment, from a profile or from a request. One that is refused is an error line.
 */
[[nodiscard]] bool is_cluster_file_name(std::string const& name);

#endif
