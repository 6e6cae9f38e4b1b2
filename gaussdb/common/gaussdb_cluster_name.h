#ifndef GAUSSDB_COMMON_GAUSSDB_CLUSTER_NAME_H
#define GAUSSDB_COMMON_GAUSSDB_CLUSTER_NAME_H

#include <string>

/**
 * True for a cluster's name that can name the cluster's files in the product's directories, on the
 * command lines of tools, too. A name comes from a process's environment, from a profile or from a
 * request, so it is refused, with an error line, when it is "", "." or "..", has a "/", a blank, a
 * quote, a backslash or a control character in it, or is too long for a file's name with an ending.
 */
bool is_cluster_file_name(std::string const& name);

#endif
