#include "gaussdb/websvcs_agent/roach_source_handler.h"

#include "gaussdb/job/roach_source.h"
#include "gaussdb/websvcs_agent/instance_request.h"
#include "host/process/password_file_entry.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"
#include "qmrt/names.h"

#include <exception>
#include <new>

namespace {

constexpr char INVALID_SOURCE[] = "Invalid params\n";

/** A request, read; texts point into its params. */
struct Roach_Request {
    std::string action;
    std::string const* cluster_id = nullptr;
    std::string const* device_uuid = nullptr;
    std::string const* pool_uuid = nullptr;
    std::string const* uuid = nullptr;
    std::string const* compression = nullptr;
    std::string const* os_user = nullptr;
    std::string const* definition_uuid = nullptr;
    std::string const* delete_meta_path = nullptr;
    std::string const* backup_key = nullptr;
    std::string policy_name;
    json_spirit::Array const* catalogs = nullptr;
    json_spirit::Array const* dirs = nullptr;
    int compression_level = 0;
    int64_t retry = 0;
    uint64_t resumption_buffer_size = 0;
    int version = 0;
    unsigned int major = 0;
    unsigned int minor = 0;
    unsigned int patch = 0;
    bool full_backup = false;
    Rate_Limits rate_limits;

    bool adds() const { return action == "add"; }
    /** Of a run that was cancelled: removes, and ends what it has left. */
    bool ends() const { return action == "end"; }
    GaussDB_Version gaussdb_version() const {
        return {static_cast<GAUSSDB_VERSION>(version), major, minor, patch};
    }
    Roach_Source source() const {
        if (!adds())
            return {"",         "", *pool_uuid, *uuid,         COMPR_AUTO,        0,
                    "",         0,  0,          Rate_Limits(), gaussdb_version(), false,
                    policy_name};
        return {*cluster_id,
                *device_uuid,
                *pool_uuid,
                *uuid,
                compression_name_to_value(compression->c_str(), -1),
                compression_level,
                *os_user,
                retry,
                resumption_buffer_size,
                rate_limits,
                gaussdb_version(),
                full_backup,
                policy_name};
    }
};

void require(bool valid, char const* key, std::string const& value) {
    if (!valid)
        throw json_spirit::Error(std::string(key) + ": '" + names::shown(value) +
                                 "' is not accepted");
}

/** A text that becomes a name in the cache directory. */
void require_run_name(char const* key, std::string const& name) {
    require(name.empty() || Roach_Source::is_run_name(name), key, name);
}

/** A text that becomes a name in the pool or in the metadata directory. */
void require_name(char const* key, std::string const* name) {
    require(!name || name->empty() || Roach_Source::is_single_name(*name), key, name ? *name : "");
}

/** Whoever asks: a policy is a database's user's, and only that user's metadata is deleted. */
void check_targets(Roach_Request const& request) {
    require_name("cluster_id", request.cluster_id);
    require_name("pool_uuid", request.pool_uuid);
    require_name("uuid", request.uuid);
    require_name("backup_key", request.backup_key);
    require_run_name("policy_name", request.policy_name);
    if (request.definition_uuid)
        require_run_name("definition_uuid", *request.definition_uuid);
    Password_File_Entry user;
    if (request.os_user && user.get(request.os_user->c_str()) == 0)
        require(user.uid() != 0, "os_user", *request.os_user);
    if (request.delete_meta_path && !request.delete_meta_path->empty())
        require(*request.delete_meta_path == request.source().meta_path(), "delete_meta_path",
                *request.delete_meta_path);
}

/** Reads the params; throws for what is missing, of another kind, or no name where one is meant. */
void read(json_spirit::Object const& params, Roach_Request& request) {
    auto ex = json_spirit::extract_or_throw(params);
    ex("action", request.action, true);
    if (request.adds()) {
        ex("cluster_id", request.cluster_id, true)("device_uuid", request.device_uuid, true)(
            "pool_uuid", request.pool_uuid, true)("uuid", request.uuid,
                                                  true)("compression", request.compression, true)(
            "compression_level", request.compression_level, true)("os_user", request.os_user, true)(
            "retry", request.retry, true)("resumption_buffer_size", request.resumption_buffer_size,
                                          true)("version", request.version, true)(
            "major", request.major, true)("minor", request.minor, true)(
            "patch", request.patch, true)("full_backup", request.full_backup,
                                          true)("policy_name", request.policy_name, true);
        ex("definition_uuid", request.definition_uuid, false)("catalogs", request.catalogs, false)(
            "delete_meta_path", request.delete_meta_path, false);
        if (!request.rate_limits.from_string_in_object(params, ';'))
            throw json_spirit::Error("the rate limits are not valid");
    } else {
        ex("pool_uuid", request.pool_uuid, true)("uuid", request.uuid,
                                                 true)("policy_name", request.policy_name, true);
        ex("dirs", request.dirs, false)("definition_uuid", request.definition_uuid, false);
    }
    json_spirit::extract(params)("backup_key", request.backup_key);
    check_targets(request);
}

bool is_given(std::string const* text) {
    return text && !text->empty();
}

/** What a request came to: a null text for success. */
struct Source_Outcome {
    int code = 0;
    char const* text = nullptr;
};

Source_Outcome remove_source(Roach_Request const& request) {
    if (!request.pool_uuid)
        return {JSON_RPC_INVALID_PARAMS, INVALID_SOURCE};
    bool const ended = !request.ends() || request.source().end_programs();
    if (is_given(request.definition_uuid))
        (void)Roach_Source::remove_cache_directory(*request.definition_uuid);
    if (!request.source().remove_policy())
        return {JSON_RPC_INTERNAL_ERROR, "Failed to remove roach policy\n"};
    if (!ended)
        return {JSON_RPC_INTERNAL_ERROR, "Failed to end the backup tool\n"};
    return {};
}

Source_Outcome restore_chain(Roach_Request const& request, Roach_Source& source) {
    std::string const cache = Roach_Source::cache_directory(*request.definition_uuid);
    for (json_spirit::Object const& catalog : json_spirit::objects_of(*request.catalogs))
        // whatever stands in the place of this backup's metadata is of another chain
        if (!source.restore_roach_metadata(catalog, *request.pool_uuid, *request.definition_uuid,
                                           cache, *request.os_user, true, {}))
            return {JSON_RPC_INTERNAL_ERROR, "Failed to restore roach meta data\n"};
    return {};
}

Source_Outcome add_source(Roach_Request const& request) {
    if (!request.cluster_id || !request.device_uuid || !request.pool_uuid || !request.uuid ||
        !request.compression || !request.os_user)
        return {JSON_RPC_INVALID_PARAMS, INVALID_SOURCE};
    Roach_Source source = request.source();
    if (is_given(request.delete_meta_path))
        source.delete_meta();
    if (!source.dump_policy())
        return {JSON_RPC_INTERNAL_ERROR, "Failed to write roach policy\n"};
    if (request.version != GAUSSDB_200)
        return {};
    if (is_given(request.backup_key) && !source.restore_meta(request.backup_key->c_str()))
        return {JSON_RPC_INTERNAL_ERROR, "Failed to restore roach meta\n"};
    if (is_given(request.definition_uuid) && request.catalogs)
        return restore_chain(request, source);
    return {};
}

} // namespace

int JSON_RPC_Roach_Source_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                                 JSON_RPC_Object_var obj) {
    JSON_RPC_Channel_var peer;
    JSON_RPC_Request* const request = open_request(channel, obj, peer);
    if (!request)
        return -1;
    if (request->params().type() != json_spirit::obj_type)
        return peer->send_error(JSON_RPC_INVALID_PARAMS, request->id(), "Invalid params");
    return handle_roach_source(peer.get(), request);
}

int JSON_RPC_Roach_Source_Handler::handle_roach_source(JSON_RPC_Channel* channel,
                                                       JSON_RPC_Request* request) {
    Roach_Request wanted;
    try {
        read(request->params().get_obj(), wanted);
        if (wanted.dirs) {
            auto const directories = json_spirit::strings_of(*wanted.dirs);
            wanted.source().remove_pid_files({directories.begin(), directories.end()});
        }
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to add roach source, %s\n", error.what());
        return channel->send_error(JSON_RPC_INVALID_PARAMS, request->id(), INVALID_SOURCE);
    }
    Source_Outcome const outcome = wanted.adds() ? add_source(wanted) : remove_source(wanted);
    if (outcome.text)
        return channel->send_error(outcome.code, request->id(), outcome.text);
    JSON_RPC_Object_var const response(new (std::nothrow) JSON_RPC_Response(request));
    if (response.null()) {
        errno = ENOMEM;
        return -1;
    }
    static_cast<JSON_RPC_Response*>(response.get())->result(json_spirit::Value(true));
    return channel->send(response);
}
