#include "gaussdb/job/roach_source.h"

#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/gaussdb_event_handler.h"
#include "host/agent/host_manager.h"
#include "host/catalog/catalog_operator.h"
#include "host/mtf/mtf_restore.h"
#include "host/process/password_file_entry.h"
#include "host/rpc/json_rpc_forward.h"
#include "host/rpc/websocket_options.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/pool_info.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/file.h"
#include "qmrt/format.h"
#include "qmrt/log.h"
#include "qmrt/path.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char ROOT[] = "/var/cache/quilmot/zenbrak3/gaussdb";
constexpr char META_FILE[] = "backups.ini";

/** As of open(2): close-on-exec, and for a local copy write, create, truncate as well. */
constexpr int READ_FLAGS = 0x80000;
constexpr int WRITE_FLAGS = 0x80241;
constexpr size_t BUFFER_SIZE = 0x2000;

std::string subdirectory(char const* leaf) {
    return Path_Conf(ROOT, true, leaf, 0755).c_str();
}

bool is_single_name(std::string const& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

void unlink_pid_file(std::string const& directory) {
    // it may never have been there
    unlink((directory + "/postmaster.pid").c_str());
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

std::string Roach_Source::cache_directory(std::string const& definition_uuid) {
    return is_single_name(definition_uuid) ? string_sprintf("%s/%s", ROOT, definition_uuid.c_str())
                                           : std::string();
}

std::string Roach_Source::metadata_directory(std::string const& meta_destination,
                                             std::string const& backup_key) {
    std::string const plain = string_sprintf("%s/%s", meta_destination.c_str(), backup_key.c_str());
    std::string const below_roach =
        string_sprintf("%s/roach/%s", meta_destination.c_str(), backup_key.c_str());
    return !is_directory(plain.c_str()) && is_directory(below_roach.c_str()) ? below_roach : plain;
}

/** "", logged, for a name that is no file's name or is one of the directories beside it. */
std::string Roach_Source::policy_file() const {
    if (is_single_name(policy_name_) && policy_name_ != "meta" && policy_name_ != "media") {
        std::string const path = Path_Conf(ROOT, true, policy_name_.c_str(), 0750).c_str();
        if (!path.empty() && !is_directory(path.c_str()))
            return path;
    }
    QMRT_LOG(LM_ERROR, "Invalid policy name '%s'\n", policy_name_.c_str());
    return "";
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
    for (std::string const& path : {meta_path_, media_path_}) {
        if (mkdir_p(path.c_str(), 0750) == -1) {
            QMRT_LOG(LM_ERROR, "Failed to mkdir %s, errno=%d, %m\n", path.c_str(), errno);
            return false;
        }
    }
    return chown_r(meta_path_.c_str(), os_user_.c_str(), nullptr, false) == 0 &&
           chown_r(media_path_.c_str(), os_user_.c_str(), nullptr, false) == 0;
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

bool Roach_Source::dump_policy() {
    std::string const path = policy_file();
    if (path.empty() || !create_path())
        return false;
    WebSocket_Options const& server = *WebSocket_Options::instance();
    json_spirit::Object policy = route();
    json_spirit::insert(policy)("access_key", Host_Manager::instance()->access_key())(
        "backupd_host", server.host())("backupd_port", static_cast<int>(server.port()))(
        "backupd_ssl", server.ssl());
    Password_File_Entry user;
    if (!os_user_.empty() && user.get(os_user_.c_str()) == -1)
        return false; // create_path() has refused it already
    File_Owner const owner{user.uid(), user.gid()};
    return dump_json(path.c_str(), json_spirit::Value(std::move(policy)), 0, false, 0640,
                     os_user_.empty() ? nullptr : &owner);
}

bool Roach_Source::remove_policy() {
    std::string const path = policy_file();
    return !path.empty() && rm_rf(path.c_str()) == 0 &&
           rm_rf(Path_Conf(ROOT, true, "meta/backupset_nbu.ini", 0750).c_str()) == 0;
}

// the other hosts

json_spirit::Object Roach_Source::add_request() const {
    json_spirit::Object request = route();
    json_spirit::insert(request)("action", "add")("os_user", os_user_)("minor", version_.minor_)(
        "patch", version_.patch_)("policy_name", policy_name_);
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
        rm_rf(meta_path_.c_str());
    if (!dump_policy())
        return false;
    return version_.model_ != GAUSSDB_200 || !backup_key || !*backup_key ||
           restore_meta(backup_key);
}

bool Roach_Source::remove(std::vector<std::string> const& host_uuids, std::set<std::string>* dirs,
                          std::string const& definition_uuid) {
    json_spirit::Object request;
    json_spirit::insert(request)("action", "remove")("definition_uuid", definition_uuid)(
        "uuid", uuid_)("policy_name", policy_name_)("pool_uuid", pool_uuid_);
    if (dirs) {
        json_spirit::insert(request)("dirs", json_spirit::Array(dirs->begin(), dirs->end()));
        std::for_each(dirs->begin(), dirs->end(), unlink_pid_file);
    }
    return std::all_of(host_uuids.begin(), host_uuids.end(), [&](std::string const& host) {
        if (!is_this_host(host))
            return forward(request, host);
        remove_policy(); // what it could not remove, it has told
        return true;
    });
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

bool Roach_Source::put_meta(Client_IO_Ex& io, std::string const& local, std::string const& remote,
                            char const* what, json_spirit::Array& pieces) {
    if (!io.put_file(local.c_str(), remote.c_str(), true, READ_FLAGS, BUFFER_SIZE)) {
        QMRT_LOG(LM_ERROR, "Failed to backup %s, %s\n", what, io.error().c_str());
        return false;
    }
    pieces.emplace_back(json_spirit::Object{{"path", remote}, {"size", io.original_size()}});
    return true;
}

bool Roach_Source::backup_meta(char const* backup_key) {
    Client_IO_Ex io;
    if (!connect_pool(io, ""))
        return false;
    std::string const folder = string_sprintf("%s/roach/%s", cluster_id_.c_str(), backup_key);
    char const* const suffix = compression_value_to_suffix(compression_);
    json_spirit::Array pieces;
    return put_meta(io, meta_path_ + "/" + META_FILE,
                    string_sprintf("%s/%s%s", folder.c_str(), META_FILE, suffix), "roach meta file",
                    pieces) &&
           put_meta(io, meta_path_ + "/" + static_config(),
                    string_sprintf("%s/%s%s", folder.c_str(), static_config().c_str(), suffix),
                    "cluster config", pieces) &&
           Catalog_Operator(-1, -1).add_piece(uuid_, pieces);
}

bool Roach_Source::restore_meta(char const* backup_key) {
    Client_IO_Ex io;
    if (!connect_pool(io, string_sprintf("%s/roach/%s", cluster_id_.c_str(), backup_key)))
        return false;
    char const* const suffix = compression_value_to_suffix(compression_);
    std::string const meta_file = meta_path_ + "/" + META_FILE;
    std::string const config_file = meta_path_ + "/" + static_config();
    if (!io.get_file((std::string(META_FILE) + suffix).c_str(), meta_file.c_str(), WRITE_FLAGS,
                     BUFFER_SIZE)) {
        QMRT_LOG(LM_ERROR, "Failed to restore backups.ini, %s\n", io.error().c_str());
        return false;
    }
    if (!io.get_file((static_config() + suffix).c_str(), config_file.c_str(), WRITE_FLAGS,
                     BUFFER_SIZE)) {
        QMRT_LOG(LM_ERROR, "Failed to restore cluster config, %s\n", io.error().c_str());
        return false;
    }
    return chown_r(meta_file.c_str(), os_user_.c_str(), nullptr, false) == 0 &&
           chown_r(config_file.c_str(), os_user_.c_str(), nullptr, false) == 0;
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
            throw json_spirit::Error("backup_key: '" + backup_key + "' is no name");

        std::string path = meta_destination + "/roach";
        if (mkdir_p(path.c_str(), 0755) == -1 && errno != EEXIST) {
            QMRT_LOG(LM_ERROR, "Failed to mkdir %s, errno=%d, %m\n", path.c_str(), errno);
            return false;
        }
        chown_r(path.c_str(), os_user.c_str(), nullptr, false);
        path += "/" + backup_key;
        if (is_directory(path.c_str())) {
            if (!new_cluster)
                return true;
            rm_rf(path.c_str());
        }

        std::shared_ptr<MTF::Event_Handler> const handler(new (std::nothrow) GaussDB_Event_Handler);
        if (!handler) {
            errno = ENOMEM;
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
        if (std::rename(restored.c_str(), path.c_str()) == -1) {
            QMRT_LOG(LM_ERROR, "Failed to restore %s, errno=%d, %m\n", path.c_str(), errno);
            return false;
        }
        chown_r(path.c_str(), os_user.c_str(), nullptr, false);
        return true;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Invalid gaussdb catalog, %s\n", error.what());
        return false;
    }
}
