#include "gaussdb/common/tpops_restful_client.h"

#include "gaussdb/common/tpops_token.h"
#include "host/http/http_query_string_builder_t.h"
#include "host/http/platform_settings.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/scoped_deleter.h"
#include "qmrt/utf8.h"

#include <algorithm>

namespace {

constexpr char TOKEN_HEADER[] = "X-Mini-Token";
constexpr char TOKEN_KEY[] = "x_mini_token";
/** The platform's code for a medium that is in use already. */
constexpr char SAME_MEDIA[] = "DBS.06015006";

using Secrets = std::vector<std::string>;

std::string current_token(std::string const& user) {
    TPOPS_Token* const tokens = TPOPS_Token::instance();
    return tokens ? tokens->get_token(user.c_str()) : std::string();
}

bool is_object(json_spirit::Value const& value) {
    return value.type() == json_spirit::obj_type;
}

HTTP_Query_String_Builder query_of(std::string& path) {
    return HTTP_Query_String_Builder(std::back_inserter(path), false);
}

/**
 * @param pattern  the path with "%s" in the id's place
 * @return false, after an error line, for an id that is more than one plain segment of a path
 */
bool make_instance_path(char const* pattern, std::string_view instance_id, std::string& path) {
    if (std::string const fault = names::fault_of_id(instance_id); !fault.empty()) {
        QMRT_LOG(LM_ERROR, "Refused instance id \"%s\" of a TPOPS platform: it %s\n",
                 names::shown(instance_id).c_str(), fault.c_str());
        return false;
    }
    path = pattern;
    path.replace(path.find("%s"), 2, instance_id);
    return true;
}

std::string without(std::string text, Secrets const& secrets) {
    constexpr char MASK[] = "******";
    for (std::string const& secret : secrets)
        for (size_t at = 0; !secret.empty() && (at = text.find(secret, at)) != std::string::npos;
             at += sizeof MASK - 1)
            text.replace(at, secret.size(), MASK);
    return text;
}

/** A copy for a log: a platform may send back what it was sent. */
json_spirit::Value without(json_spirit::Value const& value, Secrets const& secrets) {
    switch (value.type()) {
    case json_spirit::str_type:
        return without(value.get_str(), secrets);
    case json_spirit::array_type: {
        json_spirit::Array copy;
        for (json_spirit::Value const& element : value.get_array())
            copy.push_back(without(element, secrets));
        return copy;
    }
    case json_spirit::obj_type: {
        json_spirit::Object copy;
        for (auto const& [key, member] : value.get_obj())
            copy.emplace(without(key, secrets), key == TOKEN_KEY ? json_spirit::Value("******")
                                                                 : without(member, secrets));
        return copy;
    }
    default:
        return value;
    }
}

void warn_of_weak_trust(TPOPS_Login const& login, Platform_Settings const& settings) {
    std::string const host = names::shown(login.host);
    if (!login.ssl)
        QMRT_LOG(LM_WARNING,
                 "The connection to TPOPS platform %s:%d has no TLS: password, token and answers "
                 "can be read and changed on the way\n",
                 host.c_str(), int{login.port});
    else if (!settings.verify)
        QMRT_LOG(LM_WARNING,
                 "The certificate of TPOPS platform %s:%d is not verified, as the agent's "
                 "configuration says: whoever answers there gets the password\n",
                 host.c_str(), int{login.port});
}

} // namespace

TPOPS_RESTful_Client::TPOPS_RESTful_Client() {
    client_.max_body_size(MAX_ANSWER_SIZE);
    client_.cancellable(true);
}

TPOPS_RESTful_Client::operator bool() const {
    return !current_token(login_info_.username).empty();
}

std::string TPOPS_RESTful_Client::shown(json_spirit::Value const& value) const {
    constexpr size_t MAX_SHOWN = 1500; // two of them fit into a line of the log
    Secrets const secrets{login_info_.password.plain(), token_};
    std::string const text = JSON_Dump(without(value, secrets)).str();
    if (text.size() <= MAX_SHOWN)
        return text;
    return qmrt::to_utf8(std::string_view(text).substr(0, MAX_SHOWN)) + "...";
}

// login

bool TPOPS_RESTful_Client::connect(TPOPS_Login const& login) {
    Platform_Settings const settings = Platform_Settings::get();
    login_info_ = login;
    client_.verify(settings.verify);
    client_.ca_file(settings.ca_file);
    client_.total_timeout(settings.timeout);
    client_.connect_timeout(std::min(settings.timeout, std::chrono::milliseconds(10'000)));
    warn_of_weak_trust(login, settings);
    client_.reset(login.host.c_str(), login.port, login.ssl);
    return connect();
}

bool TPOPS_RESTful_Client::connect() {
    TPOPS_Token* const tokens = TPOPS_Token::instance();
    if (!tokens)
        return false;
    tokens->set_token(login_info_.username.c_str(), ""); // no-op: the old token stays until then
    client_.streaming(false);
    client_.retries(0);

    HTTP_Request request(HTTP_METHOD_POST, "/rds/v3/auth/mini-token", true);
    json_spirit::Value const body = json_spirit::Object_Maker()("username", login_info_.username)(
        "password", login_info_.password);
    HTTP_Response response;
    json_spirit::Value result;
    if (!send_request_i(request, response, &body, &result) && !is_object(result)) {
        QMRT_LOG(LM_ERROR, "Failed to get mini token with TPOPS API\n");
        return false;
    }
    std::string const token = json_spirit::object_get_str(result.get_obj(), TOKEN_KEY);
    if (token.empty()) {
        QMRT_LOG(LM_ERROR, "Mini token is empty: %s\n", shown(result).c_str());
        return false;
    }
    if (token.size() > MAX_TOKEN_SIZE) {
        QMRT_LOG(LM_ERROR, "Refused a mini token of %Q bytes, the limit is %Q\n", token.size(),
                 MAX_TOKEN_SIZE);
        return false;
    }
    tokens->set_token(login_info_.username.c_str(), token.c_str());
    return true;
}

// requests

bool TPOPS_RESTful_Client::get(char const* path, json_spirit::Value& result) {
    if (!*this)
        return false;
    HTTP_Request request(HTTP_METHOD_GET, path, true);
    return send_request(request, nullptr, &result);
}

bool TPOPS_RESTful_Client::put(char const* path, json_spirit::Value const& body,
                               json_spirit::Value* result) {
    if (!*this)
        return false;
    HTTP_Request request(HTTP_METHOD_PUT, path, true);
    return send_request(request, &body, result);
}

bool TPOPS_RESTful_Client::post(char const* path, json_spirit::Value const& body,
                                json_spirit::Value* result) {
    if (!*this)
        return false;
    HTTP_Request request(HTTP_METHOD_POST, path, true);
    return send_request(request, &body, result);
}

bool TPOPS_RESTful_Client::send_request(HTTP_Request& request, json_spirit::Value const* body,
                                        json_spirit::Value* result) {
    HTTP_Response response;
    if (send_request_i(request, response, body, result))
        return true;
    if ((status_ == 401 || status_ == 403) && connect() &&
        send_request_i(request, response, body, result))
        return true;
    QMRT_LOG(LM_ERROR,
             "TPOPS request '%s %s' with %s returns error, http status = %d, response body: %s, "
             "trace_id: %s.\n",
             request.method_name(), qmrt::to_one_line(request.path()).c_str(),
             body ? shown(*body).c_str() : "", status_, result ? shown(*result).c_str() : "null",
             names::shown(without(response.headers().get("X-TRACE-ID"), {token_})).c_str());
    return false;
}

bool TPOPS_RESTful_Client::send_request_i(HTTP_Request& request, HTTP_Response& response,
                                          json_spirit::Value const* body,
                                          json_spirit::Value* result) {
    token_ = current_token(login_info_.username);
    if (!token_.empty())
        request.headers().put(TOKEN_HEADER, token_);
    Scoped_Deleter const status_keeper([this, &response] {
        status_ = response.status();
        fault_ = response.error();
    });
    switch (request.method()) {
    case HTTP_METHOD_POST:
        return client_.post(request, body, response, result);
    case HTTP_METHOD_PUT:
        return client_.put(request, body, response, result);
    case HTTP_METHOD_GET:
        return client_.get(request, response, result);
    default:
        QMRT_LOG(LM_ERROR, "Unsupported method '%s' for TPOPS RESTful API.\n",
                 request.method_name());
        return false;
    }
}

// instances

void TPOPS_RESTful_Client::handle_instance_info(json_spirit::Object const& obj,
                                                TPOPS_Instance_Info& info) {
    json_spirit::extract(obj)("id", info.id)("name", info.name)("instance_status", info.status)(
        "mode", info.type)("engine_version", info.version);
    if (silent_counts_ >= MAX_SILENT_COUNTS) {
        info.node_count = 0;
        return;
    }
    info.node_count = get_nodes_count(info.id.c_str());
    silent_counts_ = status_ == 0 ? silent_counts_ + 1 : 0;
}

bool TPOPS_RESTful_Client::get_instance_info(char const* instance_id, TPOPS_Instance_Info& info) {
    if (QMRT_IS_NULL_OR_EMPTY(instance_id))
        return false;
    std::string path = "/rds/v3/instances?";
    query_of(path)("instance_id", instance_id, true, true, nullptr);
    json_spirit::Value result;
    if (!get(path.c_str(), result) || !is_object(result))
        return false;
    return read_instances(result.get_obj(),
                          [&](auto const& object) { handle_instance_info(object, info); });
}

bool TPOPS_RESTful_Client::get_instances_info(std::vector<TPOPS_Instance_Info>& infos) {
    json_spirit::Value result;
    if (!get("/rds/v3/instances", result) || !is_object(result))
        return false;
    return read_instances(result.get_obj(), [&](auto const& object) {
        handle_instance_info(object, infos.emplace_back());
    });
}

/** Hands on each object of "instances". @return false, after an error line, for too many */
bool TPOPS_RESTful_Client::read_instances(
    json_spirit::Object const& answer,
    std::function<void(json_spirit::Object const&)> const& take) {
    json_spirit::Array const* instances = nullptr;
    json_spirit::extract_or_throw(answer)("instances", instances);
    silent_counts_ = 0;
    size_t count = 0;
    for (json_spirit::Object const& object : objects_of(*instances)) {
        if (++count > MAX_INSTANCES) {
            QMRT_LOG(LM_ERROR,
                     "TPOPS platform %s lists more than %Q instances, the others are left out\n",
                     names::shown(login_info_.host).c_str(), MAX_INSTANCES);
            return false;
        }
        take(object);
    }
    return true;
}

bool TPOPS_RESTful_Client::get_agent_status(char const* instance_id, json_spirit::Value& result) {
    std::string path;
    return !QMRT_IS_NULL_OR_EMPTY(instance_id) &&
           make_instance_path("/rds/gaussdb/v3/instances/%s/agent/status", instance_id, path) &&
           get(path.c_str(), result) && is_object(result);
}

int TPOPS_RESTful_Client::get_nodes_count(char const* instance_id) {
    json_spirit::Value result;
    json_spirit::Array const* nodes = nullptr;
    if (!get_agent_status(instance_id, result) ||
        !json_spirit::object_get(result.get_obj(), "node_list", nodes))
        return 0;
    return static_cast<int>(nodes->size());
}

// databases

bool TPOPS_RESTful_Client::list_databases(char const* instance_id, uint32_t limit, uint32_t offset,
                                          uint32_t& total,
                                          std::vector<TPOPS_Database_Info>& infos) {
    total = 0;
    std::string path;
    if (QMRT_IS_NULL_OR_EMPTY(instance_id) ||
        !make_instance_path("/rds/gaussdb/v3/instances/%s/databases?", instance_id, path))
        return false;
    query_of(path)("limit", limit, true, nullptr)("offset", offset, true, nullptr);
    json_spirit::Value result;
    if (!get(path.c_str(), result) || !is_object(result))
        return false;
    json_spirit::Array const* databases = nullptr;
    json_spirit::extract_or_throw(result.get_obj())("databases", databases)("total_count", total,
                                                                            false);
    for (json_spirit::Object const& object : objects_of(*databases)) {
        TPOPS_Database_Info info;
        info.load(object);
        infos.push_back(std::move(info));
    }
    return true;
}

bool TPOPS_RESTful_Client::list_databases(char const* instance_id,
                                          std::vector<TPOPS_Database_Info>& infos) {
    uint32_t total = 0;
    uint32_t page = 0;
    do {
        if (page >= MAX_PAGES) {
            QMRT_LOG(LM_ERROR, "TPOPS instance %s has %u databases, more than %u are not listed\n",
                     names::shown(instance_id).c_str(), total, page * MAX_LIMIT_SIZE);
            return false;
        }
        if (!list_databases(instance_id, MAX_LIMIT_SIZE, page, total, infos))
            return false;
        ++page;
    } while (page * MAX_LIMIT_SIZE < total);
    return true;
}

// what the platform keeps beside an instance

bool TPOPS_RESTful_Client::put_extend_info(char const* instance_id, char const* key,
                                           char const* value) {
    std::string path;
    if (QMRT_IS_NULL_OR_EMPTY(instance_id) || QMRT_IS_NULL_OR_EMPTY(key) ||
        QMRT_IS_NULL_OR_EMPTY(value) ||
        !make_instance_path("/rds/gaussdb/v3/instances/%s/extend-info", instance_id, path))
        return false;
    return put(path.c_str(), json_spirit::Object_Maker()("key", key)("value", value), nullptr);
}

bool TPOPS_RESTful_Client::get_extend_info(char const* instance_id, char const* key,
                                           json_spirit::Value& result) {
    std::string path;
    if (QMRT_IS_NULL_OR_EMPTY(instance_id) || QMRT_IS_NULL_OR_EMPTY(key) ||
        !make_instance_path("/rds/gaussdb/v3/instances/%s/extend-info?", instance_id, path))
        return false;
    query_of(path)("key", key, true, true, nullptr);
    return get(path.c_str(), result);
}

bool TPOPS_RESTful_Client::change_backup_media(char const* instance_id, char const* type,
                                               std::string& job_id) {
    std::string path;
    if (QMRT_IS_NULL_OR_EMPTY(instance_id) || QMRT_IS_NULL_OR_EMPTY(type) ||
        !make_instance_path("/rds/gaussdb/v3/instances/%s/change-backup-media", instance_id, path))
        return false;
    json_spirit::Value result;
    if (put(path.c_str(), json_spirit::Object_Maker()("type", type), &result))
        return json_spirit::object_get(result.get_obj(), "job_id", job_id);
    return is_object(result) &&
           json_spirit::object_get_str(result.get_obj(), "errCode") == SAME_MEDIA;
}

// backups

bool TPOPS_RESTful_Client::create_backup(char const* instance_id, Backup_Args const& args,
                                         json_spirit::Value& result) {
    if (QMRT_IS_NULL_OR_EMPTY(instance_id))
        return false;
    if (post("/rds/gaussdb/v3/backups", args.dump(), &result) && is_object(result))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to create backup with TPOPS API, params: %s, res: %s\n",
             shown(args.dump()).c_str(), shown(result).c_str());
    return false;
}

bool TPOPS_RESTful_Client::create_physical_backup(char const* instance_id, Backup_Args const& args,
                                                  std::string& job_id) {
    json_spirit::Value result;
    if (!create_backup(instance_id, args, result))
        return false;
    job_id = json_spirit::object_get_str(result.get_obj(), "job_id");
    if (job_id.empty())
        QMRT_LOG(LM_ERROR, "Failed to create physical backup with TPOPS API: %s\n",
                 shown(result).c_str());
    return !job_id.empty();
}

bool TPOPS_RESTful_Client::create_log_backup(char const* instance_id, Backup_Args const& args,
                                             std::string& backup_id) {
    json_spirit::Value result;
    if (!create_backup(instance_id, args, result))
        return false;
    json_spirit::Object const* backup = nullptr;
    backup_id = json_spirit::object_get(result.get_obj(), "backup", backup)
                    ? json_spirit::object_get_str(*backup, "id")
                    : std::string();
    if (backup_id.empty())
        QMRT_LOG(LM_ERROR, "Failed to create log backup with TPOPS API: %s\n",
                 shown(result).c_str());
    return !backup_id.empty();
}

bool TPOPS_RESTful_Client::stop_backup(char const* instance_id, char const* job_id) {
    std::string path;
    if (QMRT_IS_NULL_OR_EMPTY(instance_id) || QMRT_IS_NULL_OR_EMPTY(job_id) ||
        !make_instance_path("/rds/gaussdb/v3/instances/%s/backups/stop", instance_id, path))
        return false;
    return post(path.c_str(), json_spirit::Object_Maker()("job_id", job_id), nullptr);
}

bool TPOPS_RESTful_Client::get_differential_backup_info(char const* instance_id,
                                                        json_spirit::Value& result,
                                                        char const* begin_time,
                                                        char const* end_time) {
    std::string path;
    if (QMRT_IS_NULL_OR_EMPTY(instance_id) ||
        !make_instance_path("/rds/gaussdb/v3/instances/%s/differential-backups", instance_id, path))
        return false;
    if (begin_time && *begin_time && end_time && *end_time) {
        path += '?';
        query_of(path)("begin_time", begin_time, true, true, nullptr)("end_time", end_time, true,
                                                                      true, nullptr);
    }
    return get(path.c_str(), result);
}

bool TPOPS_RESTful_Client::get_backups_info(Backup_Info_Query const& query,
                                            json_spirit::Value& result) {
    return get_backups_info_i(query.instance_id.c_str(), result, query.backup_id.c_str(),
                              query.backup_type.c_str(), query.begin_time.c_str(),
                              query.end_time.c_str());
}

bool TPOPS_RESTful_Client::get_backups_info_i(char const* instance_id, json_spirit::Value& result,
                                              char const* backup_id, char const* backup_type,
                                              char const* begin_time, char const* end_time) {
    if (QMRT_IS_NULL_OR_EMPTY(instance_id))
        return false;
    std::string path = "/rds/gaussdb/v3.1/backups?";
    HTTP_Query_String_Builder query = query_of(path);
    query("instance_id", instance_id, true, true, nullptr);
    if (*begin_time && *end_time)
        query("begin_time", begin_time, true, true, nullptr)("end_time", end_time, true, true,
                                                             nullptr);
    if (*backup_id)
        query("backup_id", backup_id, true, true, nullptr);
    if (*backup_type)
        query("backup_type", backup_type, true, true, nullptr);
    return get(path.c_str(), result);
}

// restores and jobs

bool TPOPS_RESTful_Client::create_restore(Restore_Args const& args, json_spirit::Value& result) {
    return post("/rds/gaussdb/v3/instances/recovery", args.dump(), &result);
}

bool TPOPS_RESTful_Client::get_job_details(char const* job_id, json_spirit::Value& result) {
    if (QMRT_IS_NULL_OR_EMPTY(job_id))
        return false;
    std::string path = "/rds/v3/jobs?";
    query_of(path)("id", job_id, true, true, nullptr);
    return get(path.c_str(), result);
}
