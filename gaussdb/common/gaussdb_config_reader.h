#ifndef GAUSSDB_COMMON_GAUSSDB_CONFIG_READER_H
#define GAUSSDB_COMMON_GAUSSDB_CONFIG_READER_H

class GaussDB_Env;

/**
 * Makes a cluster's XML file from its binary configuration file, by the product's script
 * probe_gaussdb_config. The script loads code that belongs to the cluster, so it runs as the
 * cluster's user, with the variables of @a env, and hands the XML to the agent through a pipe. The
 * interpreter is /usr/bin/python3, or /usr/bin/python, whatever the PATH.
 *
 * @param env          has GPHOME, below which the database's own scripts lie
 * @param os_user      the cluster's user; root is refused. Must be able to read @a conf_path.
 * @param xml          the file to make. Whatever stands there is removed first, a directory with
 *                     all that is in it, so that nothing stale can be read after a failure.
 * @param conf_path    the binary file
 * @param use_python3  run the script by python3, otherwise by python where there is one
 * @return true when the script ended with 0 and at most 16 MiB of XML; the file then belongs to
 *         @a os_user. False after an error line. A file that cannot be given away costs a warning
 *         only.
 */
[[nodiscard]] bool generate_gaussdb_config(GaussDB_Env const& env, char const* os_user,
                                           char const* xml, char const* conf_path,
                                           bool use_python3);

#endif
