#include "gaussdb/job/roach_source.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/gaussdb_event_handler.h"
#include "gaussdb/job/tool_directory.h"
#include "host/agent/host_manager.h"
#include "host/agent/host_services.h"
#include "host/catalog/catalog_operator.h"
#include "host/mtf/mtf_restore.h"
#include "host/process/password_file_entry.h"
#include "host/process/process_tree.h"
#include "host/rpc/json_rpc_forward.h"
#include "host/rpc/websocket_options.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/pool_info.h"
#include "host/storage/xbsa_folder.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/path.h"

#include <algorithm>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr char ROOT[] = "/var/cache/quilmot/zenbrak3/gaussdb";
constexpr char META_FILE[] = "backups.ini";
/** Below the metadata directory: where the tool keeps each backup's. */
constexpr char TOOL_FOLDER[] = "roach";

std::string subdirectory(char const* leaf) {
    return Path_Conf(ROOT, true, leaf, 0755).c_str();
}

/** Who runs the tool of a policy: its owner. */
bool owner_of_policy(std::string const& policy, uid_t& uid) {
    struct stat status;
    if (policy.empty() || lstat(policy.c_str(), &status) == -1 || !S_ISREG(status.st_mode))
        return false;
    uid = status.st_uid;
    return true;
}

/** Removes the file only where the user could do so, too: in a directory of that user. */
void unlink_pid_file(std::string const& directory, uid_t user) {
    File_Descriptor const opened(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!opened || fstat(opened.get(), &status) == -1)
        return; // it may never have been there
    if (status.st_uid == user && user != 0)
        unlinkat(opened.get(), "postmaster.pid", 0);
    else
        QMRT_LOG(LM_WARNING,
                 "Not removing postmaster.pid in %s, the directory is not that of "
                 "user #%u\n",
                 names::shown(directory).c_str(), user);
}

/** What the backup tool is made of: its master, and the agent that it starts on each host. */
std::set<std::string> const TOOL_PROGRAMS{"GaussRoach.py", "gs_roach"};

/** Between SIGTERM and SIGKILL, in seconds: the tool's agents have sessions to end. */
constexpr time_t PROGRAM_GRACE = 3;

/** Seconds since the policy was written here; no program of its run is older. */
bool age_of_policy(std::string const& policy, time_t& age) {
    struct stat status;
    if (lstat(policy.c_str(), &status) == -1)
        return false;
    age = std::max<time_t>(0, time(nullptr) - status.st_mtime) + 1;
    return true;
}

/** Ends the tool's programs that the owner of a policy has started since it was written. */
bool end_programs_of(std::string const& policy) {
    User_Programs programs{0, TOOL_PROGRAMS, 0};
    if (!owner_of_policy(policy, programs.user) || !age_of_policy(policy, programs.max_age))
        return true; // no run has a policy here, so the tool has nothing to do here
    if (end_programs(programs, PROGRAM_GRACE))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to end the backup tool's programs of user #%u\n", programs.user);
    return false;
}

/** The policies on this host: nothing else in the directory is another user's file. */
std::vector<std::string> policies_here() {
    std::vector<std::string> found;
    std::error_code ignored;
    for (auto const& entry : std::filesystem::directory_iterator(ROOT, ignored)) {
        uid_t owner = 0;
        // those of TPOPS may be in use: see GaussDB_TPOPS_Run
        std::string const name = entry.path().filename();
        if (!name.starts_with(Roach_Source::TPOPS_PREFIX) && Roach_Source::is_run_name(name) &&
            owner_of_policy(entry.path(), owner) && owner != geteuid())
            found.push_back(entry.path());
    }
    return found;
}

/** A directory of root's alone, to unpack in. */
int make_private_directory(std::string const& path) {
    struct stat status;
    if (mkdir(path.c_str(), 0700) == 0)
        return 0;
    if (errno != EEXIST || lstat(path.c_str(), &status) == -1)
        return -1;
    if (S_ISDIR(status.st_mode) && status.st_uid == geteuid())
        return chmod(path.c_str(), 0700);
    errno = EEXIST;
    return -1;
}

bool forward(json_spirit::Object const& request, std::string const& host_uuid) {
    if (json_rpc_forward("gaussdb.roach_source", request, host_uuid, nullptr,
                         json_spirit::null_type))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to notify roach policy to agent %s\n", host_uuid.c_str());
    return false;
}

bool is_this_host(std::string const& host_uuid) {
    return host_uuid == Host_Manager::instance()->uuid();
}

} // namespace

Roach_Source::Roach_Source(std::string cluster_id, std::string device_uuid, std::string pool_uuid,
                           std::string uuid, Compression_Method compression, int compression_level,
                           std::string os_user, ACE_INT64 max_seconds_retry,
                           size_t resumption_buffer_size, Rate_Limits const& rate_limits,
                           GaussDB_Version const& version, bool full_backup,
                           std::string policy_name)
    : cluster_id_(std::move(cluster_id)),
      device_uuid_(std::move(device_uuid)),
      pool_uuid_(std::move(pool_uuid)),
      uuid_(std::move(uuid)),
      compression_(compression),
      compression_level_(compression_level),
      os_user_(std::move(os_user)),
      meta_path_(subdirectory("meta")),
      media_path_(subdirectory("media")),
      max_seconds_retry_(max_seconds_retry),
      resumption_buffer_size_(resumption_buffer_size),
      rate_limits_(rate_limits),
      version_(version),
      full_backup_(full_backup),
      policy_name_(std::move(policy_name)) {}

bool Roach_Source::is_single_name(std::string const& name) {
    return names::fault_of_id(name).empty();
}

bool Roach_Source::is_run_name(std::string const& name) {
    if (!names::fault_of_policy(name).empty())
        return false;
    for (std::string const own : {"meta.", "media."}) // what Tool_Directory sets aside
        if (name.starts_with(own))
            return false;
    struct stat status;
    return !GaussDB_Cluster_Manager::instance()->cluster_exists(name.c_str()) &&
           lstat(string_sprintf("%s/%s_env", ROOT, name.c_str()).c_str(), &status) == -1;
}

std::string Roach_Source::cache_directory(std::string const& definition_uuid) {
    return is_run_name(definition_uuid) ? string_sprintf("%s/%s", ROOT, definition_uuid.c_str())
                                        : std::string();
}

bool Roach_Source::remove_cache_directory(std::string const& definition_uuid) {
    std::string const path = cache_directory(definition_uuid);
    struct stat status;
    if (path.empty() || lstat(path.c_str(), &status) == -1)
        return !path.empty();
    // it is made by this process, for this process alone
    return S_ISDIR(status.st_mode) && status.st_uid == geteuid() && rm_rf(path.c_str()) == 0;
}

std::string Roach_Source::metadata_directory(std::string const& meta_destination,
                                             std::string const& backup_key) {
    std::string const plain = string_sprintf("%s/%s", meta_destination.c_str(), backup_key.c_str());
    std::string const below_roach =
        string_sprintf("%s/roach/%s", meta_destination.c_str(), backup_key.c_str());
    return !is_directory(plain.c_str()) && is_directory(below_roach.c_str()) ? below_roach : plain;
}

/** "", logged, for a name that a policy cannot have. */
std::string Roach_Source::policy_file() const {
    if (is_run_name(policy_name_)) {
        std::string const path = Path_Conf(ROOT, true, policy_name_.c_str(), 0750).c_str();
        if (!path.empty() && !is_directory(path.c_str()))
            return path;
    }
    QMRT_LOG(LM_ERROR, "Invalid policy name '%s'\n", names::shown(policy_name_).c_str());
    return "";
}

Tool_Directory Roach_Source::meta() const {
    return {meta_path_, os_user_};
}

std::optional<uid_t> Roach_Source::user_id() const {
    return meta().uid();
}

std::string Roach_Source::compression_name() const {
    char const* const name = compression_value_to_name(compression_);
    return name ? name : "";
}

std::string Roach_Source::static_config() const {
    return version_ >= GAUSSDB_A_811 ? "bak_cluster_static_config.common"
                                     : "bak_cluster_static_config";
}

// the policy

bool Roach_Source::create_path() {
    if (!user_id())
        return false;
    for (std::string const& path : {meta_path_, media_path_}) {
        int const made =
            uses_tool() ? Tool_Directory(path, os_user_).make() : mkdir_p(path.c_str(), 0750);
        if (made == -1) {
            QMRT_LOG(LM_ERROR, "Failed to mkdir %s, errno=%d, %m\n", path.c_str(), errno);
            return false;
        }
    }
    return true;
}

void Roach_Source::delete_meta() {
    (void)end_earlier_runs(); // dump_policy() tries again and fails
    // only what is this user's: another user's comes back with that user
    Tool_Directory const directory = meta();
    if (directory.make() == 0 && directory.remove() == -1)
        QMRT_LOG(LM_ERROR, "Failed to remove %s, errno=%d, %m\n", meta_path_.c_str(), errno);
}

/** What policy file and request have in common. */
json_spirit::Object Roach_Source::route() const {
    json_spirit::Object object;
    json_spirit::insert(object)("cluster_id", cluster_id_)("device_uuid", device_uuid_)(
        "pool_uuid", pool_uuid_)("uuid", uuid_)("retry", static_cast<int64_t>(max_seconds_retry_))(
        "resumption_buffer_size", static_cast<uint64_t>(resumption_buffer_size_))(
        "compression", compression_name())("compression_level", compression_level_)(
        "version", static_cast<int>(version_.model_))("major", version_.major_)("full_backup",
                                                                                full_backup_);
    rate_limits_.to_string_in_object(object, ';', false);
    return object;
}

/** The tool is run as the user soon, and must have its place in the pool: its own and no other. */
bool Roach_Source::prepare_pool() {
    if (os_user_.empty() || cluster_id_.empty())
        return true;
    Pool_Info info;
    std::shared_ptr<Pool_Backend> const pools = Host_Services::instance().pools();
    // what cannot be found or reached now is told by who needs it; nothing is open without this
    if (!pools || !pools->find(pool_uuid_, info))
        return true;
    bool const writes = !uuid_.empty() && !info.read_only;
    Storage_Result const prepared =
        writes ? give_xbsa_folder(info.url, cluster_id_, os_user_)
               : check_xbsa_folder_readable(info.url, cluster_id_, os_user_);
    if (prepared.code() == Storage_Result::UNREACHABLE) {
        // a pool may come back while the tool tries again
        QMRT_LOG(LM_INFO, "Pool %s is not prepared, %s\n", info.name.c_str(),
                 prepared.text().c_str());
        return true;
    }
    if (!prepared)
        QMRT_LOG(LM_ERROR, "Failed to prepare pool %s, %s\n", info.name.c_str(),
                 prepared.text().c_str());
    return bool(prepared);
}

/** They become names in a pool. */
bool Roach_Source::are_ids_valid() const {
    if ((cluster_id_.empty() || is_single_name(cluster_id_)) &&
        (uuid_.empty() || is_single_name(uuid_)))
        return true;
    QMRT_LOG(LM_ERROR, "Invalid id of a cluster or a backup set: '%s', '%s'\n",
             names::shown(cluster_id_).c_str(), names::shown(uuid_).c_str());
    return false;
}

bool Roach_Source::dump_policy() {
    std::string const path = policy_file();
    secure_string const key = Host_Manager::instance()->access_key();
    if (key.empty()) {
        // whoever reads the policy could do all that the key of an agent opens
        QMRT_LOG(LM_ERROR, "Failed to write policy '%s': this thread works for no run\n",
                 policy_name_.c_str());
        return false;
    }
    if (path.empty() || !are_ids_valid() || (uses_tool() && !end_earlier_runs()) ||
        !create_path() || !prepare_pool())
        return false;
    WebSocket_Options const& server = *WebSocket_Options::instance();
    json_spirit::Object policy = route();
    json_spirit::insert(policy)("access_key", key)("backupd_host", server.host())(
        "backupd_port", static_cast<int>(server.port()))("backupd_ssl", server.ssl());
    Password_File_Entry user;
    if (!os_user_.empty() && user.get(os_user_.c_str()) == -1)
        return false; // create_path() has refused it already
    // not the user's group, in which other databases' users may be
    File_Owner const owner{user.uid(), getegid()};
    return dump_json(path.c_str(), json_spirit::Value(std::move(policy)), 0, false, 0640,
                     os_user_.empty() ? nullptr : &owner);
}

bool Roach_Source::remove_policy() {
    std::string const path = policy_file();
    return !path.empty() && rm_rf(path.c_str()) == 0 &&
           (!uses_tool() ||
            rm_rf(Path_Conf(ROOT, true, "meta/backupset_nbu.ini", 0750).c_str()) == 0);
}

void Roach_Source::drop_policy() const {
    if (is_run_name(policy_name_))
        unlink(Path_Conf(ROOT, true, policy_name_.c_str(), 0750).c_str());
}

// the other hosts

json_spirit::Object Roach_Source::add_request() const {
    json_spirit::Object request = route();
    json_spirit::insert(request)("action", "add")("os_user", os_user_)("minor", version_.minor_)(
        "patch", version_.patch_)("policy_name", policy_name_);
    return request;
}

json_spirit::Object Roach_Source::remove_request(std::string const& definition_uuid) const {
    json_spirit::Object request;
    json_spirit::insert(request)("action", "remove")("definition_uuid", definition_uuid)(
        "uuid", uuid_)("policy_name", policy_name_)("pool_uuid", pool_uuid_);
    return request;
}

bool Roach_Source::notify(std::vector<std::string> const& host_uuids, char const* backup_key,
                          std::string const& definition_uuid, json_spirit::Array const* catalogs,
                          bool delete_meta) {
    json_spirit::Object request = add_request();
    if (delete_meta)
        json_spirit::insert(request)("delete_meta_path", meta_path_);
    if (catalogs)
        json_spirit::insert(request)("catalogs", *catalogs)("definition_uuid", definition_uuid);
    if (backup_key && *backup_key)
        json_spirit::insert(request)("backup_key", backup_key);
    return std::all_of(host_uuids.begin(), host_uuids.end(), [&](std::string const& host) {
        return is_this_host(host) ? add_here(backup_key, delete_meta) : forward(request, host);
    });
}

bool Roach_Source::add_here(char const* backup_key, bool delete_meta) {
    if (delete_meta && !meta_path_.empty())
        this->delete_meta();
    if (!dump_policy())
        return false;
    return version_.model_ != GAUSSDB_200 || !backup_key || !*backup_key ||
           restore_meta(backup_key);
}

bool Roach_Source::remove(std::vector<std::string> const& host_uuids, std::set<std::string>* dirs,
                          std::string const& definition_uuid) {
    json_spirit::Object request = remove_request(definition_uuid);
    if (dirs) {
        json_spirit::insert(request)("dirs", json_spirit::Array(dirs->begin(), dirs->end()));
        remove_pid_files({dirs->begin(), dirs->end()});
    }
    return std::all_of(host_uuids.begin(), host_uuids.end(), [&](std::string const& host) {
        if (!is_this_host(host))
            return forward(request, host);
        (void)remove_policy(); // what it could not remove, it has told
        return true;
    });
}

bool Roach_Source::end_programs() {
    return end_programs_of(policy_file());
}

bool Roach_Source::end_earlier_runs() {
    for (std::string const& policy : policies_here()) {
        if (!end_programs_of(policy))
            return false;
        if (unlink(policy.c_str()) == 0)
            QMRT_LOG(LM_INFO, "Removed %s, which an earlier run has left\n", policy.c_str());
    }
    return true;
}

void Roach_Source::end(std::vector<std::string> const& host_uuids,
                       std::string const& definition_uuid) {
    json_spirit::Object request = remove_request(definition_uuid);
    request["action"] = "end";
    secure_string const key = Host_Manager::instance()->access_key();
    std::vector<std::thread> others; // side by side: each may take some seconds
    for (std::string const& host : host_uuids)
        if (!is_this_host(host))
            others.emplace_back([&request, &key, host] {
                Host_Manager::instance()->access_key(key);
                forward(request, host);
            });
    if (std::ranges::any_of(host_uuids, is_this_host)) {
        (void)end_programs();
        (void)remove_policy();
    }
    for (std::thread& other : others)
        other.join();
}

void Roach_Source::remove_pid_files(std::vector<std::string> const& directories) const {
    uid_t user = user_id().value_or(0);
    if (os_user_.empty() && !owner_of_policy(policy_file(), user))
        return; // no run of this host has these directories
    for (std::string const& directory : directories)
        unlink_pid_file(directory, user);
}

// the metadata and the pool

/** Connects to a folder below the pool's; "" for its own. */
bool Roach_Source::connect_pool(Client_IO_Ex& io, std::string const& folder) {
    Client_IO_Base::Options opts;
    opts.compression_method = COMPR_AUTO;
    opts.max_seconds_retry = static_cast<uint64_t>(std::max<ACE_INT64>(max_seconds_retry_, 0));
    Pool_Info info;
    if (!get_pool_info(pool_uuid_, device_uuid_.c_str(), info, false, opts.max_seconds_retry)) {
        QMRT_LOG(LM_ERROR, "Failed to get pool (%s) info\n", pool_uuid_.c_str());
        return false;
    }
    if (!set_options_by_pool(opts, info)) {
        QMRT_LOG(LM_ERROR, "Invalid encryption setting of '%s' for GaussDB\n", info.name.c_str());
        return false;
    }
    set_options_by_host(opts);
    std::string const location = folder.empty() ? info.url : info.url + "/" + folder;
    if (io.connect(location.c_str(), opts))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to connect %s, %s\n", location.c_str(), io.error().c_str());
    return false;
}

bool Roach_Source::put_meta(Client_IO_Ex& io, std::string const& name, std::string const& folder,
                            char const* what, json_spirit::Array& pieces) {
    std::string content;
    if (meta().read(name, content) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to backup %s, %s/%s: %s\n", what, meta_path_.c_str(),
                 name.c_str(), refusal_text(errno).c_str());
        return false;
    }
    std::string const remote = folder + "/" + name + compression_value_to_suffix(compression_);
    if (!io.put_contents(remote.c_str(), content, true)) {
        QMRT_LOG(LM_ERROR, "Failed to backup %s, %s\n", what, io.error().c_str());
        return false;
    }
    pieces.emplace_back(json_spirit::Object{{"path", remote}, {"size", io.original_size()}});
    return true;
}

bool Roach_Source::is_backup_key(char const* backup_key) {
    if (backup_key && is_single_name(backup_key))
        return true;
    QMRT_LOG(LM_ERROR, "Invalid backup key '%s'\n",
             backup_key ? names::shown(backup_key).c_str() : "");
    return false;
}

bool Roach_Source::backup_meta(char const* backup_key) {
    Client_IO_Ex io;
    if (!is_backup_key(backup_key) || !connect_pool(io, ""))
        return false;
    std::string const folder = string_sprintf("%s/roach/%s", cluster_id_.c_str(), backup_key);
    json_spirit::Array pieces;
    return put_meta(io, META_FILE, folder, "roach meta file", pieces) &&
           put_meta(io, static_config(), folder, "cluster config", pieces) &&
           Catalog_Operator(-1, -1).add_piece(uuid_, pieces);
}

bool Roach_Source::get_meta(Client_IO_Ex& io, std::string const& name, char const* what) {
    std::string content;
    std::string const remote = name + compression_value_to_suffix(compression_);
    if (!io.get_contents(remote.c_str(), content, Tool_Directory::MAX_FILE_SIZE)) {
        QMRT_LOG(LM_ERROR, "Failed to restore %s, %s\n", what, io.error().c_str());
        return false;
    }
    if (meta().write(name, content) == 0)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to restore %s, %s/%s: %s\n", what, meta_path_.c_str(), name.c_str(),
             refusal_text(errno).c_str());
    return false;
}

bool Roach_Source::restore_meta(char const* backup_key) {
    Client_IO_Ex io;
    return is_backup_key(backup_key) &&
           connect_pool(io, string_sprintf("%s/roach/%s", cluster_id_.c_str(), backup_key)) &&
           get_meta(io, META_FILE, META_FILE) && get_meta(io, static_config(), "cluster config");
}

bool Roach_Source::restore_roach_metadata(json_spirit::Object const& catalog,
                                          std::string const& pool_uuid,
                                          std::string const& definition_uuid,
                                          std::string const& cache_dir, std::string const& os_user,
                                          bool new_cluster,
                                          ACE_Log_Msg_Callback_var log_msg_callback) {
    try {
        std::string minor_resource_id, host_uuid, backup_key, meta_destination;
        int64_t seq = 0;
        json_spirit::extract_or_throw(catalog)("minor_resource_id", minor_resource_id, true)(
            "host_uuid", host_uuid, true)("backup_key", backup_key, true)(
            "meta_destination", meta_destination, true)("seq", seq, true);
        if (!is_single_name(backup_key))
            throw json_spirit::Error("backup_key: '" + names::shown(backup_key) + "' is no name");
        // it comes from the pool's catalog or from another host, and is to lead nowhere else
        if (meta_destination != meta_path_)
            throw json_spirit::Error("meta_destination: '" + names::shown(meta_destination) +
                                     "' is not this host's metadata directory");

        Tool_Directory const meta(meta_path_, os_user);
        std::string const folder = meta_path_ + "/" + TOOL_FOLDER;
        std::string const path = folder + "/" + backup_key;
        if (meta.make() == -1 || meta.make_directory(TOOL_FOLDER) == -1) {
            QMRT_LOG(LM_ERROR, "Failed to mkdir %s, errno=%d, %m\n", folder.c_str(), errno);
            return false;
        }
        if (meta.has_directory(std::string(TOOL_FOLDER) + "/" + backup_key)) {
            if (!new_cluster)
                return true;
            if (meta.remove(TOOL_FOLDER, backup_key) == -1)
                QMRT_LOG(LM_WARNING, "Failed to remove %s, errno=%d, %m\n", path.c_str(), errno);
        }

        std::shared_ptr<MTF::Event_Handler> const handler(new (std::nothrow) GaussDB_Event_Handler);
        if (!handler) {
            errno = ENOMEM;
            return false;
        }
        if (make_private_directory(cache_dir) == -1) {
            QMRT_LOG(LM_ERROR, "Failed to mkdir %s, errno=%d, %m\n", cache_dir.c_str(), errno);
            return false;
        }
        MTF_Restore restore(handler, log_msg_callback);
        restore.definition_uuid(definition_uuid);
        restore.target_location(cache_dir);
        restore.backup_minor_resource_id(minor_resource_id);
        restore.pool_uuid(pool_uuid, true);
        restore.backup_host_uuid(host_uuid);
        restore.seq(seq);
        set_options_by_host(restore.extra_client_io_opts());
        if (!restore.restore("")) {
            QMRT_LOG(LM_ERROR, "Failed to restore gaussdb roach metadata, backup key %s\n",
                     backup_key.c_str());
            return false;
        }
        std::string const restored =
            metadata_directory(cache_dir + "/" + meta_destination, backup_key);
        if (meta.take_in(restored, TOOL_FOLDER, backup_key) == -1) {
            QMRT_LOG(LM_ERROR, "Failed to restore %s, errno=%d, %m\n", path.c_str(), errno);
            return false;
        }
        return true;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Invalid gaussdb catalog, %s\n", error.what());
        return false;
    }
}
