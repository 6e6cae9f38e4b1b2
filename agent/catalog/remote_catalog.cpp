#include "agent/catalog/remote_catalog.h"

#include "host/agent/host_services.h"
#include "host/catalog/backup_set.h"
#include "host/rpc/upstream_backend.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

#include <algorithm>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** What one attempt of the catalog's takes at most when nobody said it, seconds. */
constexpr int ATTEMPT = 30;

/** How long the server may take over an operation: its attempts are made again there. */
int seconds_to_answer(Catalog_Limits const& limits) {
    if (limits.timeout < 0 && limits.max_seconds_retry < 0)
        return -1;
    return (limits.timeout < 0 ? ATTEMPT : limits.timeout) + std::max(limits.max_seconds_retry, 0);
}

} // namespace

bool Remote_Catalog::call(char const* operation, Catalog_Limits const& limits, Object params,
                          Object& result) {
    auto const upstream = Host_Services::instance().upstream();
    if (!upstream) {
        QMRT_LOG(LM_ERROR, "The catalog could not do %s: there is no backup server\n", operation);
        return false;
    }
    json_spirit::insert(params)("timeout", limits.timeout)("max_seconds_retry",
                                                           limits.max_seconds_retry);
    JSON_RPC_Reply reply;
    if (!upstream->call(std::string("catalog.") + operation, params,
                        {seconds_to_answer(limits), limits.max_seconds_retry}, reply)) {
        QMRT_LOG(LM_ERROR, "The catalog of the backup server could not do %s: %s\n", operation,
                 reply.message.c_str());
        return false;
    }
    if (reply.result.type() != json_spirit::obj_type) {
        QMRT_LOG(LM_ERROR, "The catalog of the backup server gave no object for %s\n", operation);
        return false;
    }
    result = std::move(reply.result.get_obj());
    return true;
}

bool Remote_Catalog::send(char const* operation, Catalog_Limits const& limits,
                          Backup_Set const& set, bool overwrite) {
    Object result;
    Object params = {{"kind", set.kind()}, {"set", set.dump()}};
    if (overwrite)
        json_spirit::insert(params)("overwrite", true);
    return call(operation, limits, std::move(params), result);
}

bool Remote_Catalog::initialize(Catalog_Limits const& limits, Backup_Set const& set) {
    return send("initialize", limits, set, false);
}

bool Remote_Catalog::complete(Catalog_Limits const& limits, Backup_Set const& set) {
    return send("complete", limits, set, false);
}

bool Remote_Catalog::commit(Catalog_Limits const& limits, Backup_Set const& set, bool overwrite) {
    return send("commit", limits, set, overwrite);
}

bool Remote_Catalog::abort(Catalog_Limits const& limits, std::string const& uuid, Array& pieces) {
    Object result;
    if (!call("abort", limits, {{"uuid", uuid}}, result))
        return false;
    if (json_spirit::object_get(result, "pieces", pieces))
        return true;
    QMRT_LOG(LM_ERROR, "The catalog of the backup server did not tell the pieces of set \"%s\"\n",
             uuid.c_str());
    return false;
}

bool Remote_Catalog::add_piece(Catalog_Limits const& limits, std::string const& uuid,
                               Array const& pieces) {
    Object result;
    return call("add_piece", limits, {{"uuid", uuid}, {"pieces", pieces}}, result);
}

bool Remote_Catalog::get_view(Catalog_Limits const& limits, std::string const& type,
                              std::string const& view, Object const& query, Value& result) {
    Object answer;
    if (!call("get_view", limits, {{"type", type}, {"view", view}, {"query", query}}, answer))
        return false;
    if (json_spirit::object_get(answer, "result", result))
        return true;
    QMRT_LOG(LM_ERROR, "The catalog of the backup server gave no result of view \"%s\"\n",
             view.c_str());
    return false;
}
