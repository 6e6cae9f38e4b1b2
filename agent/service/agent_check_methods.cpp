#include "agent/database/agent_database.h"
#include "agent/jobs/member_reader.h"
#include "agent/module/agent_module.h"
#include "agent/service/agent_config.h"
#include "agent/service/agent_identity.h"
#include "agent/service/agent_methods.h"
#include "agent/service/check_deadline.h"
#include "agent/service/readiness_check.h"
#include "agent/storage/pool_path.h"
#include "host/agent/host_manager.h"
#include "host/agent/host_services.h"
#include "host/agent/instance_backend.h"
#include "host/catalog/catalog_operator.h"
#include "host/rpc/upstream_backend.h"
#include "host/storage/storage_backend.h"
#include "json_spirit/access.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <unistd.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** For the whole of a check, in seconds, if a caller does not say. */
constexpr int64_t CHECK_TIME = 60;
constexpr int64_t LONGEST_CHECK = 3600;

/** Seconds since the epoch. */
double clock_of_host() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

Array array_of(std::vector<std::string> const& texts) {
    return Array(texts.begin(), texts.end());
}

/** Bytes of an instance's last full backup; 0 when there was none. */
uint64_t last_full_size(std::string const& instance) {
    Value row;
    uint64_t size = 0;
    if (Catalog_Operator(-1, 0).get_first_view("gaussdb", "catalogs",
                                               {{"instance", instance},
                                                {"type", "full"},
                                                {"sort", "backup_start_time"},
                                                {"order", "desc"},
                                                {"limit", 1}},
                                               row) &&
        row.type() == json_spirit::obj_type)
        json_spirit::object_get(row.get_obj(), "backup_set_size", size);
    return size;
}

Readiness_Check::Pool pool_from(Object const& found) {
    Readiness_Check::Pool pool;
    std::string error;
    pool.name = json_spirit::object_get_str(found, "name");
    (void)pool_path_of_url(json_spirit::object_get_str(found, "url"), pool.path, error);
    json_spirit::object_get(found, "online", pool.online);
    json_spirit::object_get(found, "read_only", pool.read_only);
    json_spirit::object_get(found, "available", pool.available);
    json_spirit::object_get(found, "used", pool.used);
    json_spirit::object_get(found, "limit", pool.limit);
    return pool;
}

/** Compares a backup server's clock. An older server's answer has no time. */
void check_clock(Readiness_Check& check, Object const& answer, double before) {
    double there = 0;
    if (Host_Manager::instance()->on_backupd() || !Host_Services::instance().upstream() ||
        !json_spirit::object_get(answer, "now", there))
        return;
    double const after = clock_of_host();
    check.server_clock(there < before ? there - before : std::max(0.0, there - after));
}

/** Looks at one pool, or at all. A member's are its backup server's, which answers the method. */
bool check_pools(Readiness_Check& check, Method_Table& methods, std::string const& wanted,
                 uint64_t needed, std::chrono::seconds time, Method_Fault& fault) {
    JSON_RPC_Reply reply;
    double const before = clock_of_host();
    if (!methods.call("pool.list", Object(), Rpc_Caller::local(), time, reply)) {
        check.pools_unknown(reply.message);
        return true;
    }
    Array pools;
    if (reply.result.type() == json_spirit::obj_type) {
        json_spirit::object_get(reply.result.get_obj(), "pools", pools);
        check_clock(check, reply.result.get_obj(), before);
    }
    bool found = false;
    for (Object const& pool : json_spirit::objects_of(pools)) {
        if (!wanted.empty() && wanted != json_spirit::object_get_str(pool, "name") &&
            wanted != json_spirit::object_get_str(pool, "uuid"))
            continue;
        found = true;
        check.pool(pool_from(pool), needed);
    }
    if (found)
        return true;
    if (!wanted.empty())
        return answer(
            {Storage_Result::NOT_FOUND, "pool " + qmrt::to_one_line(wanted) + " does not exist"},
            fault);
    check.no_pool();
    return true;
}

} // namespace

void add_agent_methods(Method_Table& methods, Agent_Config const& config,
                       Agent_Identity const& identity, Agent_Database& database,
                       Agent_Module const& module) {
    time_t const started = time(nullptr);
    methods.add("agent.info", [&, started](Method_Call const&, Value& result, Method_Fault&) {
        result =
            Object{{"name", Host_Manager::instance()->name()},
                   {"uuid", identity.host_uuid},
                   {"uid", identity.uid},
                   {"version", ZENBRAK3_VERSION},
                   {"component", Host_Manager::instance()->on_backupd() ? "backupd" : "agent"},
                   {"pid", getpid()},
                   {"started", started},
                   {"data_dir", config.data_dir},
                   {"backupd", config.role == "member" ? config.backupd_url : ""},
                   {"module", Object{{"path", module.path()}, {"pairs", array_of(module.pairs())}}},
                   {"methods", array_of(methods.names())}};
        return true;
    });
    methods.add("agent.check", [&](Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, instance, pool, cache_dir, uid = identity.uid;
        int64_t time = CHECK_TIME;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.number("timeout", 1, LONGEST_CHECK, time);
        reader.text("instance", instance, names::fault_of_label);
        reader.text("pool", pool, names::fault_of_label);
        reader.text("uid", uid, names::fault_of_id);
        reader.text("cache_dir", cache_dir, names::fault_of_absolute_path);
        if (!reader.finish())
            return invalid_params(error, fault);
        Check_Deadline const deadline{std::chrono::seconds(time)};
        Readiness_Check check(module.guide());
        check.module(module.path(), module.job_creator() != nullptr);
        check.database(database.check());
        if (!instance.empty())
            check.instance(instance, uid, cache_dir);
        uint64_t const needed = instance.empty() ? 0 : last_full_size(instance);
        if (!check_pools(check, methods, pool, needed, std::chrono::seconds(time), fault))
            return false;
        result = check.dump();
        return true;
    });
}
