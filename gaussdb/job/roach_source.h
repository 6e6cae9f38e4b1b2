#ifndef GAUSSDB_JOB_ROACH_SOURCE_H
#define GAUSSDB_JOB_ROACH_SOURCE_H

#include "gaussdb/common/gaussdb_const.h"
#include "gaussdb/job/tool_directory.h"
#include "host/storage/compression.h"
#include "host/storage/rate_limits.h"
#include "json_spirit/value.h"

#include <ace/Basic_Types.h>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

class ACE_Log_Msg_Callback;
class Client_IO_Ex;
struct Pool_Info;

using ACE_Log_Msg_Callback_var = std::shared_ptr<ACE_Log_Msg_Callback>;

/**
 * The backup tool's side of a backup, tied to the storage pool and the catalog.
 *
 * - The policy file tells the XBSA library under the tool where the data of a job goes. It is one
 *   JSON object in a file of mode 0640 that belongs to the cluster's user; it holds the host's
 *   access key.
 * - The other hosts of the cluster get and drop it by the JSON-RPC method gaussdb.roach_source.
 * - The tool's own metadata file and the cluster's static configuration go to the pool, under
 *   <cluster_id>/roach/<backup_key>, and come back.
 *
 * A value that is given everything when it is made. All operations return true for success; a
 * failure has been logged, unless they say otherwise. Two jobs must not have the same policy name,
 * nor work at once on one host's metadata directory: the caller keeps them apart.
 */
class Roach_Source {
public:
    /**
     * @param cluster_id   the job source's id: first folder of the remote path
     * @param device_uuid  the device that the pool is on
     * @param uuid         of the backup set
     * @param os_user      the cluster's operating-system user, who gets the local files
     * @param policy_name  a name that is_run_name() accepts; another one makes dump_policy() and
     *                     remove_policy() fail
     */
    Roach_Source(std::string cluster_id, std::string device_uuid, std::string pool_uuid,
                 std::string uuid, Compression_Method compression, int compression_level,
                 std::string os_user, ACE_INT64 max_seconds_retry, size_t resumption_buffer_size,
                 Rate_Limits const& rate_limits, GaussDB_Version const& version, bool full_backup,
                 std::string policy_name);

    /**
     * Makes the metadata and the media directory and gives them to the cluster's user. Another
     * user's are set aside; see Tool_Directory. A job of TPOPS does not use them and keeps
     * their owners.
     */
    [[nodiscard]] bool create_path();
    /**
     * Empties the metadata directory, with what another user has there set aside, once what an
     * earlier run has left has ended: see dump_policy().
     */
    void delete_meta();
    /**
     * Makes the directories, the cluster's folder in the pool, and the policy file: whole, and
     * never readable by others. Only on a thread that works for a run, whose key goes into the
     * policy.
     *
     * The run is the only one that uses the tool on this host: see Run_Hold. So policies that are
     * there were left by earlier runs, such as those of an agent that was killed. They are removed,
     * and the tool's programs that their owners have started since are ended first. Runs of TPOPS
     * do not use the tool: they remove nothing, and their policies are not removed.
     */
    [[nodiscard]] bool dump_policy();
    /**
     * Removes the policy file and the 100 series' metadata file, which a run of TPOPS leaves to
     * others. Neither need be there.
     */
    [[nodiscard]] bool remove_policy();
    /** Prefix of the names of TPOPS policies. */
    static constexpr char TPOPS_PREFIX[] = "tpops_";

    /** Removes the policy file alone, after a run that failed; logs nothing. */
    void drop_policy() const;

    /**
     * Gives the policy to hosts, in their order; stops at the first that fails. On this host it is
     * written; the others get a request.
     * @param backup_key   not null and not "": of a 200 series, each host fetches this backup's
     *                     metadata from the pool
     * @param definition_uuid  the job definition's id; used with @a catalogs
     * @param catalogs     the chain to be restored: the other hosts fetch the metadata of each; for
     *                     this host the caller does so. May be null
     * @param delete_meta  each host empties its metadata directory first
     */
    [[nodiscard]] bool notify(std::vector<std::string> const& host_uuids, char const* backup_key,
                              std::string const& definition_uuid,
                              json_spirit::Array const* catalogs, bool delete_meta);
    /**
     * Takes the policy back from hosts; stops at the first that fails.
     * @param dirs  data directories whose postmaster.pid goes on every host; may be null
     */
    [[nodiscard]] bool remove(std::vector<std::string> const& host_uuids,
                              std::set<std::string>* dirs, std::string const& definition_uuid);

    /**
     * Ends what the backup tool still runs on the hosts for a run that was cancelled, and takes the
     * policy back, on all hosts side by side. What fails is logged, and the others go on.
     * @param definition_uuid  the directory of that definition's metadata goes too; "" for none
     */
    void end(std::vector<std::string> const& host_uuids, std::string const& definition_uuid);
    /**
     * Ends the backup tool's programs on this host that the owner of the policy has started since
     * the policy was written. Nothing to do without a policy.
     * @return false, logged, when some do not end
     */
    [[nodiscard]] bool end_programs();

    /**
     * Removes postmaster.pid in those of the directories that belong to the cluster's user: to the
     * owner of the policy where this object does not name the user.
     */
    void remove_pid_files(std::vector<std::string> const& directories) const;

    /** Puts the metadata file and the static configuration of a backup into the pool and adds both
     * to the set. */
    [[nodiscard]] bool backup_meta(char const* backup_key);
    /** Gets them back into the metadata directory. */
    [[nodiscard]] bool restore_meta(char const* backup_key);

    /**
     * Brings a backup's metadata directory back out of its archive.
     * @param catalog      "minor_resource_id", "host_uuid", "backup_key", "meta_destination",
     *                     "seq"; the destination has to be meta_path()
     * @param cache_dir    where it is unpacked before it moves to its place; made for root alone
     * @param new_cluster  a directory that is there is replaced; else it is left as it is, and that
     *                     is a success
     * @param log_msg_callback  gets what is logged during the restore; may be null
     */
    [[nodiscard]] bool restore_roach_metadata(json_spirit::Object const& catalog,
                                              std::string const& pool_uuid,
                                              std::string const& definition_uuid,
                                              std::string const& cache_dir,
                                              std::string const& os_user, bool new_cluster,
                                              ACE_Log_Msg_Callback_var log_msg_callback);

    /**
     * The directory that holds a backup's metadata, below the metadata directory that the tool was
     * given: <meta_destination>/<backup_key> or, where the tool keeps its backups in a directory
     * of their own, <meta_destination>/roach/<backup_key>. restore_roach_metadata() brings either
     * back as the latter.
     */
    static std::string metadata_directory(std::string const& meta_destination,
                                          std::string const& backup_key);

    std::string const& meta_path() const { return meta_path_; }
    std::string const& media_path() const { return media_path_; }

    /** The cluster's user; none for an unknown name. */
    std::optional<uid_t> user_id() const;

    /** True for an id, which can be a name in a path: see names::fault_of_id(). */
    [[nodiscard]] static bool is_single_name(std::string const& name);
    /**
     * True for what can be the name of a policy or of a job's directory: a single name which is not
     * one of the files that are kept beside them, as those of a cluster that is known here.
     */
    [[nodiscard]] static bool is_run_name(std::string const& name);
    /** The directory of a job definition's restored metadata, "" for an id that is no run's name.
     */
    static std::string cache_directory(std::string const& definition_uuid);
    /** Removes it; false for an id that is no run's name, and for what is not such a directory. */
    [[nodiscard]] static bool remove_cache_directory(std::string const& definition_uuid);

private:
    std::string policy_file() const;
    /** False for TPOPS: its jobs use neither the tool nor its directories. */
    [[nodiscard]] bool uses_tool() const { return version_.model_ != GAUSSDB_TPOPS; }
    [[nodiscard]] static bool end_earlier_runs();
    json_spirit::Object route() const;
    json_spirit::Object add_request() const;
    json_spirit::Object remove_request(std::string const& definition_uuid) const;
    [[nodiscard]] bool add_here(char const* backup_key, bool delete_meta);
    [[nodiscard]] bool connect_pool(Client_IO_Ex& io, std::string const& folder);
    [[nodiscard]] bool put_meta(Client_IO_Ex& io, std::string const& name,
                                std::string const& folder, char const* what,
                                json_spirit::Array& pieces);
    [[nodiscard]] bool get_meta(Client_IO_Ex& io, std::string const& name, char const* what);
    [[nodiscard]] static bool is_backup_key(char const* backup_key);
    [[nodiscard]] bool are_ids_valid() const;
    [[nodiscard]] bool prepare_pool();
    Tool_Directory meta() const;
    std::string static_config() const;
    std::string compression_name() const;

    std::string cluster_id_;
    std::string device_uuid_;
    std::string pool_uuid_;
    std::string uuid_;
    Compression_Method compression_;
    int compression_level_;
    std::string os_user_;
    std::string meta_path_;
    std::string media_path_;
    ACE_INT64 max_seconds_retry_;
    size_t resumption_buffer_size_;
    Rate_Limits rate_limits_;
    GaussDB_Version version_;
    bool full_backup_;
    std::string policy_name_;
};

#endif
