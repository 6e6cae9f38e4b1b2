#include "xbsa/library/xbsa_agent.h"

#include "host/rpc/json_rpc_object.h"
#include "json_spirit/access.h"
#include "qmrt/utf8.h"

#include <unistd.h>

namespace {

/** The agent's own codes of errors. */
constexpr int NOT_FOUND = -32004;
constexpr int REFUSED = -32005;

Xbsa_Result failed(char const* method, std::string const& why,
                   int code = BSA_RC_ABORT_SYSTEM_ERROR) {
    return {code, std::string("the agent's ") + method + " failed: " + qmrt::to_one_line(why)};
}

int code_of(int rpc_code) {
    switch (rpc_code) {
    case NOT_FOUND:
        return BSA_RC_OBJECT_NOT_FOUND;
    case REFUSED:
        return BSA_RC_ACCESS_FAILURE;
    default:
        return BSA_RC_ABORT_SYSTEM_ERROR;
    }
}

bool is_transient(int rpc_code) {
    return rpc_code == JSON_RPC_BUSY || rpc_code == JSON_RPC_UNREACHABLE ||
           rpc_code == JSON_RPC_TIMEOUT;
}

/** What an answer of a status other than 200 means. */
Xbsa_Result status_failure(char const* method, HTTP_Response const& response, bool& transient) {
    int const status = response.status();
    if (status == 401 || status == 403)
        return failed(method, "it does not accept the policy's access key",
                      BSA_RC_AUTHENTICATION_FAILURE);
    transient = status == 0 || status == 429 || (status >= 502 && status <= 504);
    return failed(method, status == 0 ? response.error() : "HTTP status " + std::to_string(status));
}

/** Reads the reply to the request with an id. */
Xbsa_Result read_reply(char const* method, std::string const& text, int64_t id,
                       json_spirit::Value& result, bool& transient) {
    JSON_RPC_Message message;
    if (!parse_json_rpc(text, message) || message.objects.size() != 1)
        return failed(method, "its reply is none of JSON-RPC");
    JSON_RPC_Object* const reply = message.objects.front().get();
    if (auto const* error = dynamic_cast<JSON_RPC_Response_Error*>(reply)) {
        transient = is_transient(error->code());
        return failed(method, error->message(), code_of(error->code()));
    }
    auto* const response = dynamic_cast<JSON_RPC_Response*>(reply);
    if (!response || !(response->id() == json_spirit::Value(id)))
        return failed(method, "its reply is another request's");
    result = std::move(response->result());
    return {};
}

void read_pool(json_spirit::Object const& object, Pool_Info& info) {
    std::string compression;
    json_spirit::Array const* devices = nullptr;
    uint64_t available = 0;
    if (json_spirit::object_get(object, "available", available))
        info.available = available;
    json_spirit::extract_or_throw(object)("url", info.url)("uuid", info.uuid, false)(
        "name", info.name, false)("compression", compression, false)(
        "compression_level", info.compression_level, false)("read_only", info.read_only,
                                                            false)("device_uuids", devices, false);
    info.compression_method = compression_name_to_value(compression.c_str(), -1);
    if (devices)
        for (std::string const& device : json_spirit::strings_of(*devices))
            info.device_uuids.push_back(device);
}

} // namespace

Xbsa_Agent::Xbsa_Agent(Xbsa_Policy const& policy, Storage_Clock& clock)
    : policy_(policy), clock_(clock) {
    client_.reset(policy.backupd_host.c_str(), policy.backupd_port, policy.backupd_ssl);
    if (access(CERTIFICATE, R_OK) == 0)
        client_.ca_file(CERTIFICATE);
}

Xbsa_Result Xbsa_Agent::call(char const* method, json_spirit::Object params,
                             json_spirit::Value& result) {
    return xbsa_retry(clock_, policy_.retry, [&](bool& transient) {
        return call_once(method, params, result, transient);
    });
}

Xbsa_Result Xbsa_Agent::call_once(char const* method, json_spirit::Object const& params,
                                  json_spirit::Value& result, bool& transient) {
    int64_t const id = ++last_id_;
    json_spirit::Value const request =
        JSON_RPC_Request(json_spirit::Value(id), method, json_spirit::Value(params)).value();
    HTTP_Request post(HTTP_METHOD_POST, RPC_PATH, true);
    if (!post.headers().put("Authorization", "Bearer " + policy_.access_key.plain()))
        return failed(method, "the policy's access key cannot be sent", BSA_RC_INVALID_ENV);
    HTTP_Response response;
    if (!client_.post(post, &request, response, nullptr) && !response.ok())
        return status_failure(method, response, transient);
    return read_reply(method, response.body(), id, result, transient);
}

Xbsa_Result Xbsa_Agent::find_pool(Pool_Info& info) {
    json_spirit::Value result;
    Xbsa_Result const called =
        call("pool.find", json_spirit::Object_Maker()("uuid", policy_.pool_uuid), result);
    if (!called)
        return called;
    try {
        Pool_Info found;
        read_pool(result.get_obj(), found);
        info = std::move(found);
    } catch (json_spirit::Error const& error) {
        return failed("pool.find", error.what());
    }
    return {};
}

Xbsa_Result Xbsa_Agent::add_pieces(json_spirit::Array pieces) {
    json_spirit::Value result;
    return call("catalog.add_piece",
                json_spirit::Object_Maker()("uuid", policy_.uuid)("pieces", std::move(pieces)),
                result);
}

Xbsa_Result Xbsa_Agent::has_set(std::string const& uuid, bool& has) {
    json_spirit::Object const query =
        json_spirit::Object_Maker()("uuid", uuid)("cmode", "rb_orm_rows")("limit", 1);
    json_spirit::Value result;
    Xbsa_Result const called = call(
        "catalog.get_view",
        json_spirit::Object_Maker()("type", "gaussdb")("view", "catalogs")("query", query), result);
    if (!called)
        return called;
    try {
        json_spirit::Object const* view = nullptr;
        json_spirit::Array const* rows = nullptr;
        json_spirit::extract_or_throw(std::as_const(result).get_obj())("result", view);
        json_spirit::extract_or_throw (*view)("rows", rows);
        has = !rows->empty();
    } catch (json_spirit::Error const& error) {
        return failed("catalog.get_view", error.what());
    }
    return {};
}
