#ifndef GAUSSDB_JOB_GAUSSDB_UTILS_H
#define GAUSSDB_JOB_GAUSSDB_UTILS_H

#include "gaussdb/common/gaussdb_const.h"
#include "host/storage/client_io.h"
#include "json_spirit/secure_string.h"
#include "json_spirit/value.h"

#include <cstdint>
#include <string>
#include <vector>

class GaussDB_Client;
class Mount_Fuse;
struct Pool_Info;

/**
 * What the executors and the agent-side services share. All return false, or 0, on failure, after
 * one line in the log; none throws. They keep no state: any thread may call them.
 */

/**
 * Gets the instance's name out of a source entry, "gaussdb/INSTANCE/...", percent-encoded.
 * @param instance  unchanged on failure
 */
[[nodiscard]] bool parse_instance_entry(std::string const& entry, std::string& instance);

/**
 * Asks the backup server for the hosts of a cluster.
 * @param instance    the instance's name, on record here
 * @param host_uuids  the uuids are appended
 * @return false also when the server names no host.
 */
[[nodiscard]] bool get_cluster_host_uuids(char const* instance,
                                          std::vector<std::string>& host_uuids);

/** A TCP port that is free at the moment of the call; 0, with nothing logged, when there is none.
 */
uint16_t random_port();

/**
 * The account with which a user logs on to an instance.
 * @param uid   the user's uuid
 * @param user  gets the cluster's operating-system user, when the instance has one; may be null
 */
[[nodiscard]] bool get_instance_config(char const* instance, char const* uid, std::string& username,
                                       secure_string& password, std::string* user);

/** The operating-system user and the port of the running roach client service. */
[[nodiscard]] bool get_roach_client_info(std::string& user, uint16_t& port);

/**
 * Host, operating-system user and port of the running backUpAgent service, by its command line.
 * @param remote_ip  as the command line has it, with the quotes of a quoted host
 */
[[nodiscard]] bool get_backup_agent_info(std::string& remote_ip, std::string& user, uint16_t& port);

/**
 * Looks for a backUpAgent service with these settings.
 * @param user  gets its operating-system user
 */
[[nodiscard]] bool check_backup_agent_info(char const* host, uint16_t port, bool ssl,
                                           std::string& user);

/**
 * Checks that no other user runs a backUpAgent service with that host and port on its command line.
 * Any user can start such a process, and the service's user gets the key of a run, so neither of
 * two users is trusted.
 */
[[nodiscard]] bool has_one_backup_agent_user(char const* host, uint16_t port,
                                             std::string const& user);

/** Reads the attributes of an instance that was added by hand. */
[[nodiscard]] bool get_manual_instance_info(json_spirit::Object const& obj, std::string& meta_path,
                                            uint16_t& backup_port, std::string& address,
                                            std::string& source_commands, std::string& ssh_opts);

/** How many hosts the database has. */
unsigned int get_database_nodes_number(GaussDB_Client* client);
/** The hosts of the database; appended. */
[[nodiscard]] bool get_database_addresses(GaussDB_Client* client,
                                          std::vector<std::string>& addresses);
/** The schemas of the database that the client is connected to; appended. */
[[nodiscard]] bool get_schemas(GaussDB_Client* client, bool exclude_sys_schemas,
                               GaussDB_Version const& version, std::vector<std::string>& schemas);
/** The tables of a schema; appended. */
[[nodiscard]] bool get_tables(GaussDB_Client* client, std::string const& schema,
                              std::vector<std::string>& tables);

/**
 * Bytes of a size as the database's tools print it: "1.5 GB", "2 bytes".
 * @param val  unchanged on failure
 * @return false, with nothing logged, for a text without a number, without a known unit, or beyond
 *         the range.
 */
[[nodiscard]] bool to_byte(std::string const& s, int64_t& val);

/**
 * Hands the compression of a job's client, by its least level so that equal data stays equal, and
 * the encryption of its pool on to a mount.
 * @return false, with nothing logged, for one that the mount does not offer
 */
[[nodiscard]] bool set_fuse_for_dedup(Mount_Fuse& fuse, Client_IO_Base::Options const& io_opts,
                                      Pool_Info const& info);

#endif
